/*
 * What the models' tests share: a beginning, times after it, and a walk through time that looks at
 * a refrigerator after each of its steps.
 */
#ifndef CORVANE_TESTS_APPLIANCE_VIRTUAL_DAYS_H
#define CORVANE_TESTS_APPLIANCE_VIRTUAL_DAYS_H

#include <gtest/gtest.h>

#include "refrigerator.h"

namespace corvane::appliance {

inline constexpr TimeMs kBegin = 1'780'272'000'000; // 2026-06-01T00:00:00Z, a Monday
inline constexpr TimeMs kLookMs = 10'000;

constexpr TimeMs afterSec(double sec) { return kBegin + static_cast<TimeMs>(sec * 1000); }
constexpr TimeMs afterHours(double hours) { return afterSec(hours * 3600); }

/* Lives from where it is to `end`, and calls `look` every ten seconds until one asserts in vain. */
template <typename Look>
void live(Refrigerator &refrigerator, TimeMs end, Look look) {
    for (TimeMs at = refrigerator.at() + kLookMs; at <= end && !testing::Test::HasFatalFailure();
         at += kLookMs) {
        refrigerator.advance(at);
        look();
    }
}

/* The energy that it uses up to `end`. */
inline double energyUntil(Refrigerator &refrigerator, TimeMs end) {
    const double before = refrigerator.energyWh();
    refrigerator.advance(end);
    return refrigerator.energyWh() - before;
}

/* Lives on until the compressor has just been switched on, or off. */
inline void liveUntilCompressorTurns(Refrigerator &refrigerator, bool on) {
    while (refrigerator.compressorOn() == on) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    while (refrigerator.compressorOn() != on) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
}

} // namespace corvane::appliance

#endif
