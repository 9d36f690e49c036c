/*
 * One clock for several programs that runs 1 to 600 times as fast as the real one.
 *
 * A small file holds all there is to know: when the clock was started, on this machine's steady
 * clock, what time it showed then, and how fast it runs. A program that is linked with the target
 * corvane_virtual_clock and finds the file's path in the variable CORVANE_CLOCK lives in that time
 * (see wraps.cpp for which calls that means); without the variable it lives in the real one. Shared
 * libraries and the steady clock always stay real, so that time-outs keep their length.
 *
 * All functions may be called from any thread.
 */
#ifndef CORVANE_PLATFORM_CLOCK_VIRTUAL_CLOCK_H
#define CORVANE_PLATFORM_CLOCK_VIRTUAL_CLOCK_H

#include <cstdint>
#include <ctime>
#include <string>

namespace corvane::clock {

inline constexpr const char *kClockVariable = "CORVANE_CLOCK";
inline constexpr int kMinFactor = 1;
inline constexpr int kMaxFactor = 600;

class VirtualClock {
public:
    /* The real time, at factor 1. */
    VirtualClock();

    /* Virtual nanoseconds since the epoch. */
    std::int64_t nowNs() const;

    /* Virtual seconds that pass in a real one, 1 to 600. */
    int factor() const { return factor_; }

    /* The real length of a virtual length of time: how long to wait for it. */
    std::int64_t realNsFor(std::int64_t virtualNs) const { return virtualNs / factor_; }

    /* False for the default one. */
    bool isVirtual() const { return isVirtual_; }

private:
    friend std::string openClock(const std::string &path, VirtualClock &clock);

    std::int64_t realStartNs_ = 0; // of CLOCK_MONOTONIC
    std::int64_t virtualStartNs_ = 0;
    int factor_ = 1;
    bool isVirtual_ = false;
};

/*
 * Writes the file of a clock that shows virtualStartNs (since the epoch) now. A file that is there
 * is replaced whole; programs that have opened it keep the old clock.
 * Gives the one line that says what is wrong; empty when done.
 */
[[nodiscard]] std::string createClock(const std::string &path, int factor,
                                      std::int64_t virtualStartNs);

/* Reads a clock's file. Gives the one line that says what is wrong, clock is then untouched; empty
 * when done. */
[[nodiscard]] std::string openClock(const std::string &path, VirtualClock &clock);

/*
 * The clock that this process lives in: by CORVANE_CLOCK, read once. Where the variable names a
 * file that is missing or bad, the process says so in one line and ends with status 1; it does so
 * before main().
 */
const VirtualClock &processClock();

/*
 * Makes a zone of the system's database (such as "Europe/Berlin") the process's zone, in TZ. While
 * the process has one thread. Gives the one line that says what is wrong; empty when done.
 */
[[nodiscard]] std::string useZone(const std::string &zone);

/*
 * The moment of a local time "2026-07-31T14:50" or "2026-07-31T14:50:30", of the years 1970 to
 * 2199, in the process's zone. A time that the zone leaves out, or has twice, when its clocks are
 * changed, is an error. Gives the one line that says what is wrong, moment is then untouched; empty
 * when done.
 */
[[nodiscard]] std::string parseLocalTime(const std::string &text, std::time_t &moment);

} // namespace corvane::clock

#endif
