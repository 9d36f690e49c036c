/* The thread of tasks: in order, bounded, and nothing lost at the stop. */
#include "task_thread.h"

#include <gmock/gmock.h>

#include <future>
#include <vector>

namespace corvane::appliance {
namespace {

TEST(Tasks, RunInOrderAlsoThoseThatWaitAtTheStop) {
    std::vector<int> ran;
    TaskThread thread(100);
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(thread.post([&ran, i] { ran.push_back(i); }));
    thread.stop();
    ASSERT_EQ(ran.size(), 50U);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
    EXPECT_FALSE(thread.post([] {}));
}

TEST(Tasks, ThatWaitAreForgottenWhenTheyAreDropped) {
    std::promise<void> go;
    std::promise<void> runs;
    std::promise<int> answer;
    auto answered = answer.get_future();
    TaskThread thread(10);
    ASSERT_TRUE(thread.post([&] {
        runs.set_value();
        go.get_future().wait();
    }));
    runs.get_future().wait();
    ASSERT_TRUE(thread.post(
        [kept = std::make_shared<std::promise<int>>(std::move(answer))] { kept->set_value(1); }));
    thread.dropWaiting();
    EXPECT_FALSE(thread.post([] {}));
    EXPECT_THROW(answered.get(), std::future_error); // whoever waits for it is told
    go.set_value();
}

TEST(Tasks, BeyondTheLimitAreNotTaken) {
    std::promise<void> go;
    std::promise<void> runs;
    TaskThread thread(2);
    ASSERT_TRUE(thread.post([&] {
        runs.set_value();
        go.get_future().wait();
    }));
    runs.get_future().wait();
    EXPECT_TRUE(thread.post([] {}));
    EXPECT_TRUE(thread.post([] {}));
    EXPECT_FALSE(thread.post([] {}));
    go.set_value();
}

} // namespace
} // namespace corvane::appliance
