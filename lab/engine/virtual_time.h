/*
 * Virtual time: a program that links this unit can run multi-threaded code in which sleeping costs
 * nothing and every order of events is decided by a number.
 *
 * The unit defines the clock, sleep, thread, mutex, read-write lock and condition calls of the C
 * library. While no run is active they go to the real ones. During a run one thread at a time is
 * let through: it keeps the processor until it sleeps, waits or ends, then the next runnable thread
 * goes on, and when there is none the clock moves to the earliest sleeper. Computing takes no
 * virtual time; only sleeps and time-outs do. Among threads that could go on at the same instant
 * the run's generator draws one, so the same seed gives the same run, to the last switch.
 *
 * The thread that called start(), the body, is the exception: among equals it comes last. After
 * sleepSec(3) the body therefore sees everything that was due in those three seconds, inclusive.
 * Code that shall race takes part in the draw by being in a thread of its own.
 *
 * When nobody can go on and nobody sleeps, the run has a deadlock: it is reported on standard error
 * with what each thread waits for, and the process is aborted. The same happens when a run passes
 * its limit. Two clocks: the monotonic one only moves with sleeps, the system clock may be set at
 * will and waits measured in it follow.
 *
 * Not seen by a run: futex waits that go around the calls above (std::future, std::atomic::wait,
 * std::counting_semaphore), timed mutex locks, and blocking input and output, which all block for
 * real.
 */
#ifndef CORVANE_LAB_VIRTUAL_TIME_H
#define CORVANE_LAB_VIRTUAL_TIME_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace virtualtime {

struct Options {
    std::string startUtc = "2026-05-01T00:00:00"; // %FT%T, optionally with a decimal fraction
    std::uint64_t seed = 1;
    double limitSec = 40 * 86400.0; // a run that lasts longer is stopped as one that never ends
};

struct Summary {
    std::vector<std::string> leakedThreads; // still there at the end: name and what each was doing
    int locksHeld = 0;                      // mutexes that were taken and not given back
    std::int64_t elapsedMs = 0;             // virtual
    std::uint64_t switches = 0;             // hand-overs from one thread to another
    std::uint64_t sleeps = 0;
    std::uint64_t hash = 0; // of every decision (who went on, when): equal runs, equal hashes
};

// Makes the calling thread the body of a run. There is one run at a time in a process.
void start(const Options &options = {});

// Ends the run; the calling thread must be its body. Threads that have not ended stay stopped for
// good, threads that ended without having been joined or detached count as leaked too.
[[nodiscard]] Summary finish();

// start(), body(), finish().
Summary run(const Options &options, const std::function<void()> &body);

// Whether the calling thread belongs to a run.
[[nodiscard]] bool active();

// Sleeps of the calling thread, and the same for a moment of the system clock. settle() lets
// everything happen that is due now.
void sleepSec(double sec);
void sleepMs(std::int64_t ms);
void sleepUntil(const std::string &utc);
void settle();

// Virtual milliseconds since start(); the system clock as text (%FT%T, UTC) and in nanoseconds.
[[nodiscard]] std::int64_t elapsedMs();
[[nodiscard]] std::string nowUtc();
[[nodiscard]] std::int64_t nowUtcNs();

// Sets the system clock, as an operator or the network would; sleeps are not affected.
void setClock(const std::string &utc);
void jumpClock(double sec);

// Lets the calling thread's next mutex locks fail with EINVAL, as many as said.
void failLocks(int times);

// The calling thread's number in its run, from 1 in the order of their starts; 0 for the body, and
// outside a run.
[[nodiscard]] int threadNumber();

// Names the calling thread in reports. The text is copied.
void nameThread(const std::string &name);

// A number below bound, from the run's generator.
[[nodiscard]] std::uint64_t draw(std::uint64_t bound);

// UTC text to nanoseconds since the epoch and back; a text that cannot be read aborts.
[[nodiscard]] std::int64_t parseUtc(const std::string &utc);
[[nodiscard]] std::string formatUtc(std::int64_t utcNs);

} // namespace virtualtime

#endif
