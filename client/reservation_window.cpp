/*
 * The season and window rules. All of them are stated on the local calendar, so each boundary is
 * made as a broken-down local time and left to mktime(), which knows the daylight-saving days.
 */
#include "reservation_window.h"

#include "calendar.h"

#include <algorithm>
#include <charconv>

namespace corvane::client {
namespace {

std::string part(const std::string &text, std::size_t from, std::size_t length) {
    return text.size() < from + length ? "" : text.substr(from, length);
}

std::tm localDay(std::time_t moment) {
    std::tm fields{};
    tzset();
    localtime_r(&moment, &fields);
    return fields;
}

std::time_t atTime(std::tm day, int secondOfDay) {
    day.tm_hour = secondOfDay / 3600;
    day.tm_min = secondOfDay / 60 % 60;
    day.tm_sec = secondOfDay % 60;
    day.tm_isdst = -1;
    return mktime(&day);
}

std::tm onDate(std::tm day, const MonthDay &date) {
    day.tm_mon = date.month - 1;
    day.tm_mday = date.day;
    return day;
}

} // namespace

std::string Reservation::firstDay() const { return part(startTime, 5, 5); }
std::string Reservation::lastDay() const { return part(endTime, 5, 5); }
std::string Reservation::dailyStart() const { return part(startTime, 11, 8); }

bool seasonHolds(const Reservation &reservation, std::time_t moment) {
    const auto first = parseMonthDay(reservation.firstDay());
    const auto last = parseMonthDay(reservation.lastDay());
    const auto start = parseTimeOfDay(reservation.dailyStart());
    const auto period = parseTimeOfDay(reservation.period);
    if (!first || !last || !start || !period)
        return false;
    const std::tm today = localDay(moment);
    const std::time_t seasonStart = atTime(onDate(today, *first), 0);
    const std::time_t lastWindowEnd = atTime(onDate(today, *last), *start) + *period;
    const std::time_t lastMidnight = atTime(onDate(today, *last), 24 * 3600 - 1);
    const std::time_t seasonEnd = std::max(lastWindowEnd, lastMidnight);
    if (seasonEnd >= seasonStart)
        return seasonStart <= moment && moment <= seasonEnd;
    return moment >= seasonStart || moment <= seasonEnd;
}

std::optional<std::string> currentReservation(const std::vector<Reservation> &reservations,
                                              std::time_t moment) {
    std::optional<std::string> current;
    int highest = -1;
    for (const Reservation &reservation : reservations) {
        const char *digits = reservation.id.c_str();
        int id = -1; // not a number: never current
        std::from_chars(digits, digits + reservation.id.size(), id);
        if (id > highest && seasonHolds(reservation, moment)) {
            highest = id;
            current = reservation.id;
        }
    }
    return current;
}

std::optional<DailyWindow> windowOfDay(const Reservation &reservation, std::time_t moment) {
    const auto start = parseTimeOfDay(reservation.dailyStart());
    const auto period = parseTimeOfDay(reservation.period);
    if (!start || !period)
        return std::nullopt;
    const std::time_t windowStart = atTime(localDay(moment), *start);
    return DailyWindow{windowStart, windowStart + *period};
}

} // namespace corvane::client
