// The thread on which handlers run.
#include "proxy/handler_worker.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <vector>

using corvane::platform::HandlerWorker;
using Taken = HandlerWorker::Taken;

namespace {

void nothing() {}

} // namespace

TEST(HandlerWorker, RunsJobsOneAtATimeInTheOrderOfArrival) {
    HandlerWorker worker(1000);
    std::vector<int> order; // of the worker's thread, until the last job is done
    std::atomic<int> running = 0;
    std::promise<void> done;
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(worker.submit({[&, i] {
                                     EXPECT_EQ(++running, 1);
                                     order.push_back(i);
                                     --running;
                                     if (i == 499)
                                         done.set_value();
                                 },
                                 nothing}),
                  Taken::Yes);
    worker.start();
    done.get_future().wait();
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(HandlerWorker, TurnsAwayWhatDoesNotFit) {
    HandlerWorker worker(2);
    EXPECT_EQ(worker.submit({nothing, nothing}), Taken::Yes);
    EXPECT_EQ(worker.submit({nothing, nothing}), Taken::Yes);
    EXPECT_EQ(worker.submit({[] { FAIL(); }, [] { FAIL(); }}), Taken::NoRoom);
}

TEST(HandlerWorker, QuiescedWorkerHasFinishedItsJobAndDropsTheRest) {
    HandlerWorker worker(std::numeric_limits<std::size_t>::max());
    worker.start();
    std::promise<void> began;
    std::promise<void> mayEnd;
    std::atomic<bool> isOver = false;
    std::atomic<int> dropped = 0;
    ASSERT_EQ(worker.submit({[&] {
                                 began.set_value();
                                 mayEnd.get_future().wait();
                                 isOver = true;
                             },
                             nothing}),
              Taken::Yes);
    began.get_future().wait();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(worker.submit({[] { FAIL(); }, [&] { ++dropped; }}), Taken::Yes);

    auto quiesced = std::async(std::launch::async, [&] {
        worker.quiesce();
        return isOver.load();
    });
    while (worker.submit({nothing, nothing}) == Taken::Yes)
        std::this_thread::yield(); // until quiesce() has begun
    mayEnd.set_value();
    EXPECT_TRUE(quiesced.get());
    EXPECT_GE(dropped, 3);
    EXPECT_EQ(worker.submit({[] { FAIL(); }, nothing}), Taken::Quiesced);
    worker.quiesce();
}

TEST(HandlerWorker, StopsAlsoWhenItWasNeverStarted) {
    HandlerWorker worker(1);
    bool isDropped = false;
    ASSERT_EQ(worker.submit({[] { FAIL(); }, [&] { isDropped = true; }}), Taken::Yes);
    worker.stop();
    worker.stop();
    EXPECT_TRUE(isDropped);
}

TEST(HandlerWorkerDeathTest, ExceptionOfAJobEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            HandlerWorker worker(1);
            worker.start();
            (void)worker.submit({[] { throw std::runtime_error("thrown by a handler"); }, nothing});
            std::promise<void>().get_future().wait();
        },
        "thrown by a handler");
}
