/*
 * Time as the models count it. They have no clock: each operation is told what time it is, so that
 * a day passes in a test as fast as it can be computed.
 */
#ifndef CORVANE_APPLIANCE_MODEL_TIME_H
#define CORVANE_APPLIANCE_MODEL_TIME_H

#include <cstdint>

namespace corvane::appliance {

/* Milliseconds since the Unix epoch, on the real or a virtual clock. */
using TimeMs = std::int64_t;

inline constexpr TimeMs kMsPerSec = 1000;
inline constexpr TimeMs kMsPerDay = 86'400'000;

/*
 * The longest time that a model lives through in one go. A longer step of the clock is taken for a
 * clock that was set (from 1970 to now, say), not for time that has passed; so is a step back.
 */
inline constexpr TimeMs kLongestGapMs = 31 * kMsPerDay;

/* Whether a clock that shows `now` after `before` was set rather than has run. */
inline bool clockWasSet(TimeMs before, TimeMs now) {
    // Without signs a step back is a very long one, and no two times are too far apart.
    return static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(before) >
           static_cast<std::uint64_t>(kLongestGapMs);
}

} // namespace corvane::appliance

#endif
