/*
 * Real time in a hurry: sleeps of this program take a hundredth of what was asked for, so that a
 * life of the service, which sleeps whole seconds, passes in some tens of milliseconds. Clocks stay
 * real.
 */
#include <cerrno>
#include <chrono>
#include <ctime>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

#include "virtual_time.h"

namespace {

constexpr long long kHurry = 100;
constexpr long long kNsPerSec = 1000000000;

} // namespace

extern "C" int nanosleep(const timespec *wanted, timespec *remaining) {
    const long long ns = (wanted->tv_sec * kNsPerSec + wanted->tv_nsec) / kHurry;
    const timespec hurried = {ns / kNsPerSec, ns % kNsPerSec};
    return static_cast<int>(syscall(SYS_nanosleep, &hurried, remaining));
}

extern "C" int clock_nanosleep(clockid_t, int, const timespec *wanted, timespec *remaining) {
    return nanosleep(wanted, remaining) == 0 ? 0 : errno;
}

namespace virtualtime {

bool active() { return false; }

int threadNumber() { return 0; }

void nameThread(const std::string &) {} // real threads go by no name

void sleepSec(double sec) { std::this_thread::sleep_for(std::chrono::duration<double>(sec)); }

} // namespace virtualtime
