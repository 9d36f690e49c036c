/*
 * The C library's times and deadlines as nanoseconds, saturating: what is too late for 64 bits is
 * never.
 */
#ifndef CORVANE_LAB_TIMESPEC_H
#define CORVANE_LAB_TIMESPEC_H

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace virtualtime {

constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kNever = INT64_MAX;
// The monotonic clock does not start at 0, which some code takes for "never".
constexpr std::int64_t kBootNs = 1000 * kNsPerSec;

inline std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? kNever : sum;
}

inline bool isValid(const timespec &time) {
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kNsPerSec;
}

inline std::int64_t toNs(const timespec &time) {
    std::int64_t ns = 0;
    if (__builtin_mul_overflow(static_cast<std::int64_t>(time.tv_sec), kNsPerSec, &ns)) {
        return time.tv_sec < 0 ? 0 : kNever;
    }
    return saturatingAdd(ns, time.tv_nsec);
}

inline timespec toTimespec(std::int64_t ns) {
    std::int64_t sec = ns / kNsPerSec;
    std::int64_t rest = ns % kNsPerSec;
    if (rest < 0) {
        --sec;
        rest += kNsPerSec;
    }
    return {static_cast<time_t>(sec), static_cast<long>(rest)};
}

// A moment on the system clock, or on the monotonic one since the run's start.
struct Deadline {
    std::int64_t ns;
    bool onSystemClock;
};

inline Deadline deadlineOn(clockid_t clock, const timespec &time) {
    if (clock == CLOCK_REALTIME) {
        return {toNs(time), true};
    }
    const std::int64_t ns = toNs(time);
    return {ns == kNever ? kNever : std::max<std::int64_t>(ns - kBootNs, 0), false};
}

} // namespace virtualtime

#endif
