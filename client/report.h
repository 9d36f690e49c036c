/*
 * What a status report is made of. Every piece is either known or carries the plain reason why not,
 * so that a screen with a hole says what the hole is.
 */
#ifndef CORVANE_CLIENT_REPORT_H
#define CORVANE_CLIENT_REPORT_H

#include "event_time.h"
#include "reservation_window.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace corvane::client {

template <typename T>
struct Piece {
    std::optional<T> value;
    std::string missing; // why there is no value
    std::string note;    // what to know about the value; mostly empty
};

struct StoredEvent {
    int level = 0; // 1 to 4
    EventTime time;
};

/* Whether an event is stored, and which one where that can be known. */
struct EventReport {
    bool stored = false;
    std::optional<StoredEvent> details;
};

struct Consumption {
    std::string cumulative; // of this month so far, as the service writes it: "220.45"
    std::string monthly;    // of the whole month before
};

struct StatusReport {
    std::string url;
    std::time_t now = 0;
    Piece<int> level;    // 0 normal, 1 to 4 reduced
    Piece<int> override; // 0 or 1
    Piece<int> block;    // 0 or 1
    Piece<EventReport> event;
    Piece<int> defrostEnabled; // 0: off
    Piece<int> defrostActive;  // 0: no
    Piece<std::vector<Reservation>> reservations;
    Piece<Consumption> consumption;
};

} // namespace corvane::client

#endif
