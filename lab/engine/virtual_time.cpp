/*
 * The run: who may go on, and what time it is.
 *
 * The threads of a run are contexts with stacks of their own within one real thread, so that a
 * hand-over is a jump, and the state below needs no lock. Mutexes are taken in the C library's own
 * structures but by the rules of this file, since to the C library all contexts are one thread.
 * What the C++ run time and the C library keep a thread, the exceptions being handled and errno,
 * moves with the context; thread_local variables do not, the threads of a run share them.
 *
 * Divisions: forwarding to the real calls; the run's state; contexts; the scheduler; locks and
 * conditions; the public interface; the replaced calls (clocks, sleeps, threads, locks,
 * conditions).
 */
// A fortified longjmp() takes the jump to another context's stack for damage and ends the process.
#undef _FORTIFY_SOURCE

#include "virtual_time.h"

#include "calendar.h"
#include "real_function.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cxxabi.h>
#include <dlfcn.h>
#include <exception>
#include <memory>
#include <optional>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define VIRTUAL_TIME_ASAN
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VIRTUAL_TIME_ASAN
#endif
#endif
#ifdef VIRTUAL_TIME_ASAN
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace virtualtime {
namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNever = INT64_MAX;
// A yield costs a microsecond, so that a loop that spins on yields lets time pass.
constexpr std::int64_t kYieldNs = 1'000;

// ---- Forwarding ----

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
REAL(pthread_create);
REAL(pthread_join);
REAL(pthread_detach);
REAL(pthread_exit);
REAL(pthread_self);
REAL(pthread_mutex_lock);
REAL(pthread_mutex_trylock);
REAL(pthread_mutex_unlock);
REAL(pthread_rwlock_rdlock);
REAL(pthread_rwlock_tryrdlock);
REAL(pthread_rwlock_wrlock);
REAL(pthread_rwlock_trywrlock);
REAL(pthread_rwlock_unlock);
REAL(pthread_cond_wait);
REAL(pthread_cond_timedwait);
REAL(pthread_cond_clockwait);
REAL(pthread_cond_signal);
REAL(pthread_cond_broadcast);
} // namespace real
#pragma GCC diagnostic pop

// ---- The run ----

enum class State { Runnable, Waiting, Ended };
enum class WaitsFor { Time, Mutex, RwLock, Condition, ThreadEnd };
constexpr std::size_t kWaitKinds = 5;

// A context's stack with a page below it that must not be touched.
class Stack {
public:
    Stack() {
        void *mapped = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (mapped == MAP_FAILED) {
            std::perror("virtual time: no stack for a thread");
            std::abort();
        }
        memory_ = static_cast<char *>(mapped);
        mprotect(memory_, kGuardBytes, PROT_NONE);
#ifdef VIRTUAL_TIME_ASAN
        __lsan_register_root_region(bottom(), bytes());
#endif
    }
    ~Stack() {
#ifdef VIRTUAL_TIME_ASAN
        __lsan_unregister_root_region(bottom(), bytes());
#endif
        munmap(memory_, kStackBytes);
    }
    Stack(const Stack &) = delete;
    Stack &operator=(const Stack &) = delete;

    [[nodiscard]] void *bottom() const { return memory_ + kGuardBytes; }
    [[nodiscard]] static std::size_t bytes() { return kStackBytes - kGuardBytes; }

private:
    static constexpr std::size_t kStackBytes = 1024 * 1024; // as far as it is touched
    static constexpr std::size_t kGuardBytes = 4096;
    char *memory_;
};

// Of the C library and the C++ run time, a real thread; moves with the context.
struct KeptState {
    int errorNumber = 0;
    struct {
        void *caught = nullptr;
        unsigned int uncaught = 0;
    } exceptions;              // laid out as the ABI says
    void *fakeStack = nullptr; // the address sanitizer's, and where the body's own stack is
    const void *stackBottom = nullptr;
    std::size_t stackBytes = 0;
};

struct Thread {
    State state = State::Runnable;
    int number = 0;
    std::int64_t wakeNs = kNever; // when the wait ends by itself, on the clock below
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

    ucontext_t context{};         // where it begins; with a sanitizer, also where it goes on
    std::jmp_buf place{};         // where it goes on, while another one runs
    bool hasBegun = false;        // place is set
    std::unique_ptr<Stack> stack; // null: the body, on the real thread's own
    KeptState kept;

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
    std::size_t waiting[kWaitKinds] = {}; // how many threads, by what they wait for
    Summary summary;
};

// The monotonic clock does not start at 0, which some code takes for "never".
constexpr std::int64_t kBootNs = 1000 * kNsPerSec;

Run *theRun = nullptr;
thread_local Thread *self = nullptr; // null in real threads that belong to no run

std::uint64_t next(std::uint64_t &state) { // splitmix64
    state += 0x9e3779b97f4a7c15U;
    std::uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31);
}

void mixIntoHash(std::uint64_t value) {
    theRun->summary.hash = (theRun->summary.hash ^ value) * 0x100000001b3U;
}

// ---- Contexts ----

auto *currentExceptions() {
    return reinterpret_cast<decltype(KeptState::exceptions) *>(__cxxabiv1::__cxa_get_globals());
}

// A sanitizer must hear of every change of stacks, and tells where the body's is.
void announceJump([[maybe_unused]] Thread &from, [[maybe_unused]] const Thread &to) {
#ifdef VIRTUAL_TIME_ASAN
    const bool forGood = from.state == State::Ended;
    __sanitizer_start_switch_fiber(forGood ? nullptr : &from.kept.fakeStack, to.kept.stackBottom,
                                   to.kept.stackBytes);
#endif
}

void announceArrival([[maybe_unused]] Thread &thread) {
#ifdef VIRTUAL_TIME_ASAN
    const void *bottom = nullptr;
    std::size_t bytes = 0;
    __sanitizer_finish_switch_fiber(thread.kept.fakeStack, &bottom, &bytes);
    Thread &body = *theRun->threads.front();
    if (body.kept.stackBottom == nullptr) { // the first jump is the body's
        body.kept.stackBottom = bottom;
        body.kept.stackBytes = bytes;
    }
#endif
}

#ifdef VIRTUAL_TIME_ASAN
void swapStacks(Thread &from, Thread &to) {
    // The sanitizer's version knows nothing of what is announced here, and says so.
    static auto *const swap = reinterpret_cast<decltype(&swapcontext)>(
        dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), "swapcontext"));
    swap(&from.context, &to.context);
}
#else
// A jump rather than swapcontext(), which asks the kernel for the signal mask each time.
void swapStacks(Thread &from, Thread &to) {
    if (_setjmp(from.place) != 0) {
        return;
    }
    from.hasBegun = true;
    if (to.hasBegun) {
        _longjmp(to.place, 1);
    }
    setcontext(&to.context);
}
#endif

// Comes back when somebody jumps to from again.
void jump(Thread &from, Thread &to) {
    from.kept.errorNumber = errno;
    from.kept.exceptions = *currentExceptions();
    announceJump(from, to);
    self = &to;
    swapStacks(from, to);
    announceArrival(from);
    *currentExceptions() = from.kept.exceptions;
    errno = from.kept.errorNumber;
}

// ---- The scheduler ----

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? kNever : sum;
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

// Who holds a mutex, as its structure tells; 0 would be nobody.
int ownerOf(const Thread &thread) { return thread.number + 1; }

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

void makeRunnable(Thread &thread, bool timedOut) {
    --theRun->waiting[static_cast<std::size_t>(thread.waitsFor)];
    theRun->othersWakeNs.reset();
    thread.state = State::Runnable;
    thread.timedOut = timedOut;
    thread.wakeNs = kNever;
    thread.object = nullptr;
}

void wakeWaitersFor(WaitsFor what, const void *object) {
    if (theRun->waiting[static_cast<std::size_t>(what)] == 0) {
        return;
    }
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Waiting && thread->waitsFor == what &&
            thread->object == object) {
            makeRunnable(*thread, false);
        }
    }
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
    std::uint64_t skip = next(theRun->generator) % count;
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
    jump(from, *to);
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

// Waits for object or for the wake time, whichever comes first. True: time came first.
bool wait(WaitsFor what, const void *object, std::int64_t wakeNs = kNever,
          bool onSystemClock = false) {
    self->state = State::Waiting;
    self->waitsFor = what;
    self->object = object;
    self->wakeNs = wakeNs;
    self->wakeOnSystemClock = onSystemClock;
    ++theRun->waiting[static_cast<std::size_t>(what)];
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

std::int64_t toNs(const timespec &time) {
    std::int64_t ns = 0;
    if (__builtin_mul_overflow(static_cast<std::int64_t>(time.tv_sec), kNsPerSec, &ns)) {
        return time.tv_sec < 0 ? 0 : kNever;
    }
    return saturatingAdd(ns, time.tv_nsec);
}

timespec toTimespec(std::int64_t ns) {
    std::int64_t sec = ns / kNsPerSec;
    std::int64_t rest = ns % kNsPerSec;
    if (rest < 0) {
        --sec;
        rest += kNsPerSec;
    }
    return {static_cast<time_t>(sec), static_cast<long>(rest)};
}

bool isValid(const timespec &time) {
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kNsPerSec;
}

// A deadline on one of the two clocks, as wait() takes it.
struct Deadline {
    std::int64_t ns;
    bool onSystemClock;
};

Deadline deadlineOn(clockid_t clock, const timespec &time) {
    if (clock == CLOCK_REALTIME) {
        return {toNs(time), true};
    }
    return {std::max<std::int64_t>(toNs(time) - kBootNs, 0), false};
}

bool isReplaced(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_MONOTONIC ||
           clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

std::int64_t readClock(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE
               ? nowUtcNs()
               : theRun->monotonicNs + kBootNs;
}

// Thrown by pthread_exit, so that the stack unwinds to the thread's beginning.
struct ThreadExit {
    void *result;
};

// The beginning and the end of a thread. An exception that nobody catches ends the process here.
void threadMain() noexcept {
    announceArrival(*self);
    *currentExceptions() = {};
    try {
        self->result = self->function(self->argument);
    } catch (const ThreadExit &exit) {
        self->result = exit.result;
    }
    self->state = State::Ended;
    wakeWaitersFor(WaitsFor::ThreadEnd, self);
    handOver(); // nobody jumps back
}

void prepareContext(Thread &thread) {
    thread.stack = std::make_unique<Stack>();
    thread.kept.stackBottom = thread.stack->bottom();
    thread.kept.stackBytes = Stack::bytes();
    getcontext(&thread.context);
    thread.context.uc_stack.ss_sp = thread.stack->bottom();
    thread.context.uc_stack.ss_size = Stack::bytes();
    thread.context.uc_link = nullptr;
    makecontext(&thread.context, threadMain, 0);
    // Made; from here on the size would only make the sanitizer clean the stack at every jump.
    thread.context.uc_stack.ss_size = 0;
}

// A thread's identity to the outside: no real thread's, and never looked into.
pthread_t handleOf(const Thread &thread) { return reinterpret_cast<pthread_t>(&thread); }

// Runs that have ended with threads left over: those may still be joined, until the process ends.
std::vector<Run *> &abandonedRuns() {
    static auto *const runs = new std::vector<Run *>;
    return *runs;
}

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

// ---- Locks and conditions ----

// Takes a lock by trying until it is free; each failed try waits for an unlock.
template <typename Try>
int lockByTrying(WaitsFor what, const void *object, Try tryLock) {
    int result = tryLock();
    while (result == EBUSY) {
        wait(what, object);
        result = tryLock();
    }
    return result;
}

bool isRecursive(const pthread_mutex_t &mutex) {
    return (mutex.__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE;
}

// The fields are kept as the C library keeps them, which destroys a mutex only when it is free.
int tryLockMutex(pthread_mutex_t *mutex) {
    auto &data = mutex->__data;
    if (data.__lock == 0) {
        data.__lock = 1;
        data.__owner = ownerOf(*self);
        data.__count = 1;
        ++data.__nusers;
        ++theRun->summary.locksHeld;
        return 0;
    }
    if (!isRecursive(*mutex) || data.__owner != ownerOf(*self)) {
        return EBUSY;
    }
    ++data.__count;
    return 0;
}

int lockMutex(pthread_mutex_t *mutex) {
    if (self->locksToFail > 0) {
        --self->locksToFail;
        return EINVAL;
    }
    return lockByTrying(WaitsFor::Mutex, mutex, [mutex] { return tryLockMutex(mutex); });
}

int unlockMutex(pthread_mutex_t *mutex) {
    auto &data = mutex->__data;
    if (isRecursive(*mutex) && data.__owner != ownerOf(*self)) {
        return EPERM;
    }
    if (isRecursive(*mutex) && --data.__count != 0) {
        return 0;
    }
    data.__count = 0;
    data.__owner = 0;
    data.__lock = 0;
    --data.__nusers;
    --theRun->summary.locksHeld;
    wakeWaitersFor(WaitsFor::Mutex, mutex);
    return 0;
}

// The waiter is registered before anyone else can run, so no signal is lost in between.
int waitForCondition(pthread_cond_t *condition, pthread_mutex_t *mutex, Deadline deadline) {
    const int unlocked = unlockMutex(mutex);
    if (unlocked != 0) {
        return unlocked;
    }
    const bool timedOut = wait(WaitsFor::Condition, condition, deadline.ns, deadline.onSystemClock);
    const int locked = lockMutex(mutex);
    return locked != 0 ? locked : timedOut ? ETIMEDOUT : 0;
}

void signalOne(const pthread_cond_t *condition) {
    if (theRun->waiting[static_cast<std::size_t>(WaitsFor::Condition)] == 0) {
        return;
    }
    std::vector<Thread *> waiters;
    for (const auto &thread : theRun->threads) {
        if (thread->state == State::Waiting && thread->waitsFor == WaitsFor::Condition &&
            thread->object == condition) {
            waiters.push_back(thread.get());
        }
    }
    if (!waiters.empty()) {
        makeRunnable(*waiters[waiters.size() == 1 ? 0 : draw(waiters.size())], false);
    }
}

} // namespace

// ---- Public interface ----

void start(const Options &options) {
    if (theRun != nullptr) {
        std::fprintf(stderr, "virtual time: a run is active already\n");
        std::abort();
    }
    calendar::forget();
    theRun = new Run;
    theRun->options = options;
    theRun->generator = options.seed;
    theRun->systemOffsetNs = parseUtc(options.startUtc);
    theRun->summary.hash = 0xcbf29ce484222325U;
    auto body = std::make_unique<Thread>();
    body->name = "body";
    self = body.get();
    theRun->threads.push_back(std::move(body));
}

Summary finish() {
    if (self == nullptr || self->number != 0) {
        std::fprintf(stderr, "virtual time: finish() belongs to the body of a run\n");
        std::abort();
    }
    Summary summary = theRun->summary;
    summary.elapsedMs = elapsedMs();
    for (const auto &thread : theRun->threads) {
        const bool gone = thread->state == State::Ended && thread->isDetached;
        if (thread->number != 0 && !gone) {
            summary.leakedThreads.push_back(describe(*thread));
        }
    }
    self = nullptr;
    if (summary.leakedThreads.empty()) {
        delete theRun;
    } else {
        abandonedRuns().push_back(theRun);
    }
    theRun = nullptr;
    return summary;
}

Summary run(const Options &options, const std::function<void()> &body) {
    start(options);
    body();
    return finish();
}

bool active() { return self != nullptr; }

void sleepSec(double sec) { sleepNs(std::llround(sec * 1e9)); }

void sleepMs(std::int64_t ms) { sleepNs(ms * kNsPerMs); }

void sleepUntil(const std::string &utc) { sleepUntilNs(parseUtc(utc), true); }

void settle() { sleepNs(0); }

std::int64_t elapsedMs() { return theRun->monotonicNs / kNsPerMs; }

std::string nowUtc() { return formatUtc(nowUtcNs()); }

std::int64_t nowUtcNs() { return theRun->monotonicNs + theRun->systemOffsetNs; }

void setClock(const std::string &utc) {
    theRun->systemOffsetNs = parseUtc(utc) - theRun->monotonicNs;
    theRun->othersWakeNs.reset(); // somebody may wait in the system clock
}

void jumpClock(double sec) {
    theRun->systemOffsetNs += std::llround(sec * 1e9);
    theRun->othersWakeNs.reset();
}

void failLocks(int times) { self->locksToFail = times; }

void nameThread(const std::string &name) {
    if (self != nullptr) {
        self->name = name;
    }
}

int threadNumber() { return self == nullptr ? 0 : self->number; }

std::uint64_t draw(std::uint64_t bound) { return next(theRun->generator) % bound; }

std::int64_t parseUtc(const std::string &utc) {
    std::tm fields{};
    const char *rest = strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    char *end = const_cast<char *>(rest);
    const double fraction = rest != nullptr && *rest == '.' ? std::strtod(rest, &end) : 0;
    if (rest == nullptr || *end != '\0') {
        std::fprintf(stderr, "virtual time: \"%s\" is not YYYY-MM-DDThh:mm:ss\n", utc.c_str());
        std::abort();
    }
    return timegm(&fields) * kNsPerSec + std::llround(fraction * 1e9);
}

std::string formatUtc(std::int64_t utcNs) {
    const time_t sec = toTimespec(utcNs).tv_sec;
    std::tm fields{};
    gmtime_r(&sec, &fields);
    char text[40];
    return {text, std::strftime(text, sizeof text, "%FT%T", &fields)};
}

} // namespace virtualtime

// ---- The replaced calls ----

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
    const time_t now = toTimespec(nowUtcNs()).tv_sec;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

int gettimeofday(timeval *result, void *zone) noexcept {
    if (self == nullptr) {
        return real::gettimeofday.get()(result, zone);
    }
    const timespec now = toTimespec(nowUtcNs());
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
    prepareContext(*thread);
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

int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept {
    return self == nullptr ? real::pthread_mutex_lock.get()(mutex) : lockMutex(mutex);
}

int pthread_mutex_trylock(pthread_mutex_t *mutex) noexcept {
    return self == nullptr ? real::pthread_mutex_trylock.get()(mutex) : tryLockMutex(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t *mutex) noexcept {
    return self == nullptr ? real::pthread_mutex_unlock.get()(mutex) : unlockMutex(mutex);
}

int pthread_rwlock_rdlock(pthread_rwlock_t *lock) noexcept {
    if (self == nullptr) {
        return real::pthread_rwlock_rdlock.get()(lock);
    }
    return lockByTrying(WaitsFor::RwLock, lock,
                        [lock] { return real::pthread_rwlock_tryrdlock.get()(lock); });
}

int pthread_rwlock_wrlock(pthread_rwlock_t *lock) noexcept {
    if (self == nullptr) {
        return real::pthread_rwlock_wrlock.get()(lock);
    }
    return lockByTrying(WaitsFor::RwLock, lock,
                        [lock] { return real::pthread_rwlock_trywrlock.get()(lock); });
}

int pthread_rwlock_unlock(pthread_rwlock_t *lock) noexcept {
    const int result = real::pthread_rwlock_unlock.get()(lock);
    if (self != nullptr) {
        wakeWaitersFor(WaitsFor::RwLock, lock);
    }
    return result;
}

int pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex) {
    if (self == nullptr) {
        return real::pthread_cond_wait.get()(condition, mutex);
    }
    return waitForCondition(condition, mutex, {kNever, false});
}

int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                           const timespec *until) {
    if (self == nullptr) {
        return real::pthread_cond_timedwait.get()(condition, mutex, until);
    }
    if (!isValid(*until)) {
        return EINVAL;
    }
    // The C library keeps the clock chosen for a condition in this bit.
    const bool monotonic = (condition->__data.__wrefs & 2U) != 0;
    return waitForCondition(condition, mutex,
                            deadlineOn(monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME, *until));
}

int pthread_cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex, clockid_t clock,
                           const timespec *until) {
    if (self == nullptr) {
        return real::pthread_cond_clockwait.get()(condition, mutex, clock, until);
    }
    if (!isValid(*until)) {
        return EINVAL;
    }
    return waitForCondition(condition, mutex, deadlineOn(clock, *until));
}

int pthread_cond_signal(pthread_cond_t *condition) noexcept {
    if (self == nullptr) {
        return real::pthread_cond_signal.get()(condition);
    }
    signalOne(condition);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t *condition) noexcept {
    if (self == nullptr) {
        return real::pthread_cond_broadcast.get()(condition);
    }
    wakeWaitersFor(WaitsFor::Condition, condition);
    return 0;
}

} // extern "C"
