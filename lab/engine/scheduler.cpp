/*
 * The scheduler. A hand-over draws among those who can go on; when nobody can, the clock moves to
 * the earliest sleeper. Most sleeps need none: they end before anybody else has something to do,
 * and only move the clock.
 */
#include "scheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>

namespace virtualtime {

Run *theRun = nullptr;
constinit thread_local Thread *self = nullptr;

namespace {

void mixIntoHash(std::uint64_t value) {
    theRun->summary.hash = (theRun->summary.hash ^ value) * 0x100000001b3U;
}

std::int64_t wakeOnMonotonic(const Thread &thread) {
    if (thread.wakeNs == kNever || !thread.wakeOnSystemClock) {
        return thread.wakeNs;
    }
    return std::max(theRun->monotonicNs, thread.wakeNs - theRun->systemOffsetNs);
}

std::string seconds(std::int64_t ns) {
    char text[40];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(ns) / 1e9);
    return text;
}

[[noreturn]] void abortWithThreads(const char *reason) {
    std::fprintf(stderr, "virtual time: %s at %s (%s)\n", reason,
                 seconds(theRun->monotonicNs).c_str(), nowUtc().c_str());
    for (const auto &thread : theRun->threads) {
        if (thread->state != State::Ended) {
            std::fprintf(stderr, "  %s\n", describe(*thread).c_str());
        }
    }
    std::abort();
}

void setMonotonic(std::int64_t ns) {
    theRun->monotonicNs = std::max(theRun->monotonicNs, ns);
    if (static_cast<double>(theRun->monotonicNs) > theRun->options.limitSec * 1e9) {
        abortWithThreads("the run has passed its limit");
    }
}

// Who may go on and when, but for the body's readiness: it comes last.
struct Prospect {
    std::uint64_t runnable = 0; // but the body
    Thread *one = nullptr;      // of these
    std::int64_t earliestNs = kNever;
    std::int64_t secondNs = kNever; // the moment after it
    std::uint64_t due = 0;          // at the earliest moment
};

Prospect lookAround() {
    Prospect prospect;
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Waiting) {
            const std::int64_t wakeNs = wakeOnMonotonic(*thread);
            if (wakeNs < prospect.earliestNs) {
                prospect.secondNs = prospect.earliestNs;
                prospect.earliestNs = wakeNs;
                prospect.due = 1;
            } else if (wakeNs == prospect.earliestNs) {
                ++prospect.due;
            } else {
                prospect.secondNs = std::min(prospect.secondNs, wakeNs);
            }
        } else if (thread->state == State::Runnable && thread->number != 0) {
            prospect.one = thread.get();
            ++prospect.runnable;
        }
    }
    return prospect;
}

// Moves the clock to the earliest moment and makes everyone runnable who is due then.
void moveClock(Prospect &prospect) {
    if (prospect.earliestNs == kNever) {
        abortWithThreads("deadlock: no thread can go on");
    }
    setMonotonic(prospect.earliestNs);
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Waiting && wakeOnMonotonic(*thread) <= prospect.earliestNs) {
            makeRunnable(*thread, true);
            if (thread->number != 0) {
                prospect.one = thread.get();
                ++prospect.runnable;
            }
            if (--prospect.due == 0) {
                break;
            }
        }
    }
    prospect.earliestNs = prospect.secondNs;
}

Thread *drawRunnable(std::uint64_t count) {
    std::uint64_t skip = draw(count);
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Runnable && thread->number != 0 && skip-- == 0) {
            return thread.get();
        }
    }
    return nullptr;
}

// The thread that goes on next: one of the runnable ones, drawn; the body only when it is alone.
// When there is none, the clock moves to the earliest sleeper.
Thread *chooseNext() {
    Thread *const body = theRun->threads.front().get();
    Prospect prospect = lookAround();
    if (prospect.runnable == 0 && body->state != State::Runnable) {
        moveClock(prospect);
    }
    const std::uint64_t ready = prospect.runnable + (body->state == State::Runnable ? 1 : 0);
    theRun->othersWakeNs = ready > 1 ? theRun->monotonicNs : prospect.earliestNs;
    if (prospect.runnable > 1) {
        return drawRunnable(prospect.runnable);
    }
    return prospect.runnable == 1 ? prospect.one : body;
}

void countDecision(const Thread &to) {
    mixIntoHash(static_cast<std::uint64_t>(to.number));
    mixIntoHash(static_cast<std::uint64_t>(theRun->monotonicNs));
}

// Hands over to whoever goes on next. The caller has put itself into its new state before.
void handOver() {
    Thread &from = *self;
    Thread *to = chooseNext();
    countDecision(*to);
    if (to == &from) {
        return;
    }
    ++theRun->summary.switches;
    self = to;
    if (from.state == State::Ended) {
        from.context.leaveTo(to->context);
    }
    from.context.jumpTo(to->context);
}

// Most sleeps end before anybody else has something to do: then only the clock moves. False: it
// takes a hand-over.
bool sleepAlone(std::int64_t wakeNs) {
    if (!theRun->othersWakeNs || wakeNs >= *theRun->othersWakeNs) {
        return false;
    }
    setMonotonic(wakeNs);
    countDecision(*self);
    return true;
}

} // namespace

std::string describe(const Thread &thread) {
    std::string text = "thread " + std::to_string(thread.number);
    if (!thread.name.empty()) {
        text += " \"" + thread.name + "\"";
    }
    if (thread.number != 0) {
        text += " (started by thread " + std::to_string(thread.startedBy) + " at " +
                seconds(thread.startedNs) + ")";
    }
    if (thread.state == State::Runnable) {
        return text + ": runnable";
    }
    if (thread.state == State::Ended) {
        return text + ": ended, but neither joined nor detached";
    }
    char address[32];
    std::snprintf(address, sizeof address, "%p", thread.object);
    switch (thread.waitsFor) {
    case WaitsFor::Time:
        return text + ": sleeps until " + seconds(wakeOnMonotonic(thread));
    case WaitsFor::Mutex: {
        text += std::string(": waits for mutex ") + address;
        const auto *mutex = static_cast<const pthread_mutex_t *>(thread.object);
        for (const auto &other : theRun->threads) {
            if (ownerOf(*other) == mutex->__data.__owner) {
                text += " held by thread " + std::to_string(other->number);
            }
        }
        return text;
    }
    case WaitsFor::RwLock:
        return text + ": waits for read-write lock " + address;
    case WaitsFor::Condition:
        return text + ": waits for condition " + address;
    case WaitsFor::ThreadEnd:
        return text + ": waits for the end of thread " +
               std::to_string(static_cast<const Thread *>(thread.object)->number);
    }
    return text;
}

void makeRunnable(Thread &thread, bool timedOut) {
    --theRun->waitingFor(thread.waitsFor);
    theRun->othersWakeNs.reset();
    thread.state = State::Runnable;
    thread.timedOut = timedOut;
    thread.wakeNs = kNever;
    thread.object = nullptr;
}

void wakeWaitersFor(WaitsFor what, const void *object) {
    if (theRun->waitingFor(what) == 0) {
        return;
    }
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Waiting && thread->waitsFor == what &&
            thread->object == object) {
            makeRunnable(*thread, false);
        }
    }
}

bool wait(WaitsFor what, const void *object, std::int64_t wakeNs, bool onSystemClock) {
    self->state = State::Waiting;
    self->waitsFor = what;
    self->object = object;
    self->wakeNs = wakeNs;
    self->wakeOnSystemClock = onSystemClock;
    ++theRun->waitingFor(what);
    handOver();
    return self->timedOut;
}

void sleepNs(std::int64_t ns) {
    ++theRun->summary.sleeps;
    const std::int64_t wakeNs = saturatingAdd(theRun->monotonicNs, std::max<std::int64_t>(ns, 0));
    if (!sleepAlone(wakeNs)) {
        wait(WaitsFor::Time, nullptr, wakeNs);
    }
}

void sleepUntilNs(std::int64_t wakeNs, bool onSystemClock) {
    ++theRun->summary.sleeps;
    wait(WaitsFor::Time, nullptr, wakeNs, onSystemClock);
}

void endThread() {
    self->state = State::Ended;
    wakeWaitersFor(WaitsFor::ThreadEnd, self);
    handOver();
    std::abort(); // an ended thread is never chosen
}

std::vector<Run *> &abandonedRuns() {
    static auto *const runs = new std::vector<Run *>;
    return *runs;
}

} // namespace virtualtime
