/*
 * Handlers, settings callbacks, deferred tasks, refresh and terminate all at once, under real
 * threads.
 *
 * Each test lives through many short lives of the service. What it shows, it shows best under a
 * sanitizer: no use after free, no data race, no leak; and by itself that no thread is left and
 * that handlers answer nothing but 0 and 1.
 */
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <random>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <service_app.h>
#include <unistd.h>

#include "EnergyManager.h"
#include "fakes.h"
#include "storage.h"

using Corvane::EnergyManager;
using std::chrono::milliseconds;

namespace {

constexpr int kLives = 12;
constexpr milliseconds kLongestLife{120}; // of hurried time: about twelve seconds of the service

long threadsOfThisProcess() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/task"), directory_iterator{});
}

/* How many threads there are beyond those before; one that a join has ended still shows for an
 * instant. */
long threadsLeft(long before) {
    for (int tries = 0; tries < 1000 && threadsOfThisProcess() > before; ++tries) {
        std::this_thread::yield();
    }
    return threadsOfThisProcess() - before;
}

/* Keeps the service's own lines from burying what the test has to say. */
class Quiet {
public:
    Quiet() : output_(redirect()) {}
    ~Quiet() {
        std::fflush(stdout);
        dup2(output_, STDOUT_FILENO);
        close(output_);
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

private:
    static int redirect() {
        std::fflush(stdout);
        const int output = dup(STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
        return output;
    }

    int output_;
};

/* Repeats an action on a thread of its own until it goes out of scope. */
class Repeated {
public:
    explicit Repeated(std::function<void()> action)
        : thread_([this, action = std::move(action)] {
              while (!stop_) {
                  action();
              }
          }) {}
    ~Repeated() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_; // after stop_, which it reads
};

std::atomic<int> wrongAnswers{0};

void expectZeroOrOne(int answer) {
    if (answer != 0 && answer != 1) {
        ++wrongAnswers;
    }
}

/* Every handler that is installed, called as the proxy would call it. */
void callEveryHandler(const fakes::proxy::Handlers &handlers) {
    if (handlers.controlDrlc != nullptr) {
        KestDrlcInfo info{};
        std::strcpy(info.drlcLevel, "2");
        std::strcpy(info.duration, "00:00:01");
        expectZeroOrOne(handlers.controlDrlc(&info));
        int level = 0;
        int override = 0;
        expectZeroOrOne(handlers.getDrlcOverride(&level, &override));
        expectZeroOrOne(handlers.controlOverride(1));
        int block = 0;
        expectZeroOrOne(handlers.getDefrostBlock(&block));
    }
    if (handlers.getDelayDefrost != nullptr) {
        int enabled = 0;
        expectZeroOrOne(handlers.getDelayDefrost(&enabled));
        expectZeroOrOne(handlers.setDelayDefrost(1));
        KestDefrostReservation entry = fakes::proxy::reservation(
            "0000-01-01T00:00:00", "0000-12-31T00:00:00", "01:00:00", "stress");
        char text[] = "----";
        int error = 0;
        expectZeroOrOne(handlers.createDefrostReservations(&entry, text, &error));
        KestDefrostReservation entries[4] = {};
        int count = 0;
        expectZeroOrOne(handlers.getDefrostReservations(entries, &count));
        expectZeroOrOne(handlers.delDefrostReservations(nullptr, "2"));
    }
    if (handlers.getEnergyConsumption != nullptr) {
        char cumulative[512] = "";
        char monthly[512] = "";
        expectZeroOrOne(handlers.getEnergyConsumption(cumulative, monthly));
    }
}

/* What the appliance writes, one round of it. */
void writeLikeTheAppliance(int round) {
    fakes::settings::set("memory/refrigerator/SmartGridDrLevel", round % 5);
    fakes::settings::set("memory/refrigerator/SmartGridOverrideState", round % 2);
    fakes::settings::set("db/corvane/dr/micom_override", round % 3);
    fakes::settings::set("memory/refrigerator/SmartGridWatt3", 200);
    fakes::settings::set("memory/refrigerator/SmartGridWatt4", round % 256);
    std::this_thread::sleep_for(milliseconds(20)); // hurried: 0.2 ms
}

class Stress : public ::testing::Test {
protected:
    void SetUp() override {
        fakes::reset();
        fakes::storage::mount();
        fakes::power::set(350);
        // A sanitizer's own thread starts with the first one of the program.
        std::thread([] {}).join();
    }

    void TearDown() override { fakes::storage::unmount(); }

    /* Real milliseconds within which a life ends. */
    milliseconds drawLife() {
        return milliseconds(std::uniform_int_distribution<long>(0, kLongestLife.count())(random_));
    }

    /* Lets real time pass; sleeps of this program are hurried. */
    static void live(milliseconds life) {
        const auto end = std::chrono::steady_clock::now() + life;
        while (std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(milliseconds(100));
        }
    }

    std::mt19937 random_{20260501};
};

} // namespace

TEST_F(Stress, TerminateAtAnyInstantLeavesNoThread) {
    const long before = threadsOfThisProcess();
    for (int life = 0; life < kLives; ++life) {
        {
            const Quiet quiet;
            fakes::newProcess();
            EnergyManager::Initialize();
            live(drawLife());
            EnergyManager::Finalize();
        }
        ASSERT_EQ(0, threadsLeft(before));
    }
}

/*
 * Worse than the platform allows: handlers and callbacks still come while the manager is being
 * deleted. One that comes after the end makes a manager, as every getter does, so that the test
 * ends that one too.
 */
TEST_F(Stress, HandlersAndCallbacksMeetTerminateAndRefresh) {
    const long before = threadsOfThisProcess();
    for (int life = 0; life < kLives; ++life) {
        {
            const Quiet quiet;
            fakes::newProcess();
            EnergyManager::Initialize();
            Corvane::Intro gate;
            // One request at a time, as the proxy has it.
            const Repeated requests([] { callEveryHandler(fakes::proxy::handlers()); });
            int round = 0;
            const Repeated appliance([&round] { writeLikeTheAppliance(++round); });
            std::thread loop([] {
                service_app_lifecycle_callback_s callbacks = {
                    [](void *) { return true; }, [](void *) {}, [](app_control_h, void *) {}};
                service_app_main(0, nullptr, &callbacks, nullptr);
            });
            live(kLongestLife);
            gate.refresh();
            live(drawLife());
            EnergyManager::Finalize();
            fakes::loop::requestStop();
            loop.join();
        }
        EnergyManager::Finalize();
        ASSERT_EQ(0, threadsLeft(before));
        ASSERT_EQ(0, wrongAnswers);
    }
}
