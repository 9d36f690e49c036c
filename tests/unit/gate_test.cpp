/*
 * The start-up gate: what it waits for, how often it looks, what it says, and what a refresh does
 * to controllers that run.
 *
 * A step is queued with a sleep of one second, and the task thread rests 50 ms between tasks, so
 * retries come every 1,050 ms and every instant below is exact.
 */
#include "service_fixture.h"

#include <dlog.h>
#include <gmock/gmock.h>
#include <memory>

#include "EnergyDR.h"

namespace {

using Corvane::EnergyManager;
using Corvane::Intro;
using fakes::Kind;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::vector<std::string>;
using Instants = std::vector<std::int64_t>;

class GateTest : public fakes::ServiceTest {
protected:
    using ServiceTest::ServiceTest;

    static void connectWifi(bool connected) {
        fakes::wifi::State state = fakes::wifi::get();
        state.connected = connected;
        fakes::wifi::set(state);
    }

    static void switchRadio(bool on) {
        fakes::wifi::State state = fakes::wifi::get();
        state.activated = on;
        fakes::wifi::set(state);
    }

    // When the text was recorded, in milliseconds of the run. For tests that leave the clock alone.
    static Instants instantsOf(Kind kind, const std::string &text) {
        Instants instants;
        for (const fakes::Entry &entry : fakes::trace({kind})) {
            if (entry.text == text) {
                instants.push_back((entry.utcNs - virtualtime::parseUtc("2026-05-01T00:00:00")) /
                                   1'000'000);
            }
        }
        return instants;
    }

    static Instants logged(const std::string &message) { return instantsOf(Kind::Log, message); }
    static Instants wifiChecks() { return instantsOf(Kind::Wifi, "wifi_get_connected_ap"); }

    // Only what the gate itself says and does.
    static Texts steps() {
        Texts wanted;
        for (const std::string &text : fakes::texts({Kind::Log, Kind::Wifi})) {
            if (text.starts_with("wifi") || text.starts_with("WiFi") || text.starts_with("DATE") ||
                text.starts_with("Date")) {
                wanted.push_back(text);
            }
        }
        return wanted;
    }

    static bool anyController() {
        return EnergyManager::GetDefrostDelay() != nullptr ||
               EnergyManager::GetEnergyDR() != nullptr ||
               EnergyManager::GetEnergyReport() != nullptr;
    }

    static bool allControllers() {
        return EnergyManager::GetDefrostDelay() != nullptr &&
               EnergyManager::GetEnergyDR() != nullptr &&
               EnergyManager::GetEnergyReport() != nullptr;
    }
};

// ---- The chain ----

TEST_F(GateTest, OpensStepByStepWhenAllIsInOrder) {
    EnergyManager::Initialize();
    advance(6);
    EXPECT_THAT(steps(), ElementsAre("wifi_initialize", "wifi_initialize", "wifi_get_connected_ap",
                                     "wifi connetion success", "Date & Time is alright"));
    EXPECT_THAT(wifiChecks(), ElementsAre(1000));
    EXPECT_THAT(logged("Date & Time is alright"), ElementsAre(2050));
    EXPECT_THAT(logged("start DefrostDelay Thread!!"), ElementsAre(3100));
    EXPECT_THAT(logged("start EnergyDR Thread!!"), ElementsAre(4150));
    EXPECT_THAT(logged("start EnergyReport Thread!!"), ElementsAre(5200));
}

TEST_F(GateTest, LinesOfTheGateAreDebug) {
    connectWifi(false);
    virtualtime::setClock("2015-11-30T00:00:00");
    EnergyManager::Initialize();
    advance(3);
    connectWifi(true);
    advance(5);
    virtualtime::setClock("2016-01-01T00:00:00");
    advance(2);
    for (const char *message : {"wifi not connected", "wifi connetion success", "DATE is not right",
                                "Date & Time is alright"}) {
        EXPECT_EQ(fakes::log::find(message).priority, DLOG_DEBUG) << message;
        EXPECT_EQ(fakes::log::find(message).file, "EnergyManager.cpp") << message;
    }
}

TEST_F(GateTest, NothingHappensBeforeTheFirstSecondIsOver) {
    EnergyManager::Initialize();
    advance(0.999);
    EXPECT_THAT(steps(), ElementsAre("wifi_initialize"));
}

TEST_F(GateTest, WifiIsAskedForAgainUntilItIsConnected) {
    connectWifi(false);
    EnergyManager::Initialize();
    advance(4.5);
    EXPECT_THAT(wifiChecks(), ElementsAre(1000, 2050, 3100, 4150));
    EXPECT_THAT(logged("wifi not connected"), ElementsAre(1000, 2050, 3100, 4150));
    connectWifi(true);
    advance(2);
    EXPECT_THAT(logged("wifi connetion success"), ElementsAre(5200));
    EXPECT_THAT(logged("Date & Time is alright"), ElementsAre(6250));
}

TEST_F(GateTest, WifiIsInitializedBeforeEachCheck) {
    connectWifi(false);
    EnergyManager::Initialize();
    advance(3.2);
    EXPECT_THAT(steps(),
                ElementsAre("wifi_initialize", "wifi_initialize", "wifi_get_connected_ap",
                            "wifi not connected", "wifi_initialize", "wifi_get_connected_ap",
                            "wifi not connected", "wifi_initialize", "wifi_get_connected_ap",
                            "wifi not connected"));
}

TEST_F(GateTest, FailureToInitializeWifiKeepsNobodyWaiting) {
    fakes::wifi::State state;
    state.initializeResult = -1;
    fakes::wifi::set(state);
    EnergyManager::Initialize();
    advance(6);
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, RetriesHaveNoBound) {
    connectWifi(false);
    EnergyManager::Initialize();
    advance(2 * 86400.0);
    EXPECT_EQ(wifiChecks().size(), 1U + static_cast<std::size_t>((2 * 86400.0 - 1) / 1.05));
    EXPECT_FALSE(anyController());
    connectWifi(true);
    advance(7);
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, WifiThatIsLostAfterItsCheckIsNotMissed) {
    virtualtime::setClock("2015-11-30T12:00:00");
    EnergyManager::Initialize();
    advance(3);
    connectWifi(false);
    fakes::clearRecords();
    advance(60);
    EXPECT_THAT(fakes::texts({Kind::Wifi}), IsEmpty());
    virtualtime::setClock("2015-12-01T00:00:00");
    advance(5);
    EXPECT_TRUE(allControllers());
    EXPECT_THAT(fakes::texts({Kind::Wifi}), IsEmpty());
}

TEST_F(GateTest, OnceOpenTheGateDoesNothingMore) {
    startServiceAndOpenGate();
    fakes::clearRecords();
    connectWifi(false);
    advance(3600);
    virtualtime::setClock("2015-01-01T00:00:00");
    advance(3600);
    EXPECT_THAT(steps(), IsEmpty());
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, WithoutWifiNoControllerIsBuiltAndTheServiceStillStops) {
    connectWifi(false);
    startService();
    advance(3600);
    EXPECT_FALSE(anyController());
    EXPECT_THAT(fakes::storage::calls(), IsEmpty());
    EXPECT_EQ(stopService(), 0);
}

TEST_F(GateTest, HangingWifiCallOnlyDelaysTheStep) {
    fakes::wifi::State state;
    state.hangSec = 0.5;
    fakes::wifi::set(state);
    EnergyManager::Initialize(); // the gate's own call takes 0.5 s, too: its step starts at 550 ms
    advance(10);
    EXPECT_THAT(logged("wifi connetion success"), ElementsAre(2550));
}

// ---- The clock ----

TEST_F(GateTest, ClockIsRightFromDecember2015OnInUtc) {
    const std::vector<std::pair<const char *, bool>> clocks = {
        {"1970-01-01T00:00:00", false}, {"1999-12-31T23:59:59", false},
        {"2012-02-29T12:00:00", false}, {"2014-12-31T23:59:59", false},
        {"2015-01-01T00:00:00", false}, {"2015-11-30T00:00:00", false},
        {"2015-11-30T23:59:59", false}, {"2015-11-30T23:59:59.999", false},
        {"2015-12-01T00:00:00", true},  {"2015-12-31T23:59:59", true},
        {"2016-01-01T00:00:00", true},  {"2016-02-29T00:00:00", true},
        {"2026-10-31T00:00:00", true},  {"2038-01-19T03:14:08", true},
    };
    for (const char *zone : {"UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"}) {
        setZone(zone);
        Intro gate;
        for (const auto &[clock, isRight] : clocks) {
            fakes::clearRecords();
            virtualtime::setClock(clock);
            EXPECT_EQ(gate._dateCheck(), isRight) << clock << " in " << zone;
            EXPECT_EQ(fakes::texts(), isRight ? Texts{} : Texts{"DATE is not right"}) << clock;
        }
    }
}

TEST_F(GateTest, ClockIsLookedAtAboutOnceASecondUntilItIsRight) {
    virtualtime::setClock("2015-11-30T12:00:00");
    EnergyManager::Initialize();
    advance(63);
    EXPECT_EQ(fakes::log::count("DATE is not right"), 1 + static_cast<int>((63 - 2.05) / 1.05));
    EXPECT_FALSE(fakes::log::has("Date & Time is alright"));
    EXPECT_FALSE(anyController());
}

TEST_F(GateTest, OpensAtTheFirstLookInDecember) {
    virtualtime::setClock("2015-11-30T23:59:50");
    EnergyManager::Initialize();
    advance(20);
    // Looks at 2.05 s and every 1.05 s from then on: 9.40 s is still November.
    EXPECT_EQ(fakes::log::count("DATE is not right"), 8);
    EXPECT_EQ(fakes::log::find("Date & Time is alright").utcNs,
              virtualtime::parseUtc("2015-12-01T00:00:00.45"));
    EXPECT_EQ(fakes::log::find("start DefrostDelay Thread!!").utcNs,
              virtualtime::parseUtc("2015-12-01T00:00:01.5"));
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, ClockThatIsSetWhileWaitingOpensTheGate) {
    virtualtime::setClock("1970-01-01T00:00:00");
    EnergyManager::Initialize();
    advance(30);
    EXPECT_FALSE(anyController());
    virtualtime::setClock("2026-05-01T00:00:00");
    advance(5);
    EXPECT_TRUE(allControllers());
}

// ---- The gate's own life ----

TEST_F(GateTest, GateInitializesWifiAndLetsGoOfItAtItsEnd) {
    auto gate = std::make_unique<Intro>();
    EXPECT_THAT(fakes::texts(), ElementsAre("wifi_initialize"));
    gate.reset();
    EXPECT_THAT(fakes::texts(), ElementsAre("wifi_initialize", "wifi_initialize",
                                            "wifi_unset_connection_state_changed_cb"));
}

TEST_F(GateTest, StepOfAGateThatIsGoneIsNotTaken) {
    auto gate = std::make_unique<Intro>();
    gate->refresh();
    advance(0.5);
    gate.reset();
    fakes::clearRecords();
    advance(10);
    EXPECT_TRUE(fakes::trace().empty());
}

TEST_F(GateTest, EndOfTheGateWaitsForItsStepUnderWay) {
    auto gate = std::make_unique<Intro>();
    fakes::wifi::State slow;
    slow.hangSec = 3;
    fakes::wifi::set(slow);
    gate->refresh();
    advance(2); // in the first of the two calls of the check, which takes from 1 s to 7 s
    slow.hangSec = 0;
    fakes::wifi::set(slow);
    gate.reset();
    EXPECT_GE(virtualtime::elapsedMs(), 4000);
    EXPECT_THAT(steps(), ElementsAre("wifi_initialize", "wifi_initialize", "wifi_get_connected_ap",
                                     "wifi connetion success", "wifi_initialize",
                                     "wifi_unset_connection_state_changed_cb"));
}

// ---- Refresh ----

TEST_F(GateTest, RefreshDeletesTheControllersAndBuildsThemAgain) {
    startServiceAndOpenGate();
    advance(2);
    Intro gate;
    fakes::clearRecords();
    gate.refresh();
    advance(12);
    Texts lives;
    for (const std::string &text : fakes::log::messages()) {
        if (text.ends_with(" Thread!!") || text == "Date & Time is alright") {
            lives.push_back(text);
        }
    }
    EXPECT_THAT(lives, ElementsAre("stop DefrostDelay Thread!!", "stop EnergyDR Thread!!",
                                   "stop EnergyReport Thread!!", "Date & Time is alright",
                                   "start DefrostDelay Thread!!", "start EnergyDR Thread!!",
                                   "start EnergyReport Thread!!"));
    const std::int64_t opened = logged("Date & Time is alright").at(0);
    EXPECT_THAT(logged("start DefrostDelay Thread!!"), ElementsAre(opened + 1050));
    EXPECT_THAT(logged("start EnergyDR Thread!!"), ElementsAre(opened + 2100));
    EXPECT_THAT(logged("start EnergyReport Thread!!"), ElementsAre(opened + 3150));
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, RefreshWaitsASecondAfterTheLastControllerIsDeleted) {
    startServiceAndOpenGate();
    advance(2);
    Intro gate;
    fakes::clearRecords();
    gate.refresh();
    EXPECT_THAT(fakes::texts(), IsEmpty()); // all of it is left to the task thread
    advance(6);
    EXPECT_THAT(wifiChecks(), ElementsAre(logged("stop EnergyReport Thread!!").at(0) + 1000));
}

TEST_F(GateTest, RefreshWithWifiGoneKeepsTheControllersAway) {
    startServiceAndOpenGate();
    Intro gate;
    connectWifi(false);
    gate.refresh();
    advance(60);
    EXPECT_FALSE(anyController());
    connectWifi(true);
    advance(7);
    EXPECT_TRUE(allControllers());
}

TEST_F(GateTest, RefreshWhileTheGateWaitsBuildsEachControllerOnce) {
    connectWifi(false);
    EnergyManager::Initialize();
    advance(5);
    Intro gate;
    gate.refresh();
    advance(5);
    connectWifi(true);
    advance(20);
    EXPECT_TRUE(allControllers());
    for (const char *name : {"DefrostDelay", "EnergyDR", "EnergyReport"}) {
        EXPECT_EQ(fakes::log::count(std::string("start ") + name + " Thread!!"), 1) << name;
    }
}

TEST_F(GateTest, StateOfTheControllersOutlivesARefresh) {
    startServiceAndOpenGate();
    EnergyManager::GetEnergyDR()->setOverride(1);
    EXPECT_EQ(fakes::proxy::controlDrlc("3", "02:00:00", "01:00:00"), 1);
    Intro gate;
    gate.refresh();
    advance(12);
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getOverride(), 1);
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getBlock(), 1);
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getSchedule().drlcStartTime, "2026-05-01T01:00:00");
}

// ---- Switching the radio on ----

class RadioTest : public GateTest {
protected:
    void SetUp() override {
        GateTest::SetUp();
        connectWifi(false); // what the gate does after the radio is not of interest here
        startLoop();
        gate = std::make_unique<Intro>();
        fakes::clearRecords();
    }

    void TearDown() override {
        stopLoop();
        gate.reset();
        GateTest::TearDown();
    }

    static void prepareRadio(const fakes::wifi::State &state) {
        fakes::wifi::set(state);
        connectWifi(false);
    }

    static Instants activations() { return instantsOf(Kind::Wifi, "wifi_activate"); }

    std::unique_ptr<Intro> gate;
};

TEST_F(RadioTest, RadioThatIsOnLeadsToTheWifiCheckASecondLater) {
    gate->_wifiActivate();
    EXPECT_THAT(fakes::texts(), ElementsAre("wifi_initialize", "wifi_is_activated"));
    advance(1.9);
    EXPECT_THAT(wifiChecks(), ElementsAre(1000));
    EXPECT_THAT(activations(), IsEmpty());
}

TEST_F(RadioTest, RadioThatIsOffIsSwitchedOn) {
    switchRadio(false);
    gate->_wifiActivate();
    EXPECT_THAT(fakes::texts(), ElementsAre("wifi_initialize", "wifi_is_activated",
                                            "WiFi activate...", "wifi_activate"));
    EXPECT_EQ(fakes::log::find("WiFi activate...").priority, DLOG_DEBUG);
}

TEST_F(RadioTest, RadioWhoseStateCannotBeReadCountsAsOff) {
    fakes::wifi::State state;
    state.isActivatedResult = -1;
    prepareRadio(state);
    gate->_wifiActivate();
    EXPECT_TRUE(fakes::log::has("WiFi activate..."));
}

TEST_F(RadioTest, SwitchingOnIsLookedAfterASecondLater) {
    fakes::wifi::State state;
    state.activated = false;
    state.activationSec = 100;
    prepareRadio(state);
    gate->_wifiActivate();
    advance(3.5);
    EXPECT_THAT(activations(), ElementsAre(0, 1000, 2050, 3100));
    EXPECT_FALSE(fakes::log::has("wifi activate FAILED"));
    EXPECT_THAT(wifiChecks(), IsEmpty());
}

TEST_F(RadioTest, RadioThatRefusesIsLoggedAndAskedAgain) {
    fakes::wifi::State state;
    state.activated = false;
    state.activateResult = -1;
    prepareRadio(state);
    gate->_wifiActivate();
    EXPECT_THAT(fakes::texts(),
                ElementsAre("wifi_initialize", "wifi_is_activated", "WiFi activate...",
                            "wifi_activate", "wifi activate FAILED"));
    EXPECT_EQ(fakes::log::find("wifi activate FAILED").priority, DLOG_DEBUG);
    advance(2.5);
    EXPECT_THAT(logged("wifi activate FAILED"), ElementsAre(0, 1000, 2050));
}

TEST_F(RadioTest, ActivationThatSucceedsIsLoggedAndLeadsToTheWifiCheck) {
    switchRadio(false);
    gate->_wifiActivate();
    advance(0.5);
    EXPECT_THAT(logged("wifi activate success"), ElementsAre(500));
    EXPECT_EQ(fakes::log::find("wifi activate success").priority, DLOG_DEBUG);
    EXPECT_THAT(wifiChecks(), IsEmpty()); // the callback only queues
    advance(1.6);
    // The look after the radio, queued first, runs from 0 to 1 s; the callback's check follows it.
    EXPECT_THAT(wifiChecks(), ElementsAre(2050));
}

TEST_F(RadioTest, ActivationThatFailsTriesAgainWithoutAWord) {
    fakes::wifi::State state;
    state.activated = false;
    state.activationOutcome = WIFI_ERROR_OPERATION_FAILED;
    prepareRadio(state);
    gate->_wifiActivate();
    advance(0.6);
    EXPECT_THAT(fakes::texts({Kind::Log}), ElementsAre("WiFi activate..."));
    advance(1.6);
    // The look queued by the first attempt at 1,000 ms, the callback's own at 2,050 ms.
    EXPECT_THAT(activations(), ElementsAre(0, 1000, 2050));
    EXPECT_THAT(fakes::texts({Kind::Log}), Each("WiFi activate..."));
    EXPECT_THAT(wifiChecks(), IsEmpty());
}

TEST_F(RadioTest, ActivationThatComesAfterTheGateIsGoneIsIgnored) {
    switchRadio(false);
    gate->_wifiActivate();
    advance(0.1);
    gate.reset();
    fakes::clearRecords();
    advance(10);
    EXPECT_TRUE(fakes::trace().empty());
}

TEST_F(RadioTest, ChainOfTheGateNeverSwitchesTheRadioOn) {
    switchRadio(false);
    connectWifi(true);
    gate->refresh();
    advance(10);
    EXPECT_TRUE(allControllers());
    EXPECT_EQ(fakes::wifi::calls("wifi_is_activated"), 0);
    EXPECT_EQ(fakes::wifi::calls("wifi_activate"), 0);
}

} // namespace
