/*
 * Calendar arithmetic with the C library's zones; the dates themselves need no zone.
 */
#include "local_time.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

namespace corvane::lab {
namespace {

constexpr int kDaySec = 86'400;

std::tm fieldsOf(const Date &date, int secondOfDay) {
    std::tm fields{};
    fields.tm_year = date.year - 1900;
    fields.tm_mon = date.month - 1;
    fields.tm_mday = date.day;
    fields.tm_hour = secondOfDay / 3600;
    fields.tm_min = secondOfDay / 60 % 60;
    fields.tm_sec = secondOfDay % 60;
    return fields;
}

std::string padded(int value, std::size_t width = 2) {
    const std::string digits = std::to_string(value);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
}

std::string longClock(int secondOfDay) {
    return padded(secondOfDay / 3600) + ":" + padded(secondOfDay / 60 % 60) + ":" +
           padded(secondOfDay % 60);
}

} // namespace

std::int64_t dayNumber(const Date &date) {
    std::tm fields = fieldsOf(date, 0);
    return timegm(&fields) / kDaySec;
}

Date dateOfDay(std::int64_t dayNumber) {
    const std::time_t moment = dayNumber * kDaySec;
    std::tm fields{};
    gmtime_r(&moment, &fields);
    return {fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday};
}

int weekdayOf(const Date &date) {
    return static_cast<int>(((dayNumber(date) + 3) % 7 + 7) % 7); // 1970 began on a Thursday
}

bool exists(const Date &date) {
    return date.month >= 1 && date.month <= 12 && date.day >= 1 &&
           dateOfDay(dayNumber(date)) == date;
}

bool isZone(const std::string &name) {
    return !name.empty() && name.front() != '/' && name.find("..") == std::string::npos &&
           std::filesystem::is_regular_file("/usr/share/zoneinfo/" + name);
}

void useZone(const std::string &name) {
    setenv("TZ", name.c_str(), 1); // NOLINT(concurrency-mt-unsafe): see the declaration
    tzset();
}

std::int64_t momentOf(const Date &date, int secondOfDay) {
    const Date day = dateOfDay(dayNumber(date) + secondOfDay / kDaySec);
    const std::tm wanted = fieldsOf(day, secondOfDay % kDaySec);
    std::time_t moment = 0;
    for (const int summer : {1, 0}) { // of two, the one in summer time comes first
        std::tm fields = wanted;
        fields.tm_isdst = summer;
        moment = mktime(&fields);
        std::tm shown{};
        localtime_r(&moment, &shown);
        if (shown.tm_mday == wanted.tm_mday && shown.tm_hour == wanted.tm_hour &&
            shown.tm_min == wanted.tm_min)
            break;
    }
    return moment * 1000;
}

LocalTime localTimeOf(std::int64_t utcMs) {
    const std::time_t moment = utcMs / 1000;
    std::tm fields{};
    localtime_r(&moment, &fields);
    return {{fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday},
            fields.tm_hour * 3600 + fields.tm_min * 60 + fields.tm_sec,
            static_cast<int>(fields.tm_gmtoff)};
}

std::string dateText(const Date &date) {
    return padded(date.year, 4) + "-" + padded(date.month) + "-" + padded(date.day);
}

std::string clockText(int secondOfDay) {
    return longClock(secondOfDay).substr(0, secondOfDay % 60 == 0 ? 5 : 8);
}

std::string localText(std::int64_t utcMs) {
    const LocalTime local = localTimeOf(utcMs);
    return dateText(local.date) + " " + longClock(local.secondOfDay);
}

std::string utcText(std::int64_t utcMs) {
    const std::time_t moment = utcMs / 1000;
    std::tm fields{};
    gmtime_r(&moment, &fields);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%FT%TZ", &fields);
    return text.data();
}

std::optional<int> secondsOf(const std::string &hhmmss) {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int read = 0;
    const bool isLong = hhmmss.size() == 8;
    if (hhmmss.size() != 5 && !isLong)
        return std::nullopt;
    for (std::size_t i = 0; i < hhmmss.size(); ++i) {
        const bool isColon = i == 2 || i == 5;
        if (isColon ? hhmmss[i] != ':' : hhmmss[i] < '0' || hhmmss[i] > '9')
            return std::nullopt;
    }
    read = std::sscanf(hhmmss.c_str(), "%2d:%2d:%2d", &hours, &minutes, &seconds);
    if (read < 2 || hours > 23 || minutes > 59 || seconds > 59)
        return std::nullopt;
    return hours * 3600 + minutes * 60 + seconds;
}

} // namespace corvane::lab
