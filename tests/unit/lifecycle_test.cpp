/*
 * The whole service from its entry to its end: what the entry hands to the platform, the order of
 * start and stop, and above all that it can be stopped, or refreshed, at any instant: no thread is
 * left, no connection stays open, nothing is touched that is gone, whoever is calling meanwhile.
 *
 * The sweeps stop the service at every 50 ms of its first eight seconds and at instants between, in
 * runs whose order among equals differs. What "touched that is gone" means is for AddressSanitizer
 * to say; what they can say themselves they check after each stop.
 */
#include "service_fixture.h"

#include <algorithm>
#include <atomic>
#include <dlog.h>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <service_app.h>

#include "DefrostDelay.h"
#include "EnergyDR.h"
#include "EnergyReport.h"
#include "Pin.h"

// The entry once more, with a loop of this file's that keeps what it is handed.
namespace {

struct HandedOver {
    int argc;
    char **argv;
    service_app_lifecycle_callback_s callbacks;
    void *userData;
} handedOver;
int loopResult = 0;

int observedLoop(int argc, char **argv, service_app_lifecycle_callback_s *callbacks,
                 void *userData) {
    handedOver = {argc, argv, *callbacks, userData};
    return loopResult;
}

} // namespace

#define service_app_main observedLoop
#define main observedMain
#include "main.cpp"
#undef main
#undef service_app_main

namespace {

using Corvane::DefrostDelay;
using Corvane::EnergyDR;
using Corvane::EnergyManager;
using Corvane::EnergyReport;
using Corvane::Intro;
using Corvane::Pin;
using fakes::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::vector<std::string>;

// ---- The entry ----

class EntryTest : public fakes::ServiceTest {
protected:
    static int runEntry() {
        static char name[] = "corvane";
        static char *arguments[] = {name, nullptr};
        return observedMain(1, arguments);
    }
};

TEST_F(EntryTest, StartIsLoggedOnLineThirtyOfMain) {
    startService();
    const fakes::log::Line line = fakes::log::lines().at(0);
    EXPECT_EQ(line.text, "main.cpp: main(30) > main");
    EXPECT_EQ(line.priority, 4);
    EXPECT_EQ(line.buffer, LOG_ID_MAIN);
    EXPECT_EQ(line.tag, "corvane");
    EXPECT_TRUE(standardOutput().starts_with("[main:30] main\n"));
}

TEST_F(EntryTest, ResultOfTheLoopIsTheExitStatus) {
    for (const int result : {0, 1, 7, -1}) {
        loopResult = result;
        EXPECT_EQ(runEntry(), result);
    }
    loopResult = 0;
}

TEST_F(EntryTest, ArgumentsArePassedOnAndNoUserDataIsGiven) {
    static char name[] = "corvane";
    static char option[] = "--option";
    static char *arguments[] = {name, option, nullptr};
    observedMain(2, arguments);
    EXPECT_EQ(handedOver.argc, 2);
    EXPECT_EQ(handedOver.argv, arguments);
    EXPECT_EQ(handedOver.userData, nullptr);
}

TEST_F(EntryTest, CallbacksAreCreateTerminateAndAppControl) {
    runEntry();
    fakes::clearRecords();
    EXPECT_TRUE(handedOver.callbacks.create(nullptr));
    EXPECT_EQ(fakes::texts({Kind::Log}).at(0), "create");
    EXPECT_EQ(fakes::texts({Kind::Log}).at(1), "EnergyManager::Initialize()");
    fakes::clearRecords();
    handedOver.callbacks.app_control(nullptr, nullptr);
    EXPECT_THAT(fakes::texts(), ElementsAre("app_control"));
    fakes::clearRecords();
    handedOver.callbacks.terminate(nullptr);
    EXPECT_THAT(fakes::texts(), ElementsAre("terminate", "wifi_initialize",
                                            "wifi_unset_connection_state_changed_cb"));
}

TEST_F(EntryTest, LinesOfTheLifecycleAreInformation) {
    startService();
    fakes::loop::sendAppControl();
    advance(0.1);
    stopService();
    for (const char *message : {"main", "create", "app_control", "terminate"}) {
        const fakes::log::Line line = fakes::log::find(message);
        EXPECT_EQ(line.priority, 4) << message;
        EXPECT_EQ(line.file, "main.cpp") << message;
        EXPECT_EQ(line.function, std::string(message == std::string("main") ? "" : "_") + message);
    }
}

TEST_F(EntryTest, CreateComesBeforeAllElse) {
    startService();
    const Texts all = fakes::texts({Kind::Log, Kind::Loop});
    EXPECT_THAT(Texts(all.begin(), all.begin() + 4),
                ElementsAre("main", "create", "create", "EnergyManager::Initialize()"));
}

TEST_F(EntryTest, CreateSucceedsAlsoWhenThePlatformDoesNot) {
    fakes::wifi::State failing;
    failing.connected = false;
    failing.initializeResult = -1;
    fakes::wifi::set(failing);
    startService();
    EXPECT_TRUE(fakes::loop::running());
    EXPECT_EQ(stopService(), 0);
}

TEST_F(EntryTest, AppControlWhileRunningIsOnlyLogged) {
    startServiceAndOpenGate();
    advance(2.5);
    for (int i = 0; i < 3; ++i) {
        fakes::clearRecords();
        fakes::loop::sendAppControl();
        virtualtime::settle();
        EXPECT_THAT(fakes::texts(), ElementsAre("app_control", "app_control")); // call and line
    }
    EXPECT_TRUE(fakes::loop::running());
}

// ---- The whole life ----

class LifeTest : public fakes::ServiceTest {
protected:
    static bool isLifeCycleLine(const std::string &message) {
        static const Texts lines = {"main",
                                    "create",
                                    "terminate",
                                    "app_control",
                                    "EnergyManager::Initialize()",
                                    "EnergyManager::KestAddProxy()",
                                    "start DefrostDelay Thread!!",
                                    "stop DefrostDelay Thread!!",
                                    "start EnergyDR Thread!!",
                                    "stop EnergyDR Thread!!",
                                    "start EnergyReport Thread!!",
                                    "stop EnergyReport Thread!!",
                                    "EnergyDR::setBlock()",
                                    "EnergyDR::setBlock() End"};
        return std::find(lines.begin(), lines.end(), message) != lines.end();
    }

    // A life in which every part of the service does what it does.
    void liveADay() {
        startServiceAndOpenGate();
        fakes::power::set(7300);
        fakes::proxy::setDelayDefrost(1);
        fakes::proxy::createDefrostReservation(fakes::proxy::reservation(
            "0000-04-01T00:20:00", "0000-06-30T00:00:00", "00:10:00", "mine"));
        fakes::proxy::controlDrlc("2", "00:30:00", "01:00:00");
        for (int i = 0; i < 24; ++i) {
            advance(600);
            publishEnergy(0, 0, i, 10);
            echoLevel(i == 7 ? 2 : 0);
            echoOverride(i % 2);
            fakes::proxy::getEnergyConsumption();
            fakes::proxy::getDrlcOverride();
        }
        fakes::settings::set("db/setting/cityname_id", 1);
        fakes::settings::set("db/corvane/dr/micom_override", 1);
        advance(3);
        stopService();
    }
};

TEST_F(LifeTest, OnlyLinesOfTheLifeCycleAreInformation) {
    liveADay();
    std::size_t information = 0;
    for (const fakes::log::Line &line : fakes::log::lines()) {
        const bool isLifeCycle = isLifeCycleLine(line.message);
        information += isLifeCycle ? 1 : 0;
        EXPECT_EQ(line.priority, isLifeCycle ? DLOG_INFO : DLOG_DEBUG) << line.text;
        EXPECT_EQ(line.tag, "corvane") << line.text;
        EXPECT_EQ(line.buffer, LOG_ID_MAIN) << line.text;
        EXPECT_EQ(line.file.find('/'), std::string::npos) << line.text;
    }
    EXPECT_GE(information, 3U + 16U + 6U + 4U);
}

TEST_F(LifeTest, EveryLineIsInTheLogAndOnStandardOutputInTheSameOrder) {
    liveADay();
    std::string expected;
    for (const fakes::log::Line &line : fakes::log::lines()) {
        expected +=
            "[" + line.function + ":" + std::to_string(line.line) + "] " + line.message + "\n";
    }
    EXPECT_TRUE(standardOutput() == expected);
    EXPECT_GT(fakes::log::lines().size(), 500U);
}

TEST_F(LifeTest, ControllersStartThreeFourAndFiveSecondsAfterTheService) {
    startService();
    advance(6);
    const std::vector<std::pair<const char *, const char *>> expected = {
        {"DefrostDelay", "2026-05-01T00:00:03.1"},
        {"EnergyDR", "2026-05-01T00:00:04.15"},
        {"EnergyReport", "2026-05-01T00:00:05.2"}};
    for (const auto &[name, utc] : expected) {
        EXPECT_EQ(fakes::log::find(std::string("start ") + name + " Thread!!").utcNs,
                  virtualtime::parseUtc(utc))
            << name;
    }
}

TEST_F(LifeTest, EveryWorkerMakesAPassEachSecond) {
    startServiceAndOpenGate();
    // A display reading is taken in every pass of the report's worker.
    const int before = fakes::power::readings();
    advance(60);
    EXPECT_EQ(fakes::power::readings() - before, 60);
}

TEST_F(LifeTest, StopDeletesTheGateThenEachControllerThenEndsTheTasks) {
    startServiceAndOpenGate();
    advance(2);
    fakes::clearRecords();
    EXPECT_EQ(stopService(), 0);
    Texts steps;
    for (const std::string &text : fakes::texts({Kind::Loop, Kind::Log, Kind::Wifi})) {
        if (text.starts_with("wifi_") || text.ends_with(" Thread!!") || text == "terminate") {
            steps.push_back(text);
        }
    }
    EXPECT_THAT(steps,
                ElementsAre("terminate", "terminate", "wifi_initialize",
                            "wifi_unset_connection_state_changed_cb", "stop DefrostDelay Thread!!",
                            "stop EnergyDR Thread!!", "stop EnergyReport Thread!!"));
}

TEST_F(LifeTest, EachWorkerNoticesTheStopWithinASecond) {
    startServiceAndOpenGate();
    advance(2.3);
    fakes::clearRecords();
    const std::int64_t stopMs = virtualtime::nowUtcNs() / 1'000'000;
    stopService();
    std::int64_t earlier = stopMs;
    for (const char *name : {"DefrostDelay", "EnergyDR", "EnergyReport"}) {
        const std::int64_t ended =
            fakes::log::find(std::string("stop ") + name + " Thread!!").utcNs / 1'000'000;
        EXPECT_LE(ended - earlier, 1000) << name;
        earlier = ended;
    }
    EXPECT_LE(virtualtime::nowUtcNs() / 1'000'000 - earlier, 50);
}

TEST_F(LifeTest, ServiceStartsAgainAfterItsEndWithItsStateKept) {
    startServiceAndOpenGate();
    EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
    echoOverride(1);
    stopService();
    advance(30);
    startServiceAndOpenGate();
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getOverride(), 1);
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getSchedule().drlcLevel, "2");
    EXPECT_EQ(stopService(), 0);
}

TEST_F(LifeTest, QueryThatInitializesAgainKeepsOneWorkerAndItsEventWorking) {
    startServiceAndOpenGate();
    EnergyManager::GetEnergyDR()->_initialize();
    EnergyManager::GetDefrostDelay()->_initialize();
    EnergyManager::GetEnergyReport()->_initialize();
    advance(5);
    EXPECT_EQ(fakes::log::count("start EnergyDR Thread!!"), 1);
    EXPECT_EQ(fakes::settings::registrations(fakes::kMicomLevel), 1);
    EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
    advanceTo("2026-05-01T00:10:01");
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL2");
    EXPECT_EQ(stopService(), 0);
}

// ---- Stopping and refreshing at any instant ----

// Everybody who calls into a service: the remote side, the Micom, the platform, and others who ask
// the getters. All of them go on through stop and start until the crowd is sent home.
class Crowd {
public:
    Crowd() {
        visit("remote side", 150, [this] { request(); });
        visit("second remote side", 150, [this] { request(); });
        visit("Micom", 700, [] { write(); }); // not faster than its tasks run, a second each
        visit("bystander", 100, [] { look(); });
    }

    ~Crowd() { sendHome(); }
    Crowd(const Crowd &) = delete;
    Crowd &operator=(const Crowd &) = delete;

    void sendHome() {
        isOver_ = true;
        for (std::thread &visitor : visitors_) {
            visitor.join();
        }
        visitors_.clear();
    }

    [[nodiscard]] int handled() const { return handled_; }

private:
    void visit(const char *name, std::uint64_t meanPauseMs, std::function<void()> act) {
        visitors_.emplace_back([this, name, meanPauseMs, act = std::move(act)] {
            virtualtime::nameThread(name);
            while (!isOver_) {
                act();
                virtualtime::sleepMs(static_cast<std::int64_t>(virtualtime::draw(2 * meanPauseMs)));
            }
        });
    }

    void request() {
        using namespace fakes::proxy;
        const std::function<int()> requests[] = {
            [] { return controlDrlc("2", "00:00:05", ""); },
            [] { return controlDrlc("0"); },
            [] { return controlOverride(1); },
            [] { return getDrlcOverride().answer; },
            [] { return getDefrostBlock().answer; },
            [] { return getDelayDefrost().answer; },
            [] { return setDelayDefrost(1); },
            [] { return getDefrostReservations().answer; },
            [] {
                return createDefrostReservation(
                           reservation("0000-01-01T00:00:00", "0000-12-31T00:00:00", "20:00:00"))
                    .answer;
            },
            [] {
                return setDefrostReservation(
                    reservation("0000-01-01T00:00:00", "0000-12-31T00:00:00", "10:00:00"));
            },
            [] { return delDefrostReservation("2"); },
            [] { return delDefrostReservation("3"); },
            [] { return getEnergyConsumption().answer; },
        };
        if (requests[virtualtime::draw(std::size(requests))]() == 1) {
            ++handled_;
        }
    }

    static void write() {
        const std::pair<const char *, int> writes[] = {
            {fakes::kMicomLevel, 2},
            {fakes::kMicomLevel, 0},
            {fakes::kMicomOverride, 1},
            {fakes::kMicomOverride, 0},
            {"memory/refrigerator/SmartGridWatt4", 90},
            {"db/corvane/dr/micom_override", 1},
            {"db/setting/cityname_id", 1},
        };
        const auto &[key, value] = writes[virtualtime::draw(std::size(writes))];
        fakes::settings::set(key, value);
    }

    // As the controllers and handlers do it: a getter, a Pin, and time passes.
    static void look() {
        if (!fakes::loop::running()) {
            return; // the platform calls nobody then, and a getter would make a manager
        }
        const Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
        const Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
        const Pin<EnergyReport> report(EnergyManager::GetEnergyReport());
        virtualtime::sleepMs(static_cast<std::int64_t>(virtualtime::draw(30)));
        if (dr) {
            (void)dr->getSchedule();
        }
        if (defrost) {
            (void)defrost->getSchedules();
        }
        if (report) {
            (void)report->getKestEnergy();
        }
    }

    std::atomic<bool> isOver_{false};
    std::atomic<int> handled_{0};
    std::vector<std::thread> visitors_;
};

class AnyInstantTest : public fakes::ServiceTest, public testing::WithParamInterface<int> {
protected:
    static constexpr int kOrders = 8;
    static constexpr int kStepMs = 50;
    static constexpr int kLastMs = 8000;
    static constexpr int kLongestStopMs = 5000; // three workers, a second each, and a task
    // DefrostDelay's: its table is created in ten times ten attempts, two rows are inserted and all
    // are read in ten each, and every attempt waits 200 ms for the file.
    static constexpr int kLongestBuildMs = (10 * 10 + 2 * 10 + 10) * 200;

    AnyInstantTest() : ServiceTest(options(static_cast<std::uint64_t>(GetParam()))) {}

    static Options options(std::uint64_t seed) {
        Options options;
        options.seed = seed;
        return options;
    }

    // The orders divide the instants among themselves.
    static std::vector<int> shareOfTheInstants(int stepMs = kStepMs) {
        std::vector<int> instantsMs;
        for (int ms = (GetParam() - 1) * stepMs; ms <= kLastMs; ms += kOrders * stepMs) {
            instantsMs.push_back(ms);
        }
        return instantsMs;
    }

    // Stops the service and checks that nothing of it is left.
    void stopAndCheck(int instantMs, int longestMs = kLongestStopMs) {
        const auto before = virtualtime::elapsedMs();
        EXPECT_EQ(stopService(), 0) << "stopped at " << instantMs << " ms";
        EXPECT_LE(virtualtime::elapsedMs() - before, longestMs)
            << "stopped at " << instantMs << " ms";
        for (const char *name : {"DefrostDelay", "EnergyDR", "EnergyReport"}) {
            const std::string worker = std::string(name) + " Thread!!";
            EXPECT_EQ(fakes::log::count("start " + worker), fakes::log::count("stop " + worker))
                << "stopped at " << instantMs << " ms";
        }
        EXPECT_EQ(fakes::storage::openConnections(), 0) << "stopped at " << instantMs << " ms";
        EXPECT_EQ(fakes::metering::openHandles(), 0) << "stopped at " << instantMs << " ms";
    }

    // After the stop nothing is logged, written, announced, stored or posted any more.
    static void expectSilence(int instantMs) {
        fakes::clearRecords();
        advance(3);
        EXPECT_THAT(fakes::texts(), IsEmpty()) << "stopped at " << instantMs << " ms";
    }
};

INSTANTIATE_TEST_SUITE_P(Orders, AnyInstantTest, testing::Range(1, 1 + 8));

TEST_P(AnyInstantTest, ServiceStopsLeavingNothingBehind) {
    for (const int instantMs : shareOfTheInstants()) {
        startService();
        virtualtime::sleepMs(instantMs);
        stopAndCheck(instantMs);
        expectSilence(instantMs);
    }
}

TEST_P(AnyInstantTest, ServiceStopsBetweenTheTasksPauses) {
    for (int i = 0; i < 60; ++i) {
        const int instantMs = static_cast<int>(virtualtime::draw(kLastMs));
        startService();
        virtualtime::sleepMs(instantMs);
        stopAndCheck(instantMs);
        expectSilence(instantMs);
    }
}

TEST_P(AnyInstantTest, ServiceStopsBeforeTheGateOpensForWantOfWifiOrDate) {
    for (const bool wifi : {false, true}) {
        fakes::wifi::State state;
        state.connected = wifi;
        fakes::wifi::set(state);
        virtualtime::setClock("2015-06-01T00:00:00");
        for (int instantMs = 0; instantMs <= 4000; instantMs += kStepMs) {
            startService();
            virtualtime::sleepMs(instantMs);
            stopAndCheck(instantMs, 1050); // the step that sleeps is all there is to wait for
            expectSilence(instantMs);
            EXPECT_THAT(fakes::storage::calls(), IsEmpty());
        }
    }
}

TEST_P(AnyInstantTest, ServiceStopsWithHandlersAndCallbacksArriving) {
    const Crowd crowd;
    for (const int instantMs : shareOfTheInstants()) {
        startService();
        virtualtime::sleepMs(instantMs);
        stopAndCheck(instantMs);
        fakes::clearRecords();
    }
    EXPECT_GT(crowd.handled(), 100);
}

TEST_P(AnyInstantTest, ServiceStopsWithDeferredTasksAsleep) {
    for (const int instantMs : shareOfTheInstants()) {
        startServiceAndOpenGate();
        advance(3);
        echoLevel(1);
        echoLevel(2);
        writeAsMicom("memory/refrigerator/SmartGridWatt4", 5);
        echoLevel(0);
        virtualtime::sleepMs(instantMs / 2); // the four tasks are over after 4.2 s
        stopAndCheck(instantMs);
        expectSilence(instantMs);
    }
}

// Another process holds both files: every statement waits, and building a controller takes long.
TEST_P(AnyInstantTest, ServiceStopsWhileAControllerIsBuiltSlowly) {
    startServiceAndOpenGate();
    stopService();
    for (int instantMs : shareOfTheInstants()) {
        instantMs *= 10; // the third is built after 70 s
        {
            const fakes::storage::Lock main("corvane.db", fakes::storage::Lock::Kind::Exclusive);
            const fakes::storage::Lock usage("usage.db", fakes::storage::Lock::Kind::Exclusive);
            startService();
            virtualtime::sleepMs(instantMs);
            stopAndCheck(instantMs, kLongestBuildMs + kLongestStopMs);
        }
        expectSilence(instantMs);
    }
}

TEST_P(AnyInstantTest, ServiceStopsDuringARefresh) {
    for (const int instantMs : shareOfTheInstants()) {
        startServiceAndOpenGate();
        virtualtime::sleepMs(static_cast<std::int64_t>(virtualtime::draw(2000)));
        Intro gate;
        gate.refresh();
        virtualtime::sleepMs(instantMs);
        stopAndCheck(instantMs);
        expectSilence(instantMs);
    }
}

TEST_P(AnyInstantTest, RefreshEndsWithOneOfEachControllerWhoeverIsCalling) {
    const Crowd crowd;
    for (const int instantMs : shareOfTheInstants(4 * kStepMs)) {
        startService();
        virtualtime::sleepMs(instantMs);
        Intro gate;
        gate.refresh();
        advance(5);
        gate.refresh();
        advance(30); // what the Micom has queued before them comes first
        for (const char *name : {"DefrostDelay", "EnergyDR", "EnergyReport"}) {
            const std::string worker = std::string(name) + " Thread!!";
            EXPECT_EQ(fakes::log::count("start " + worker) - fakes::log::count("stop " + worker), 1)
                << name << ", refreshed at " << instantMs << " ms";
        }
        stopAndCheck(instantMs);
        fakes::clearRecords();
    }
    EXPECT_GT(crowd.handled(), 100);
}

// ---- Pins ----

struct Thing {
    int value = 7;
};

// As the owner of the object would, through the slot that it keeps it in.
bool retire(Thing *thing) {
    const std::atomic<Thing *> slot(thing);
    return Pin<Thing>::retire(slot) == thing && thing != nullptr;
}

class PinTest : public fakes::VirtualTest {};

TEST_F(PinTest, PinOnNothingOrOnSomethingUnknownIsEmpty) {
    Thing thing;
    EXPECT_FALSE(Pin<Thing>(nullptr));
    EXPECT_FALSE(Pin<Thing>(&thing));
}

TEST_F(PinTest, PinOnAKnownObjectReachesIt) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    {
        const Pin<Thing> pin(&thing);
        ASSERT_TRUE(pin);
        EXPECT_EQ(pin->value, 7);
    }
    Pin<Thing>::leave(&thing);
    EXPECT_FALSE(Pin<Thing>(&thing));
}

TEST_F(PinTest, RetiringWaitsForEveryPinAndRefusesNewOnes) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    std::vector<std::thread> users;
    for (const double sec : {1.0, 3.0, 2.0}) {
        users.emplace_back([&thing, sec] {
            const Pin<Thing> pin(&thing);
            advance(sec);
            EXPECT_EQ(pin->value, 7);
        });
    }
    users.emplace_back([&thing] {
        advance(1.5);
        EXPECT_FALSE(Pin<Thing>(&thing));
    });
    advance(0.5);
    EXPECT_TRUE(retire(&thing));
    EXPECT_EQ(virtualtime::elapsedMs(), 3000);
    Pin<Thing>::leave(&thing);
    for (std::thread &user : users) {
        user.join();
    }
}

TEST_F(PinTest, OnlyTheFirstRetires) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    EXPECT_TRUE(retire(&thing));
    EXPECT_FALSE(retire(&thing));
    Pin<Thing>::leave(&thing);
    EXPECT_FALSE(retire(&thing));
    EXPECT_FALSE(retire(nullptr));
}

TEST_F(PinTest, SecondToRetireDoesNotWait) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    std::thread user([&thing] {
        const Pin<Thing> pin(&thing);
        advance(5);
    });
    advance(0);
    std::thread first([&thing] { EXPECT_TRUE(retire(&thing)); });
    advance(1);
    EXPECT_FALSE(retire(&thing));
    EXPECT_EQ(virtualtime::elapsedMs(), 1000);
    first.join();
    EXPECT_EQ(virtualtime::elapsedMs(), 5000);
    user.join();
    Pin<Thing>::leave(&thing);
}

TEST_F(PinTest, LeavingRetiresFirst) {
    auto thing = std::make_unique<Thing>();
    Pin<Thing>::enter(thing.get());
    std::thread user([&thing] {
        const Pin<Thing> pin(thing.get());
        advance(2);
        EXPECT_EQ(pin->value, 7);
    });
    advance(1);
    Pin<Thing>::leave(thing.get());
    EXPECT_EQ(virtualtime::elapsedMs(), 2000);
    user.join();
}

TEST_F(PinTest, OneThreadMayHoldSeveralPins) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    {
        const Pin<Thing> outer(&thing);
        const Pin<Thing> inner(&thing);
        EXPECT_TRUE(outer && inner);
    }
    EXPECT_TRUE(retire(&thing));
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
    Pin<Thing>::leave(&thing);
}

TEST_F(PinTest, AddressUsedAgainIsANewObject) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    EXPECT_TRUE(retire(&thing));
    Pin<Thing>::leave(&thing);
    Pin<Thing>::enter(&thing);
    EXPECT_TRUE(Pin<Thing>(&thing));
    Pin<Thing>::leave(&thing);
}

TEST_F(PinTest, AddressUsedByAnotherTypeIsNotMistaken) {
    Thing thing;
    Pin<Thing>::enter(&thing);
    EXPECT_FALSE(Pin<int>(&thing.value)); // the same address
    Pin<Thing>::leave(&thing);
}

TEST_F(PinTest, PinsOnOtherObjectsDoNotKeepOneFromRetiring) {
    Thing one;
    Thing other;
    Pin<Thing>::enter(&one);
    Pin<Thing>::enter(&other);
    {
        const Pin<Thing> pin(&other);
        EXPECT_TRUE(retire(&one));
    }
    Pin<Thing>::leave(&one);
    Pin<Thing>::leave(&other);
}

// ---- Pins in the service ----

class SafetyTest : public fakes::ServiceTest {};

TEST_F(SafetyTest, ControllerInUseIsDeletedOnlyAfterwards) {
    startServiceAndOpenGate();
    EnergyDR *const seen = EnergyManager::GetEnergyDR();
    std::thread user([seen] {
        const Pin<EnergyDR> dr(seen);
        ASSERT_TRUE(dr);
        advance(20);
        EXPECT_EQ(dr->getOverride(), 0);
    });
    advance(0);
    const auto before = virtualtime::elapsedMs();
    EnergyManager::FinalThread();
    EXPECT_GE(virtualtime::elapsedMs() - before, 20000);
    user.join();
    EXPECT_FALSE(Pin<EnergyDR>(seen));
}

TEST_F(SafetyTest, LevelEchoOfADeletedControllerIsIgnored) {
    startServiceAndOpenGate();
    advance(3);
    echoLevel(2);
    EnergyManager::FinalThread(); // with the echo's task asleep
    fakes::clearRecords();
    echoLevel(3); // its registration has outlived the controller
    advance(5);
    EXPECT_THAT(fakes::texts({Kind::Log, Kind::Notification}), IsEmpty());
    EXPECT_EQ(fakes::texts({Kind::Setting}).size(), 1U);
}

TEST_F(SafetyTest, EnergyOfTheMicomForADeletedReportIsIgnored) {
    startServiceAndOpenGate();
    advance(3);
    publishEnergy(0, 0, 1, 1);
    EnergyManager::FinalThread();
    fakes::clearRecords();
    publishEnergy(0, 0, 1, 1);
    advance(5);
    EXPECT_THAT(fakes::texts({Kind::Log, Kind::Post, Kind::Sql}), IsEmpty());
}

TEST_F(SafetyTest, RebuiltControllerHearsTheEchoOnce) {
    startServiceAndOpenGate();
    EnergyManager::FinalThread();
    EnergyManager::LaunchApp();
    advance(8);
    fakes::clearRecords();
    echoLevel(2);
    advance(3);
    EXPECT_EQ(fakes::log::count("Callback DR_Level Resp From Micom : 2"), 1);
    EXPECT_THAT(fakes::proxy::notifications(), ElementsAre("SendDRLCNotify(2)"));
}

TEST_F(SafetyTest, RequestThatIsUnderWayIsAnsweredBeforeTheServiceStops) {
    startServiceAndOpenGate();
    advance(3);
    auto held =
        std::make_unique<fakes::storage::Lock>("corvane.db", fakes::storage::Lock::Kind::Exclusive);
    int answer = fakes::proxy::kRefused;
    std::thread remoteSide([&answer] { answer = fakes::proxy::controlDrlc("0"); });
    advance(0.1);
    std::thread other([&held] {
        advance(0.5);
        held.reset();
    });
    EXPECT_EQ(stopService(), 0);
    remoteSide.join();
    other.join();
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(fakes::proxy::controlDrlc("0"), fakes::proxy::kRefused);
}

} // namespace
