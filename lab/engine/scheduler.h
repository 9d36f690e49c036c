/*
 * The run: its threads, its two clocks, and who goes on when one of them waits.
 *
 * All threads of a run are contexts within one real thread, so nothing here locks. This is the
 * inside, for the public interface (virtual_time.h) and the replaced calls, which are in a file
 * each: clock_calls.cpp, thread_calls.cpp, lock_calls.cpp.
 */
#ifndef CORVANE_LAB_SCHEDULER_H
#define CORVANE_LAB_SCHEDULER_H

#include "context.h"
#include "timespec.h"
#include "virtual_time.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace virtualtime {

enum class State { Runnable, Waiting, Ended };
enum class WaitsFor { Time, Mutex, RwLock, Condition, ThreadEnd };
constexpr std::size_t kWaitKinds = 5;

struct Thread {
    State state = State::Runnable;
    int number = 0;
    // When the wait ends by itself: since the run's start, or on the system clock (UTC).
    std::int64_t wakeNs = kNever;
    bool wakeOnSystemClock = false;
    WaitsFor waitsFor = WaitsFor::Time;
    const void *object = nullptr; // the mutex, lock, condition or Thread waited for
    bool timedOut = false;        // how the last wait ended

    int startedBy = 0;
    std::int64_t startedNs = 0;
    std::string name;
    void *(*function)(void *) = nullptr;
    void *argument = nullptr;
    void *result = nullptr; // what it left with
    Context context;

    bool isDetached = false;
    int locksToFail = 0;
};

struct Run {
    Options options;
    std::vector<std::unique_ptr<Thread>> threads; // [0] is the body; joined ones are gone
    int threadsStarted = 0;
    std::int64_t monotonicNs = 0; // since start, plus kBootNs for those who ask the clock
    std::int64_t systemOffsetNs = 0;
    std::uint64_t generator = 0;
    // When a thread besides the running one may go on, kNever included; nothing: not known.
    std::optional<std::int64_t> othersWakeNs;
    std::array<std::size_t, kWaitKinds> waiting{}; // how many threads, by what they wait for
    Summary summary;

    [[nodiscard]] std::int64_t systemNs() const { return monotonicNs + systemOffsetNs; }
    std::size_t &waitingFor(WaitsFor what) { return waiting[static_cast<std::size_t>(what)]; }
};

extern Run *theRun; // null: none is active
// Null in real threads that belong to no run.
extern constinit thread_local Thread *self;

// Runs that have ended with threads left over: those may still be joined, until the process ends.
std::vector<Run *> &abandonedRuns();

// What a thread does, for reports.
[[nodiscard]] std::string describe(const Thread &thread);

// Who holds a mutex, as its structure tells; 0 would be nobody.
[[nodiscard]] inline int ownerOf(const Thread &thread) { return thread.number + 1; }

// Waits for object or for the wake time, as in Thread, whichever comes first. True: time came
// first.
bool wait(WaitsFor what, const void *object, std::int64_t wakeNs = kNever,
          bool onSystemClock = false);

void sleepNs(std::int64_t ns);
void sleepUntilNs(std::int64_t wakeNs, bool onSystemClock);

// The end of the calling thread; it is never gone on with.
[[noreturn]] void endThread();

// Makes one waiting thread runnable, or all that wait for an object. They go on when the caller
// waits or ends; timedOut is what wait() answers then.
void makeRunnable(Thread &thread, bool timedOut);
void wakeWaitersFor(WaitsFor what, const void *object);

} // namespace virtualtime

#endif
