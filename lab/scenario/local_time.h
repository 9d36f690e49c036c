/*
 * Local times of a scenario. A zone is the process's own: useZone() sets it, the others follow it.
 *
 * Dates and times of day are what people write; moments are milliseconds since 1970, UTC. On the
 * days on which clocks are changed a local time may exist twice (the first is meant) or not at all
 * (it is moved forward by the gap, as people's alarm clocks do).
 */
#ifndef CORVANE_LAB_LOCAL_TIME_H
#define CORVANE_LAB_LOCAL_TIME_H

#include <cstdint>
#include <optional>
#include <string>

namespace corvane::lab {

inline constexpr std::int64_t kDayMs = 86'400'000;
inline constexpr std::int64_t kHourMs = 3'600'000;
inline constexpr std::int64_t kMinuteMs = 60'000;

struct Date {
    int year = 0;
    int month = 0; // 1 to 12
    int day = 0;   // 1 to 31
    auto operator<=>(const Date &) const = default;
};

/* Days since 1970-01-01 and back. */
[[nodiscard]] std::int64_t dayNumber(const Date &date);
[[nodiscard]] Date dateOfDay(std::int64_t dayNumber);
[[nodiscard]] int weekdayOf(const Date &date); // 0 Monday to 6 Sunday
[[nodiscard]] bool exists(const Date &date);

/* Whether this machine knows the zone: "Europe/Berlin". */
[[nodiscard]] bool isZone(const std::string &name);
/* Not while other threads read the time zone. */
void useZone(const std::string &name);

/* The moment of a local time of day, 0 to 86,399 s; more goes on into the days after. */
[[nodiscard]] std::int64_t momentOf(const Date &date, int secondOfDay);

struct LocalTime {
    Date date;
    int secondOfDay = 0;
    int offsetSec = 0; // of local time from UTC
};
[[nodiscard]] LocalTime localTimeOf(std::int64_t utcMs);

[[nodiscard]] std::string dateText(const Date &date);                  // 2026-08-03
[[nodiscard]] std::string clockText(int secondOfDay);                  // 16:00, or 16:00:05
[[nodiscard]] std::string localText(std::int64_t utcMs);               // 2026-08-03 16:00:05
[[nodiscard]] std::string utcText(std::int64_t utcMs);                 // 2026-08-03T14:00:05Z
[[nodiscard]] std::optional<int> secondsOf(const std::string &hhmmss); // hh:mm or hh:mm:ss

} // namespace corvane::lab

#endif
