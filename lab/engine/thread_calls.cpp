/*
 * The replaced calls that start, join and end threads.
 */
#include "real_function.h"
#include "scheduler.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <vector>

namespace virtualtime {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
namespace real {
REAL(pthread_create);
REAL(pthread_join);
REAL(pthread_detach);
REAL(pthread_exit);
REAL(pthread_self);
} // namespace real
#pragma GCC diagnostic pop

// Thrown by pthread_exit, so that the stack unwinds to the thread's beginning.
struct ThreadExit {
    void *result;
};

// The beginning and the end of a thread. An exception that nobody catches ends the process here.
void threadMain() noexcept {
    try {
        self->result = self->function(self->argument);
    } catch (const ThreadExit &exit) {
        self->result = exit.result;
    }
    endThread();
}

// A thread's identity to the outside: no real thread's, and never looked into.
pthread_t handleOf(const Thread &thread) { return reinterpret_cast<pthread_t>(&thread); }

Thread *findJoinable(const Run &run, pthread_t handle) {
    for (const auto &thread : run.threads) {
        if (!thread->isDetached && thread->number != 0 && handleOf(*thread) == handle) {
            return thread.get();
        }
    }
    return nullptr;
}

// Null: a real thread's handle, or nobody's.
Thread *findJoinable(pthread_t handle) {
    Thread *found = self == nullptr ? nullptr : findJoinable(*theRun, handle);
    for (const Run *run : abandonedRuns()) {
        found = found == nullptr ? findJoinable(*run, handle) : found;
    }
    return found;
}

} // namespace
} // namespace virtualtime

using namespace virtualtime;

extern "C" {

int pthread_create(pthread_t *handle, const pthread_attr_t *attributes, void *(*function)(void *),
                   void *argument) noexcept {
    if (self == nullptr) {
        return real::pthread_create.get()(handle, attributes, function, argument);
    }
    auto thread = std::make_unique<Thread>();
    thread->number = theRun->threadsStarted + 1;
    thread->startedBy = self->number;
    thread->startedNs = theRun->monotonicNs;
    thread->function = function;
    thread->argument = argument;
    thread->context.prepare(threadMain);
    *handle = handleOf(*thread);
    ++theRun->threadsStarted;
    theRun->threads.push_back(std::move(thread));
    theRun->othersWakeNs.reset();
    return 0;
}

int pthread_join(pthread_t handle, void **result) {
    Thread *thread = findJoinable(handle);
    if (thread == nullptr) {
        return real::pthread_join.get()(handle, result);
    }
    while (thread->state != State::Ended) {
        if (self == nullptr) {
            return EDEADLK; // its run is over, it stays stopped for good
        }
        wait(WaitsFor::ThreadEnd, thread);
    }
    if (result != nullptr) {
        *result = thread->result;
    }
    thread->isDetached = true; // nobody's any more
    if (self != nullptr) {
        std::erase_if(theRun->threads,
                      [thread](const auto &other) { return other.get() == thread; });
    }
    return 0;
}

int pthread_detach(pthread_t handle) noexcept {
    Thread *thread = findJoinable(handle);
    if (thread == nullptr) {
        return real::pthread_detach.get()(handle);
    }
    thread->isDetached = true;
    return 0;
}

void pthread_exit(void *result) {
    if (self == nullptr || self->number == 0) {
        real::pthread_exit.get()(result);
        std::abort(); // it does not return; the pointer's type has lost that
    }
    throw ThreadExit{result};
}

pthread_t pthread_self() noexcept {
    return self == nullptr || self->number == 0 ? real::pthread_self.get()() : handleOf(*self);
}

} // extern "C"
