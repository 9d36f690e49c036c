/*
 * The replaced calls of mutexes, read-write locks and conditions.
 *
 * Mutexes are taken in the C library's own structures but by the rules of this file, since to the
 * C library all contexts are one thread.
 */
#include "real_function.h"
#include "scheduler.h"

#include <cerrno>
#include <pthread.h>
#include <vector>

namespace virtualtime {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
namespace real {
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
    if (theRun->waitingFor(WaitsFor::Condition) == 0) {
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
} // namespace virtualtime

using namespace virtualtime;

extern "C" {

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
