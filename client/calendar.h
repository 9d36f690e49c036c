/*
 * The texts of times that are typed, sent and shown: times of day, lengths, dates of the year and
 * moments. Where a zone matters the name says which: Utc or Local (the zone of this machine).
 */
#ifndef CORVANE_CLIENT_CALENDAR_H
#define CORVANE_CLIENT_CALENDAR_H

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::client {

/* Seconds since midnight of hh:mm:ss, 00:00:00 to 23:59:59; hh:mm counts too with allowMinutes. */
std::optional<int> parseTimeOfDay(std::string_view text, bool allowMinutes = false);

/* hh:mm:ss of 0 to 359999 seconds. */
std::string clockText(int seconds);

struct MonthDay {
    int month = 0; // 1 to 12
    int day = 0;   // 1 to 31; 29 February is a day
};

/* MM-DD of a day that some year has. */
std::optional<MonthDay> parseMonthDay(std::string_view text);

/* The moment of YYYY-MM-DDThh:mm:ss, with or without a final Z, read as UTC. A fraction of a second
 * before the Z is passed over. */
std::optional<std::time_t> parseUtc(const std::string &text);

/* The moment by a pattern of strftime(). */
std::string formatUtc(std::time_t moment, const char *format);
std::string formatLocal(std::time_t moment, const char *format);

/* "1 h 2 min", "2 min 3 s", "3 s": the two largest units that matter. */
std::string lengthText(std::time_t seconds);

} // namespace corvane::client

#endif
