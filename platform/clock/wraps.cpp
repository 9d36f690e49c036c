/*
 * The calls that show virtual time, in programs that are linked with --wrap for each of them.
 *
 * Virtual: what shows the time of day, and every sleep for a length of time, which is a length of
 * virtual time. Real: the steady clock, sleeps until a moment of it, waits on condition variables
 * and descriptors, and all that happens inside shared libraries. The platform's time-outs are of
 * the second kind, the service's own clock and pauses of the first.
 */
#include "virtual_clock.h"

#include <cerrno>
#include <chrono>
#include <ctime>

#include <sys/time.h>

namespace {

using corvane::clock::processClock;

constexpr std::int64_t kSecondNs = 1'000'000'000;

// Opened before main(), so that a bad file is told before anything is done.
[[maybe_unused]] const bool kOpened = (processClock(), true);

timespec toTimespec(std::int64_t ns) {
    return {static_cast<std::time_t>(ns / kSecondNs), static_cast<long>(ns % kSecondNs)};
}

std::int64_t toNs(const timespec &time) {
    return std::int64_t{time.tv_sec} * kSecondNs + time.tv_nsec;
}

bool isValid(const timespec *time) {
    return time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < kSecondNs;
}

/* A century or more is cut; the product below must not overflow. */
constexpr std::time_t kMaxSleepSec = 4'000'000'000;

timespec realLength(const timespec &wanted) {
    const timespec cut = wanted.tv_sec > kMaxSleepSec ? timespec{kMaxSleepSec, 0} : wanted;
    return toTimespec(processClock().realNsFor(toNs(cut)));
}

timespec virtualLength(const timespec &real) {
    return toTimespec(toNs(real) * processClock().factor());
}

bool showsDay(clockid_t clock) { return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE; }

} // namespace

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec *time);
std::time_t __real_time(std::time_t *time);
int __real_gettimeofday(timeval *time, void *zone);
int __real_nanosleep(const timespec *wanted, timespec *left);
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left);
int __real_usleep(useconds_t microseconds);
unsigned __real_sleep(unsigned seconds);

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (!processClock().isVirtual() || !showsDay(clock))
        return __real_clock_gettime(clock, time);
    *time = toTimespec(processClock().nowNs());
    return 0;
}

std::time_t __wrap_time(std::time_t *time) {
    if (!processClock().isVirtual())
        return __real_time(time);
    const auto now = static_cast<std::time_t>(processClock().nowNs() / kSecondNs);
    if (time != nullptr)
        *time = now;
    return now;
}

int __wrap_gettimeofday(timeval *time, void *zone) {
    if (!processClock().isVirtual())
        return __real_gettimeofday(time, zone);
    const timespec now = toTimespec(processClock().nowNs());
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

int __wrap_nanosleep(const timespec *wanted, timespec *left) {
    if (!processClock().isVirtual() || !isValid(wanted))
        return __real_nanosleep(wanted, left);
    const timespec length = realLength(*wanted);
    timespec realLeft{};
    const int result = __real_nanosleep(&length, &realLeft);
    if (result != 0 && errno == EINTR && left != nullptr)
        *left = virtualLength(realLeft);
    return result;
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left) {
    const bool isUntil = (flags & TIMER_ABSTIME) != 0;
    if (!processClock().isVirtual() || !isValid(wanted) || (isUntil && !showsDay(clock)))
        return __real_clock_nanosleep(clock, flags, wanted, left);
    timespec length = *wanted;
    if (isUntil) {
        const std::int64_t ahead = toNs(*wanted) - processClock().nowNs();
        if (ahead <= 0)
            return 0;
        length = toTimespec(ahead);
    }
    length = realLength(length);
    timespec realLeft{};
    const int code = __real_clock_nanosleep(CLOCK_MONOTONIC, 0, &length, &realLeft);
    if (code == EINTR && !isUntil && left != nullptr)
        *left = virtualLength(realLeft);
    return code;
}

int __wrap_usleep(useconds_t microseconds) {
    if (!processClock().isVirtual())
        return __real_usleep(microseconds);
    const timespec wanted = toTimespec(std::int64_t{microseconds} * 1000);
    return __wrap_nanosleep(&wanted, nullptr);
}

unsigned __wrap_sleep(unsigned seconds) {
    if (!processClock().isVirtual())
        return __real_sleep(seconds);
    const timespec wanted{static_cast<std::time_t>(seconds), 0};
    timespec left{};
    return __wrap_nanosleep(&wanted, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec);
}

} // extern "C"

// std::chrono::system_clock::now() by its name in the object files: it is a function of the C++
// library, which may be a shared one.
std::chrono::system_clock::time_point
wrappedSystemNow() __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::system_clock::time_point wrappedSystemNow() {
    using Clock = std::chrono::system_clock;
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(
        std::chrono::nanoseconds(processClock().nowNs())));
}
