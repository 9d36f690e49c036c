/*
 * The replaced calls that tell the time and that sleep.
 */
#include "real_function.h"
#include "scheduler.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <sched.h>
#include <sys/time.h>
#include <unistd.h>

namespace virtualtime {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
namespace real {
REAL(clock_gettime);
REAL(time);
REAL(gettimeofday);
REAL(nanosleep);
REAL(clock_nanosleep);
REAL(usleep);
REAL(sleep);
REAL(sched_yield);
} // namespace real
#pragma GCC diagnostic pop

// A yield costs a microsecond, so that a loop that spins on yields lets time pass.
constexpr std::int64_t kYieldNs = 1'000;

bool isReplaced(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_MONOTONIC ||
           clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

std::int64_t readClock(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE
               ? theRun->systemNs()
               : theRun->monotonicNs + kBootNs;
}

} // namespace
} // namespace virtualtime

using namespace virtualtime;

extern "C" {

int clock_gettime(clockid_t clock, timespec *result) noexcept {
    if (self == nullptr || !isReplaced(clock)) {
        return real::clock_gettime.get()(clock, result);
    }
    *result = toTimespec(readClock(clock));
    return 0;
}

time_t time(time_t *result) noexcept {
    if (self == nullptr) {
        return real::time.get()(result);
    }
    const time_t now = toTimespec(theRun->systemNs()).tv_sec;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

int gettimeofday(timeval *result, void *zone) noexcept {
    if (self == nullptr) {
        return real::gettimeofday.get()(result, zone);
    }
    const timespec now = toTimespec(theRun->systemNs());
    *result = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

int nanosleep(const timespec *duration, timespec *remaining) {
    if (self == nullptr) {
        return real::nanosleep.get()(duration, remaining);
    }
    if (!isValid(*duration)) {
        errno = EINVAL;
        return -1;
    }
    sleepNs(toNs(*duration));
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *remaining) {
    if (self == nullptr || !isReplaced(clock)) {
        return real::clock_nanosleep.get()(clock, flags, time, remaining);
    }
    if (!isValid(*time)) {
        return EINVAL;
    }
    if ((flags & TIMER_ABSTIME) == 0) {
        sleepNs(toNs(*time));
    } else {
        const Deadline deadline = deadlineOn(clock, *time);
        sleepUntilNs(deadline.ns, deadline.onSystemClock);
    }
    return 0;
}

int usleep(useconds_t us) {
    if (self == nullptr) {
        return real::usleep.get()(us);
    }
    sleepNs(std::int64_t{us} * 1000);
    return 0;
}

unsigned sleep(unsigned sec) {
    if (self == nullptr) {
        return real::sleep.get()(sec);
    }
    sleepNs(std::int64_t{sec} * kNsPerSec);
    return 0;
}

int sched_yield() noexcept {
    if (self == nullptr) {
        return real::sched_yield.get()();
    }
    sleepNs(kYieldNs);
    return 0;
}

} // extern "C"
