/* The placing of an event; see the header. */
#include "event_time.h"

namespace corvane::client {

EventTime placeEvent(std::optional<int> startSecondOfDayUtc, int durationSec, std::time_t now) {
    constexpr std::time_t kDaySec = 24 * 3600;
    std::time_t start = startSecondOfDayUtc ? now - now % kDaySec + *startSecondOfDayUtc : now;
    if (start + durationSec < now)
        start += kDaySec;
    return {start, start + durationSec};
}

} // namespace corvane::client
