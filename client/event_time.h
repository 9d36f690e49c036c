/*
 * When a demand-response event runs. The wire carries only a time of day; the service makes a
 * moment of it by the rule that placeEvent() repeats for the confirmation.
 */
#ifndef CORVANE_CLIENT_EVENT_TIME_H
#define CORVANE_CLIENT_EVENT_TIME_H

#include <ctime>
#include <optional>

namespace corvane::client {

/* What the service takes when an order names no length. */
inline constexpr int kDefaultEventSec = 4 * 3600 + 30 * 60;

struct EventTime {
    std::time_t start = 0; // inclusive
    std::time_t end = 0;

    bool isWaiting(std::time_t now) const { return now < start; }
    /* The service ends an event on the first pass after its end. */
    bool isOver(std::time_t now) const { return now > end; }
};

/*
 * Places an event on today's UTC date; on tomorrow's when the whole interval has passed today.
 * Without a start it begins now.
 */
EventTime placeEvent(std::optional<int> startSecondOfDayUtc, int durationSec, std::time_t now);

} // namespace corvane::client

#endif
