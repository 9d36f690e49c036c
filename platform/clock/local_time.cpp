/*
 * Local times as people type them. mktime() would settle every doubt silently; here each offset
 * that the zone uses around the time is tried, and the time counts when exactly one leads back to
 * it.
 */
#include "virtual_clock.h"

#include "text.h"

#include <cstdio>
#include <cstdlib>
#include <set>

#include <unistd.h>

namespace corvane::clock {
namespace {

using platform::inQuotes;

constexpr const char *kZones = "/usr/share/zoneinfo/";
constexpr std::time_t kDaySec = 24 * 3600;
constexpr int kFirstYear = 1970;
constexpr int kLastYear = 2199;

bool sameFields(const std::tm &left, const std::tm &right) {
    return left.tm_year == right.tm_year && left.tm_mon == right.tm_mon &&
           left.tm_mday == right.tm_mday && left.tm_hour == right.tm_hour &&
           left.tm_min == right.tm_min && left.tm_sec == right.tm_sec;
}

/* Of the form, and a time that a day has; the day itself is checked by the caller. */
bool readFields(const std::string &text, std::tm &fields) {
    constexpr std::size_t kMinutesLength = 16;
    constexpr std::size_t kSecondsLength = 19;
    const std::string pattern = "dddd-dd-ddTdd:dd:dd";
    if (text.size() != kMinutesLength && text.size() != kSecondsLength)
        return false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isDigit = text[at] >= '0' && text[at] <= '9';
        if (pattern[at] == 'd' ? !isDigit : text[at] != pattern[at])
            return false;
    }
    const auto number = [&](std::size_t at, std::size_t length) {
        return std::stoi(text.substr(at, length));
    };
    fields = {};
    fields.tm_year = number(0, 4) - 1900;
    fields.tm_mon = number(5, 2) - 1;
    fields.tm_mday = number(8, 2);
    fields.tm_hour = number(11, 2);
    fields.tm_min = number(14, 2);
    fields.tm_sec = text.size() == kSecondsLength ? number(17, 2) : 0;
    return fields.tm_hour <= 23 && fields.tm_min <= 59 && fields.tm_sec <= 59;
}

} // namespace

std::string useZone(const std::string &zone) {
    const bool isName = !zone.empty() && zone.front() != '/' && zone.find("..") == zone.npos;
    if (!isName || access((kZones + zone).c_str(), R_OK) != 0 || zone.back() == '/')
        return "clock: " + inQuotes(zone) + " is no zone of " + kZones +
               "; expected is a name such as Europe/Berlin";
    // NOLINTNEXTLINE(concurrency-mt-unsafe): while there is one thread, by contract
    (void)setenv("TZ", zone.c_str(), 1);
    tzset();
    return "";
}

std::string parseLocalTime(const std::string &text, std::time_t &moment) {
    std::tm fields{};
    std::tm normal{};
    std::time_t asUtc = 0;
    const bool isRead = readFields(text, fields);
    if (isRead) {
        std::tm copy = fields;
        asUtc = timegm(&copy);
        gmtime_r(&asUtc, &normal);
    }
    if (!isRead || !sameFields(fields, normal) || fields.tm_year < kFirstYear - 1900 ||
        fields.tm_year > kLastYear - 1900)
        return "clock: " + inQuotes(text) +
               " is no local time; expected is one such as 2026-07-31T14:50, 1970 to 2199";

    tzset();
    std::set<std::time_t> moments;
    for (const std::time_t around : {asUtc - kDaySec, asUtc, asUtc + kDaySec}) {
        std::tm there{};
        localtime_r(&around, &there);
        const std::time_t candidate = asUtc - there.tm_gmtoff;
        localtime_r(&candidate, &there);
        if (sameFields(fields, there))
            moments.insert(candidate);
    }
    if (moments.empty())
        return "clock: " + inQuotes(text) +
               " does not exist in this zone: its clocks are put forward over it; choose another "
               "time";
    if (moments.size() > 1)
        return "clock: " + inQuotes(text) +
               " comes twice in this zone: its clocks are put back over it; choose another time";
    moment = *moments.begin();
    return "";
}

} // namespace corvane::clock
