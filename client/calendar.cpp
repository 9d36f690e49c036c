/*
 * Reading and writing of times. Everything is digits at fixed places, so nothing here depends on
 * the locale; only formatLocal() depends on the time zone.
 */
#include "calendar.h"

#include <array>
#include <cstdio>
#include <iomanip>
#include <sstream>

namespace corvane::client {
namespace {

/* The two digits at a place, or -1. */
int twoDigits(std::string_view text, std::size_t at) {
    const auto digit = [&](std::size_t i) {
        return i < text.size() && text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1;
    };
    const int tens = digit(at);
    const int ones = digit(at + 1);
    return tens < 0 || ones < 0 ? -1 : tens * 10 + ones;
}

std::string format(const std::tm &fields, const char *pattern) {
    std::ostringstream text;
    text << std::put_time(&fields, pattern);
    return text.str();
}

} // namespace

std::optional<int> parseTimeOfDay(std::string_view text, bool allowMinutes) {
    const bool minutesOnly = allowMinutes && text.size() == 5;
    if (!minutesOnly && (text.size() != 8 || text[5] != ':'))
        return std::nullopt;
    const int hours = twoDigits(text, 0);
    const int minutes = twoDigits(text, 3);
    const int seconds = minutesOnly ? 0 : twoDigits(text, 6);
    if (text[2] != ':' || hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || seconds < 0 ||
        seconds > 59)
        return std::nullopt;
    return hours * 3600 + minutes * 60 + seconds;
}

std::string clockText(int seconds) {
    std::array<char, 32> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
    return buffer.data();
}

std::optional<MonthDay> parseMonthDay(std::string_view text) {
    constexpr std::array<int, 13> kDays{0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (text.size() != 5 || text[2] != '-')
        return std::nullopt;
    const MonthDay date{twoDigits(text, 0), twoDigits(text, 3)};
    if (date.month < 1 || date.month > 12 || date.day < 1 ||
        date.day > kDays[static_cast<std::size_t>(date.month)])
        return std::nullopt;
    return date;
}

std::optional<std::time_t> parseUtc(const std::string &text) {
    std::tm fields{};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    if (rest == nullptr)
        return std::nullopt;
    if (*rest == '.')
        do
            ++rest;
        while (*rest >= '0' && *rest <= '9');
    if (std::string_view(rest) != "Z" && *rest != '\0')
        return std::nullopt;
    return timegm(&fields);
}

std::string formatUtc(std::time_t moment, const char *pattern) {
    std::tm fields{};
    gmtime_r(&moment, &fields);
    return format(fields, pattern);
}

std::string formatLocal(std::time_t moment, const char *pattern) {
    std::tm fields{};
    tzset();
    localtime_r(&moment, &fields);
    return format(fields, pattern);
}

std::string lengthText(std::time_t seconds) {
    const long length = static_cast<long>(seconds);
    const std::string hours = std::to_string(length / 3600) + " h";
    const std::string minutes = std::to_string(length / 60 % 60) + " min";
    const std::string rest = std::to_string(length % 60) + " s";
    if (length >= 3600)
        return length / 60 % 60 == 0 ? hours : hours + " " + minutes;
    if (length >= 60)
        return length % 60 == 0 ? minutes : minutes + " " + rest;
    return rest;
}

} // namespace corvane::client
