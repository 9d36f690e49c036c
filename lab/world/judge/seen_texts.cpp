/*
 * Plain readers of short texts; they are called for each statement and each event, and so copy
 * little.
 */
#include "seen_texts.h"

#include <algorithm>
#include <charconv>

namespace corvane::lab {

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

int numberIn(std::string_view text) {
    const std::size_t at = text.find_first_of("-0123456789");
    int number = 0;
    if (at != text.npos)
        std::from_chars(text.data() + at, text.data() + text.size(), number);
    return number;
}

std::vector<std::string> valuesOf(const std::string &sql) {
    std::vector<std::string> values;
    for (std::size_t at = sql.find('\''); at != sql.npos; at = sql.find('\'', at + 1)) {
        const std::size_t end = sql.find('\'', at + 1);
        if (end == sql.npos)
            break;
        values.push_back(sql.substr(at + 1, end - at - 1));
        at = end;
    }
    return values;
}

std::int64_t lengthMs(std::string_view text) {
    std::int64_t parts[3] = {};
    for (std::int64_t &part : parts) {
        std::from_chars(text.data(), text.data() + std::min<std::size_t>(2, text.size()), part);
        text.remove_prefix(std::min<std::size_t>(3, text.size()));
    }
    return ((parts[0] * 60 + parts[1]) * 60 + parts[2]) * 1000;
}

std::int64_t utcTextMs(const std::string &text) {
    std::tm fields{};
    strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    return std::int64_t{timegm(&fields)} * 1000;
}

std::tm utcFields(std::int64_t utcMs) {
    const std::time_t seconds = utcMs / 1000;
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    return fields;
}

std::string optionalText(const std::optional<int> &value) {
    return value ? std::to_string(*value) : "nothing";
}

} // namespace corvane::lab
