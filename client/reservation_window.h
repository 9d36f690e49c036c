/*
 * Defrost reservations as the appliance follows them: a season of the year and, in it, one window a
 * day, both in local time.
 *
 * The service looks at its reservations from the highest id down and follows the first whose season
 * holds today. The client repeats these rules to mark that one; it decides nothing.
 */
#ifndef CORVANE_CLIENT_RESERVATION_WINDOW_H
#define CORVANE_CLIENT_RESERVATION_WINDOW_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace corvane::client {

/* As on the wire. */
struct Reservation {
    std::string id; // "0" and "1" are the service's own, "2" and "3" may be added and removed
    std::string description;
    std::string startTime; // 0000-MM-DDThh:mm:ss: first day of the season, daily start
    std::string endTime;   // 0000-MM-DDThh:mm:ss: last day of the season
    std::string period;    // hh:mm:ss, length of the daily window

    /* MM-DD, hh:mm:ss; empty when the field is too short to hold them. */
    std::string firstDay() const;
    std::string lastDay() const;
    std::string dailyStart() const;
};

/*
 * Whether the season holds at the moment. A season whose last day lies before its first runs over
 * the year's end. On the last day it holds until midnight, or until the window of that day ends
 * when that is later. False for fields that cannot be read.
 */
bool seasonHolds(const Reservation &reservation, std::time_t moment);

/* The id of the reservation that the service follows at the moment. */
std::optional<std::string> currentReservation(const std::vector<Reservation> &reservations,
                                              std::time_t moment);

struct DailyWindow {
    std::time_t start = 0; // inclusive
    std::time_t end = 0;   // exclusive; may lie after midnight, where the service lets go already
};

/* The window of the moment's own day; nothing for fields that cannot be read. */
std::optional<DailyWindow> windowOfDay(const Reservation &reservation, std::time_t moment);

} // namespace corvane::client

#endif
