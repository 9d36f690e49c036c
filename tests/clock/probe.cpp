/*
 * A program that lives in a clock and tells what it sees, one "name value" a line.
 *
 *   clock_probe day
 *     the time of day in seconds by each call that shows it, and the steady clock
 *   clock_probe sleep
 *     how long a minute's sleep by each call really took, in microseconds
 */
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <thread>

#include <sys/time.h>
#include <unistd.h>

namespace {

using namespace std::chrono;

void tell(const char *name, long long value) { std::printf("%s %lld\n", name, value); }

long long secondsOf(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec;
}

void tellDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tell("time", std::time(nullptr));
    tell("gettimeofday", now.tv_sec);
    tell("clock_gettime", secondsOf(CLOCK_REALTIME));
    tell("coarse", secondsOf(CLOCK_REALTIME_COARSE));
    tell("system_clock", duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
    tell("steady", secondsOf(CLOCK_MONOTONIC));
}

void tellLength(const char *name, const std::function<void()> &sleepOneMinute) {
    const auto before = steady_clock::now();
    sleepOneMinute();
    tell(name, duration_cast<microseconds>(steady_clock::now() - before).count());
}

void tellSleeps() {
    const timespec minute{60, 0};
    tellLength("nanosleep", [&] { nanosleep(&minute, nullptr); });
    tellLength("clock_nanosleep", [&] { clock_nanosleep(CLOCK_REALTIME, 0, &minute, nullptr); });
    tellLength("until", [&] {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 60;
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr);
    });
    tellLength("usleep", [] { usleep(60'000'000); });
    tellLength("sleep", [] { sleep(60); });
    tellLength("sleep_for", [] { std::this_thread::sleep_for(minutes(1)); });
    tellLength("sleep_until",
               [] { std::this_thread::sleep_until(system_clock::now() + minutes(1)); });
    tellLength("steady until", [] { // real: half a millisecond
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += 500'000;
        if (until.tv_nsec >= 1'000'000'000) {
            until.tv_nsec -= 1'000'000'000;
            ++until.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    });
}

} // namespace

int main(int argc, char **argv) {
    const std::string what = argc == 2 ? argv[1] : "";
    if (what == "day")
        tellDay();
    else if (what == "sleep")
        tellSleeps();
    else
        return 2;
    return 0;
}
