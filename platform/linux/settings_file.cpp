/*
 * The text of one key's file: parsing, and composing the next one.
 */
#include "settings_file.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace corvane::platform {
namespace {

constexpr std::string_view kInt = "int ";
constexpr std::string_view kText = "text ";
constexpr std::string_view kChange = "change ";
constexpr std::string_view kSince = " since ";
constexpr std::size_t kSinceSize = sizeof "2026-11-21T11:54:26.123456Z" - 1;

/* Takes the first line off the text, without its end; false when there is no whole line. */
bool takeLine(std::string_view &text, std::string_view &line) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos)
        return false;
    line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return true;
}

/* The whole of digits as a number. */
template <typename Number>
bool parseNumber(std::string_view digits, Number &number, int base) {
    const char *end = digits.data() + digits.size();
    const auto [stopped, error] = std::from_chars(digits.data(), end, number, base);
    return error == std::errc() && stopped == end;
}

void appendEscaped(std::string &line, std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            line += "\\x";
            line += digits[byte >> 4];
            line += digits[byte & 15];
        } else {
            line += c;
            if (c == '\\')
                line += c;
        }
    }
}

bool unescape(std::string_view escaped, std::string &text) {
    std::string result;
    result.reserve(escaped.size());
    while (!escaped.empty()) {
        if (escaped[0] != '\\') {
            result += escaped[0];
            escaped.remove_prefix(1);
        } else if (escaped.substr(1, 1) == "\\") {
            result += '\\';
            escaped.remove_prefix(2);
        } else {
            unsigned char byte = 0;
            if (escaped.size() < 4 || escaped[1] != 'x' ||
                !parseNumber(escaped.substr(2, 2), byte, 16))
                return false;
            result += static_cast<char>(byte);
            escaped.remove_prefix(4);
        }
    }
    text = std::move(result);
    return true;
}

std::string timeText(std::chrono::system_clock::time_point now) {
    using namespace std::chrono;
    const auto day = floor<days>(now);
    const year_month_day date(day);
    const hh_mm_ss time(floor<microseconds>(now - day));
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ",
                        static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                        static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                        static_cast<int>(time.minutes().count()),
                        static_cast<int>(time.seconds().count()),
                        static_cast<int>(time.subseconds().count()));
    return text.data();
}

/* The newest of the lines, after one old value that is kept anyway, that there is room for beside
 * size bytes. */
std::string_view keptValues(std::string_view lines, std::size_t size) {
    std::size_t kept = 0;
    for (std::size_t count = 1; kept < lines.size(); ++count) {
        const std::size_t end = lines.find('\n', kept);
        if (end == std::string_view::npos ||
            (count >= kMinOldValues && size + end + 1 > kSettingsFileSize))
            break;
        kept = end + 1;
    }
    return lines.substr(0, kept);
}

} // namespace

bool parseSettingsFile(std::string_view text, SettingsFile &file) {
    SettingsFile result;
    std::string_view change;
    SettingValue value;
    if (!takeLine(text, result.valueLine) || !parseSettingValue(result.valueLine, value) ||
        !takeLine(text, change) || !change.starts_with(kChange))
        return false;
    change.remove_prefix(kChange.size());
    const std::size_t numberEnd = change.find(kSince);
    if (numberEnd == std::string_view::npos ||
        !parseNumber(change.substr(0, numberEnd), result.sequence, 10) || result.sequence == 0)
        return false;
    result.since = change.substr(numberEnd + kSince.size());
    if (result.since.size() != kSinceSize)
        return false;
    result.oldValues = text;
    file = result;
    return true;
}

bool parseSettingValue(std::string_view line, SettingValue &value) {
    if (line.starts_with(kInt)) {
        int number = 0;
        if (!parseNumber(line.substr(kInt.size()), number, 10))
            return false;
        value = number;
        return true;
    }
    std::string text;
    if (!line.starts_with(kText) || !unescape(line.substr(kText.size()), text))
        return false;
    value = std::move(text);
    return true;
}

std::vector<SettingValue> parseSettingValues(const SettingsFile &file, std::uint64_t limit) {
    std::vector<SettingValue> values;
    std::string_view line = file.valueLine;
    std::string_view rest = file.oldValues;
    SettingValue value;
    while (values.size() < limit && parseSettingValue(line, value)) {
        values.push_back(std::move(value));
        if (!takeLine(rest, line))
            break;
    }
    return values;
}

std::string composeSettingsFile(const SettingValue &value, std::string_view before,
                                std::chrono::system_clock::time_point now) {
    std::string text;
    text.reserve(kSettingsFileSize);
    if (const int *number = std::get_if<int>(&value)) {
        text.append(kInt).append(std::to_string(*number));
    } else {
        text += kText;
        appendEscaped(text, std::get<std::string>(value));
    }
    text.append("\n").append(kChange);
    SettingsFile old;
    if (!parseSettingsFile(before, old))
        return text.append("1").append(kSince).append(timeText(now)).append("\n");
    text.append(std::to_string(old.sequence + 1)).append(kSince).append(old.since).append("\n");
    text.append(old.valueLine).append("\n");
    return text.append(keptValues(old.oldValues, text.size()));
}

} // namespace corvane::platform
