/*
 * The engine of virtual time, by itself: clocks, sleeps, threads, locks, conditions, and what is
 * said when a run goes wrong.
 */
#include "virtual_time.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using std::chrono::system_clock;
using testing::ElementsAre;
using testing::HasSubstr;

// What several threads did, in order.
class Notes {
public:
    void add(const std::string &note) {
        const std::lock_guard lock(mutex_);
        notes_.push_back(note);
    }
    std::vector<std::string> all() {
        const std::lock_guard lock(mutex_);
        return notes_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> notes_; // guarded by mutex_
};

virtualtime::Summary run(const std::function<void()> &body) { return virtualtime::run({}, body); }

// Four threads that meet at the same instants; answers the order of their notes.
std::vector<std::string> meetAtEqualInstants(std::uint64_t seed, std::uint64_t *hash) {
    Notes notes;
    *hash = virtualtime::run({.seed = seed}, [&notes] {
                std::vector<std::thread> threads;
                for (const char *name : {"a", "b", "c", "d"}) {
                    threads.emplace_back([&notes, name] {
                        for (int i = 0; i < 8; ++i) {
                            std::this_thread::sleep_for(1s);
                            notes.add(name);
                        }
                    });
                }
                for (std::thread &thread : threads) {
                    thread.join();
                }
            }).hash;
    return notes.all();
}

TEST(VirtualTime, SleepMovesTheClockByItsLengthAndTakesNoRealTime) {
    const auto realStart = steady_clock::now();
    run([] {
        std::this_thread::sleep_for(24h);
        EXPECT_EQ(virtualtime::elapsedMs(), 86'400'000);
        EXPECT_EQ(virtualtime::nowUtc(), "2026-05-02T00:00:00");
    });
    EXPECT_LT(steady_clock::now() - realStart, 10s);
}

TEST(VirtualTime, ComputingTakesNoTime) {
    run([] {
        const auto start = system_clock::now();
        std::atomic<int> work{0};
        while (++work < 1'000'000) {
        }
        EXPECT_EQ(system_clock::now(), start);
    });
}

TEST(VirtualTime, EveryClockTellsTheSameTime) {
    virtualtime::run({.startUtc = "2024-02-29T12:00:00.75"}, [] {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        EXPECT_EQ(time.tv_nsec, 750'000'000);
        EXPECT_EQ(::time(nullptr), time.tv_sec);
        timeval micro{};
        gettimeofday(&micro, nullptr);
        EXPECT_EQ(micro.tv_sec, time.tv_sec);
        EXPECT_EQ(micro.tv_usec, 750'000);
        EXPECT_EQ(system_clock::to_time_t(system_clock::now()), time.tv_sec);
        EXPECT_EQ(virtualtime::nowUtc(), "2024-02-29T12:00:00");
    });
}

TEST(VirtualTime, EverySleepCallSleepsItsLength) {
    run([] {
        EXPECT_EQ(usleep(500), 0);
        EXPECT_EQ(::sleep(2), 0U); // NOLINT(concurrency-mt-unsafe)
        const timespec halfSecond{0, 500'000'000};
        EXPECT_EQ(nanosleep(&halfSecond, nullptr), 0);
        EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &halfSecond, nullptr), 0);
        EXPECT_EQ(virtualtime::elapsedMs(), 3000);
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_sec += 10;
        EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr), 0);
        EXPECT_EQ(virtualtime::elapsedMs(), 13'000);
    });
}

TEST(VirtualTime, SleepOfAnInvalidLengthIsRefusedAtOnce) {
    run([] {
        const timespec tooManyNanoseconds{0, 1'000'000'000};
        EXPECT_EQ(nanosleep(&tooManyNanoseconds, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(virtualtime::elapsedMs(), 0);
    });
}

TEST(VirtualTime, AYieldLetsTimePassSoThatASpinningLoopEnds) {
    run([] {
        std::atomic<bool> done{false};
        std::thread other([&done] {
            std::this_thread::sleep_for(1ms);
            done = true;
        });
        while (!done) {
            std::this_thread::yield();
        }
        other.join();
    });
}

TEST(VirtualTime, ThreadsGoOnInTheOrderOfTheirWakeTimes) {
    Notes notes;
    run([&notes] {
        const auto note = [&notes](int sec) {
            std::this_thread::sleep_for(std::chrono::seconds(sec));
            notes.add(std::to_string(sec) + " at " + std::to_string(virtualtime::elapsedMs()));
        };
        std::thread third([&note] { note(3); });
        std::thread first([&note] { note(1); });
        std::thread second([&note] { note(2); });
        third.join();
        first.join();
        second.join();
    });
    EXPECT_THAT(notes.all(), ElementsAre("1 at 1000", "2 at 2000", "3 at 3000"));
}

TEST(VirtualTime, BodyComesLastAmongEquals) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        virtualtime::run({.seed = seed}, [] {
            std::atomic<int> passes{0};
            std::thread worker([&passes] {
                for (int i = 0; i < 3; ++i) {
                    std::this_thread::sleep_for(1s);
                    ++passes;
                }
            });
            virtualtime::sleepSec(3);
            EXPECT_EQ(passes, 3);
            worker.join();
        });
    }
}

TEST(VirtualTime, SettleLetsEverythingHappenThatIsDueNow) {
    run([] {
        std::atomic<int> started{0};
        std::thread one([&started] { ++started; });
        std::thread two([&started] { ++started; });
        EXPECT_EQ(started, 0);
        virtualtime::settle();
        EXPECT_EQ(started, 2);
        EXPECT_EQ(virtualtime::elapsedMs(), 0);
        one.join();
        two.join();
    });
}

TEST(VirtualTime, MutexesThatStayLockedAreCounted) {
    std::mutex forgotten;
    std::recursive_mutex twice;
    const virtualtime::Summary summary = run([&] {
        std::thread([&] { forgotten.lock(); }).join();
        const std::lock_guard outer(twice);
        const std::lock_guard inner(twice);
    });
    EXPECT_EQ(summary.locksHeld, 1);
    (void)run([&] { forgotten.unlock(); });
}

TEST(VirtualTime, SameSeedGivesTheSameRun) {
    std::uint64_t firstHash = 0;
    std::uint64_t secondHash = 0;
    const auto first = meetAtEqualInstants(7, &firstHash);
    const auto second = meetAtEqualInstants(7, &secondHash);
    EXPECT_EQ(first, second);
    EXPECT_EQ(firstHash, secondHash);
}

TEST(VirtualTime, AnotherSeedGivesAnotherOrderAmongEquals) {
    std::uint64_t firstHash = 0;
    std::uint64_t secondHash = 0;
    EXPECT_NE(meetAtEqualInstants(7, &firstHash), meetAtEqualInstants(8, &secondHash));
    EXPECT_NE(firstHash, secondHash);
}

TEST(VirtualTime, ContendedLockWaitsForItsHolder) {
    run([] {
        std::mutex mutex;
        std::thread holder([&mutex] {
            const std::lock_guard lock(mutex);
            std::this_thread::sleep_for(5s);
        });
        virtualtime::sleepSec(1);
        EXPECT_FALSE(mutex.try_lock());
        mutex.lock();
        EXPECT_EQ(virtualtime::elapsedMs(), 5000);
        mutex.unlock();
        holder.join();
    });
}

TEST(VirtualTime, FreeLockCostsNoTime) {
    run([] {
        std::mutex mutex;
        for (int i = 0; i < 100; ++i) {
            const std::lock_guard lock(mutex);
        }
        EXPECT_EQ(virtualtime::elapsedMs(), 0);
    });
}

TEST(VirtualTime, RecursiveLockMayBeTakenAgainByItsHolderOnly) {
    run([] {
        std::recursive_mutex mutex;
        mutex.lock();
        mutex.lock();
        std::thread other([&mutex] {
            EXPECT_FALSE(mutex.try_lock());
            mutex.lock();
            EXPECT_EQ(virtualtime::elapsedMs(), 2000);
            mutex.unlock();
        });
        virtualtime::sleepSec(1);
        mutex.unlock();
        virtualtime::sleepSec(1);
        mutex.unlock();
        other.join();
    });
}

TEST(VirtualTime, ReadersShareALockAndAWriterWaitsForThem) {
    run([] {
        std::shared_mutex mutex;
        const auto read = [&mutex] {
            const std::shared_lock lock(mutex);
            std::this_thread::sleep_for(2s);
        };
        std::thread one(read);
        std::thread two(read);
        virtualtime::sleepSec(1);
        mutex.lock();
        EXPECT_EQ(virtualtime::elapsedMs(), 2000);
        mutex.unlock();
        one.join();
        two.join();
    });
}

TEST(VirtualTime, ConditionWaitEndsWithItsSignal) {
    run([] {
        std::mutex mutex;
        std::condition_variable condition;
        bool ready = false;
        std::thread signaller([&] {
            std::this_thread::sleep_for(3s);
            const std::lock_guard lock(mutex);
            ready = true;
            condition.notify_one();
        });
        std::unique_lock lock(mutex);
        condition.wait(lock, [&ready] { return ready; });
        EXPECT_EQ(virtualtime::elapsedMs(), 3000);
        lock.unlock();
        signaller.join();
    });
}

TEST(VirtualTime, SignalWakesOneWaiterAndBroadcastWakesAll) {
    run([] {
        std::mutex mutex;
        std::condition_variable condition;
        int awake = 0;
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                std::unique_lock lock(mutex);
                condition.wait(lock);
                ++awake;
            });
        }
        virtualtime::settle();
        condition.notify_one();
        virtualtime::settle();
        EXPECT_EQ(awake, 1);
        condition.notify_all();
        virtualtime::settle();
        EXPECT_EQ(awake, 3);
        for (std::thread &waiter : waiters) {
            waiter.join();
        }
    });
}

TEST(VirtualTime, ConditionWaitTimesOutOnEitherClock) {
    run([] {
        std::mutex mutex;
        std::condition_variable condition;
        std::unique_lock lock(mutex);
        EXPECT_EQ(condition.wait_until(lock, steady_clock::now() + 2s), std::cv_status::timeout);
        EXPECT_EQ(condition.wait_until(lock, system_clock::now() + 3s), std::cv_status::timeout);
        EXPECT_EQ(virtualtime::elapsedMs(), 5000);
    });
}

TEST(VirtualTime, WaitOnTheSystemClockFollowsAJumpAndASleepDoesNot) {
    Notes notes;
    run([&notes] {
        std::thread waiter([&notes] {
            std::mutex mutex;
            std::condition_variable condition;
            std::unique_lock lock(mutex);
            condition.wait_until(lock, system_clock::now() + 1h);
            notes.add("waiter at " + std::to_string(virtualtime::elapsedMs()));
        });
        std::thread sleeper([&notes] {
            std::this_thread::sleep_for(1h);
            notes.add("sleeper at " + std::to_string(virtualtime::elapsedMs()));
        });
        virtualtime::sleepSec(60);
        virtualtime::jumpClock(2 * 3600);
        waiter.join();
        sleeper.join();
    });
    EXPECT_THAT(notes.all(), ElementsAre("waiter at 60000", "sleeper at 3600000"));
}

TEST(VirtualTime, ClockCanBeSetForwardsAndBackWithoutMovingTheMonotonicOne) {
    run([] {
        const auto monotonic = steady_clock::now();
        virtualtime::setClock("1970-01-01T00:00:00");
        EXPECT_EQ(::time(nullptr), 0);
        virtualtime::setClock("2038-01-19T03:14:08");
        EXPECT_EQ(::time(nullptr), 2147483648);
        EXPECT_EQ(steady_clock::now(), monotonic);
        EXPECT_EQ(virtualtime::elapsedMs(), 0);
    });
}

TEST(VirtualTime, JoinWaitsForTheEndOfItsThread) {
    run([] {
        std::thread thread([] { std::this_thread::sleep_for(7s); });
        thread.join();
        EXPECT_EQ(virtualtime::elapsedMs(), 7000);
    });
}

TEST(VirtualTime, JoinHandsOverWhatTheThreadLeftWith) {
    run([] {
        pthread_t handle{};
        int value = 0;
        ASSERT_EQ(pthread_create(
                      &handle, nullptr,
                      [](void *argument) -> void * {
                          usleep(10);
                          pthread_exit(argument);
                      },
                      &value),
                  0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(handle, &result), 0);
        EXPECT_EQ(result, &value);
    });
}

TEST(VirtualTime, ManyThreadsMayComeAndGoInOneRun) {
    const virtualtime::Summary summary = run([] {
        for (int i = 0; i < 2000; ++i) {
            std::thread([] { std::this_thread::sleep_for(1s); }).join();
        }
    });
    EXPECT_EQ(summary.elapsedMs, 2'000'000);
    EXPECT_TRUE(summary.leakedThreads.empty());
}

TEST(VirtualTime, DetachedThreadThatHasEndedIsNotLeaked) {
    const virtualtime::Summary summary = run([] {
        std::thread([] { std::this_thread::sleep_for(1s); }).detach();
        virtualtime::sleepSec(2);
    });
    EXPECT_TRUE(summary.leakedThreads.empty());
}

TEST(VirtualTime, ThreadLeftBehindIsReportedWithWhatItDoes) {
    const virtualtime::Summary summary = run([] {
        std::thread([] {
            virtualtime::nameThread("straggler");
            std::this_thread::sleep_for(1h);
        }).detach();
        virtualtime::sleepSec(1);
    });
    ASSERT_EQ(summary.leakedThreads.size(), 1U);
    EXPECT_EQ(summary.leakedThreads[0], "thread 1 \"straggler\" (started by thread 0 at 0.000 s): "
                                        "sleeps until 3600.000 s");
}

TEST(VirtualTime, ThreadThatNobodyJoinedIsReported) {
    std::thread forgotten;
    const virtualtime::Summary summary = run([&forgotten] {
        forgotten = std::thread([] {});
        virtualtime::settle();
    });
    ASSERT_EQ(summary.leakedThreads.size(), 1U);
    EXPECT_THAT(summary.leakedThreads[0], HasSubstr("ended, but neither joined nor detached"));
    forgotten.join();
}

TEST(VirtualTime, RunsFollowOneAnotherIndependently) {
    for (int i = 0; i < 50; ++i) {
        run([] {
            EXPECT_EQ(virtualtime::nowUtc(), "2026-05-01T00:00:00");
            std::thread thread([] { std::this_thread::sleep_for(1s); });
            thread.join();
        });
    }
}

TEST(VirtualTime, OutsideARunTheClockIsTheRealOne) {
    EXPECT_FALSE(virtualtime::active());
    const auto start = steady_clock::now();
    std::this_thread::sleep_for(2ms);
    EXPECT_GE(steady_clock::now() - start, 2ms);
}

class VirtualTimeDeathTest : public testing::Test {
protected:
    VirtualTimeDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(VirtualTimeDeathTest, DeadlockIsReportedWithWhatEachThreadWaitsFor) {
    EXPECT_DEATH(run([] {
                     std::mutex first;
                     std::mutex second;
                     std::thread other([&] {
                         const std::lock_guard lockSecond(second);
                         std::this_thread::sleep_for(1s);
                         const std::lock_guard lockFirst(first);
                     });
                     const std::lock_guard lockFirst(first);
                     std::this_thread::sleep_for(1s);
                     const std::lock_guard lockSecond(second);
                     other.join();
                 }),
                 "deadlock.* at 1.000 s(.|\n)*thread 0 .*waits for mutex .* held by thread 1(.|\n)*"
                 "thread 1 .*waits for mutex .* held by thread 0");
}

TEST_F(VirtualTimeDeathTest, SignalThatNeverComesIsADeadlock) {
    EXPECT_DEATH(run([] {
                     std::mutex mutex;
                     std::condition_variable condition;
                     std::unique_lock lock(mutex);
                     condition.wait(lock);
                 }),
                 "deadlock(.|\n)*thread 0 \"body\": waits for condition");
}

TEST_F(VirtualTimeDeathTest, WaitUntilTheEndOfTimeIsADeadlockToo) {
    EXPECT_DEATH(run([] {
                     std::mutex mutex;
                     std::condition_variable condition;
                     std::unique_lock lock(mutex);
                     const auto never = std::chrono::seconds(std::numeric_limits<time_t>::max());
                     timespec until{never.count(), 0};
                     pthread_cond_clockwait(condition.native_handle(), mutex.native_handle(),
                                            CLOCK_MONOTONIC, &until);
                 }),
                 "deadlock(.|\n)*thread 0 \"body\": waits for condition");
}

TEST_F(VirtualTimeDeathTest, RunThatNeverEndsIsStoppedAtItsLimit) {
    EXPECT_DEATH(virtualtime::run({.limitSec = 100},
                                  [] {
                                      std::thread endless([] {
                                          while (true) {
                                              std::this_thread::sleep_for(1s);
                                          }
                                      });
                                      endless.join();
                                  }),
                 "has passed its limit at 101.000 s");
}

TEST_F(VirtualTimeDeathTest, TimeThatCannotBeReadIsRefused) {
    EXPECT_DEATH((void)virtualtime::parseUtc("yesterday"),
                 "\"yesterday\" is not YYYY-MM-DDThh:mm:ss");
}

} // namespace
