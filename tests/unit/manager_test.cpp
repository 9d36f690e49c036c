/*
 * EnergyManager: the singleton and its task thread, the settings keys watched for the whole
 * service, the launch of the controllers and their end.
 *
 * The task thread looks into its queue every 50 ms from the manager's creation on. That grid shows
 * when a manager was created: at 20 ms past a pass a task has to wait 30 ms more, while a manager
 * that the call itself creates runs it at once.
 */
#include "service_fixture.h"

#include <dlog.h>
#include <gmock/gmock.h>
#include <memory>
#include <vconf.h>

#include "DefrostDelay.h"
#include "EnergyDR.h"
#include "EnergyReport.h"

namespace {

using Corvane::EnergyManager;
using fakes::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kCityKey = "db/setting/cityname_id";
constexpr const char *kDisplayOverrideKey = "db/corvane/dr/micom_override";
constexpr const char *kOverrideKey = "db/corvane/dr/override";

class ManagerTest : public fakes::ServiceTest {
protected:
    using ServiceTest::ServiceTest;

    // Queues a task that notes when it starts and then sleeps.
    void queueTask(double sec = 0) {
        EnergyManager::AsyncCall([this, sec] {
            starts.push_back(virtualtime::elapsedMs());
            advance(sec);
        });
    }

    static void launchAll() {
        EnergyManager::LaunchApp();
        advance(4);
    }

    // The three slots, d, r and e for the controllers that exist.
    static std::string controllers() {
        std::string text;
        text += EnergyManager::GetDefrostDelay() != nullptr ? "d" : "-";
        text += EnergyManager::GetEnergyDR() != nullptr ? "r" : "-";
        text += EnergyManager::GetEnergyReport() != nullptr ? "e" : "-";
        return text;
    }

    // When the log line came, in milliseconds of the run; -1 when it did not.
    static std::int64_t loggedAtMs(const std::string &message) {
        const fakes::log::Line line = fakes::log::find(message);
        return line.priority == -1
                   ? -1
                   : (line.utcNs - virtualtime::parseUtc("2026-05-01T00:00:00")) / 1'000'000;
    }

    // The start and stop lines of the controllers' workers.
    static std::vector<std::string> workerLines() {
        std::vector<std::string> wanted;
        for (const std::string &message : fakes::log::messages()) {
            if (message.ends_with(" Thread!!")) {
                wanted.push_back(message);
            }
        }
        return wanted;
    }

    std::vector<std::int64_t> starts;
};

// ---- The singleton ----

struct EntryPoint {
    const char *name;
    void (*call)();
};

void PrintTo(const EntryPoint &point, std::ostream *out) { *out << point.name; }

class ManagerEntryPointTest : public ManagerTest, public testing::WithParamInterface<EntryPoint> {};

INSTANTIATE_TEST_SUITE_P(
    EntryPoints, ManagerEntryPointTest,
    testing::Values(EntryPoint{"LaunchApp", [] { EnergyManager::LaunchApp(); }},
                    EntryPoint{"AsyncCall", [] { EnergyManager::AsyncCall([] {}); }},
                    EntryPoint{"FinalThread", [] { EnergyManager::FinalThread(); }},
                    EntryPoint{"GetEnergyReport", [] { (void)EnergyManager::GetEnergyReport(); }},
                    EntryPoint{"GetEnergyDR", [] { (void)EnergyManager::GetEnergyDR(); }},
                    EntryPoint{"GetDefrostDelay", [] { (void)EnergyManager::GetDefrostDelay(); }},
                    EntryPoint{"Initialize", [] { EnergyManager::Initialize(); }}),
    [](const auto &entry) { return std::string(entry.param.name); });

TEST_P(ManagerEntryPointTest, CreatesTheManagerWhenThereIsNone) {
    advance(0.03);
    GetParam().call();
    // A manager created here is the one that the end must find: without it the end does nothing,
    // and with it the thread, asleep since 30 ms, is joined at 80 ms.
    advance(0.02);
    EnergyManager::Finalize();
    EXPECT_GE(virtualtime::elapsedMs(), 80);
}

TEST_P(ManagerEntryPointTest, CreatesAnotherManagerAfterTheEnd) {
    EnergyManager::AsyncCall([] {});
    advance(0.01);
    EnergyManager::Finalize();
    const auto end = virtualtime::elapsedMs();
    GetParam().call();
    advance(0.02);
    EnergyManager::Finalize();
    EXPECT_GE(virtualtime::elapsedMs(), end + 50);
}

TEST_F(ManagerTest, FinalizeCreatesNoManager) {
    EnergyManager::Finalize();
    advance(0.02);
    queueTask();
    advance(0.001);
    EXPECT_THAT(starts, ElementsAre(20));
}

TEST_F(ManagerTest, DeclaringACommandCreatesNoManager) {
    EnergyManager::KestAddProxy("x", EnergyManager::KEST_CMD_REQUEST);
    advance(0.02);
    queueTask();
    advance(0.001);
    EXPECT_THAT(starts, ElementsAre(20));
}

TEST_F(ManagerTest, OneManagerServesAllEntryPoints) {
    (void)EnergyManager::GetEnergyDR();
    advance(0.02);
    (void)EnergyManager::GetEnergyReport();
    queueTask();
    advance(0.1);
    EXPECT_THAT(starts, ElementsAre(50));
}

// ---- The task queue ----

TEST_F(ManagerTest, TasksRunInTheirOrderFiftyMillisecondsApart) {
    queueTask();
    queueTask();
    queueTask();
    advance(1);
    EXPECT_THAT(starts, ElementsAre(0, 50, 100));
}

TEST_F(ManagerTest, TaskQueuedWhileAnotherRunsStartsFiftyMillisecondsAfterItsEnd) {
    queueTask(1.2);
    advance(0.5);
    queueTask(2);
    queueTask();
    advance(10);
    EXPECT_THAT(starts, ElementsAre(0, 1250, 3300));
}

TEST_F(ManagerTest, TaskThatATaskQueuesWaitsItsTurn) {
    EnergyManager::AsyncCall([this] {
        queueTask();
        advance(0.3);
        starts.push_back(-1);
    });
    queueTask();
    advance(1);
    EXPECT_THAT(starts, ElementsAre(-1, 350, 400));
}

TEST_F(ManagerTest, TasksOfManyThreadsAllRunAndNeverTwoAtOnce) {
    int running = 0;
    int most = 0;
    int done = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&] {
            for (int k = 0; k < 5; ++k) {
                EnergyManager::AsyncCall([&] {
                    most = std::max(most, ++running);
                    advance(0.01);
                    --running;
                    ++done;
                });
                advance(0.03);
            }
        });
    }
    for (std::thread &caller : callers) {
        caller.join();
    }
    advance(5);
    EXPECT_EQ(done, 40);
    EXPECT_EQ(most, 1);
}

TEST_F(ManagerTest, IdleManagerStartsATaskAtItsNextPass) {
    (void)EnergyManager::GetEnergyDR();
    advance(1.02);
    queueTask();
    advance(1);
    EXPECT_THAT(starts, ElementsAre(1050));
}

TEST_F(ManagerTest, QueueingNeverWaitsForATask) {
    queueTask(100);
    advance(1);
    for (int i = 0; i < 1000; ++i) {
        EnergyManager::AsyncCall([] {});
    }
    EXPECT_EQ(virtualtime::elapsedMs(), 1000);
}

TEST_F(ManagerTest, QueuedTaskIsACopy) {
    int ran = 0;
    std::function<void()> task = [&ran] { ran = 1; };
    EnergyManager::AsyncCall(task);
    task = [&ran] { ran = 2; };
    advance(0.1);
    EXPECT_EQ(ran, 1);
}

TEST_F(ManagerTest, TaskIsFreedAsSoonAsItHasRun) {
    auto held = std::make_shared<int>();
    EnergyManager::AsyncCall([held] { advance(1); });
    EXPECT_EQ(held.use_count(), 2);
    advance(0.9);
    EXPECT_EQ(held.use_count(), 2);
    advance(0.11); // before the thread's pause is over
    EXPECT_EQ(held.use_count(), 1);
}

class ManagerDeathTest : public ManagerTest {
protected:
    ManagerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ManagerDeathTest, EmptyTaskEndsTheProcess) {
    EXPECT_EXIT(
        {
            EnergyManager::AsyncCall(std::function<void()>());
            advance(1);
        },
        testing::KilledBySignal(SIGABRT), "bad_function_call");
}

TEST_F(ManagerDeathTest, ExceptionOfATaskIsCaughtByNobody) {
    EXPECT_EXIT(
        {
            EnergyManager::AsyncCall([] { throw std::out_of_range("told so"); });
            advance(1);
        },
        testing::KilledBySignal(SIGABRT), "out_of_range(.|\n)*told so");
}

// ---- Initialize ----

TEST_F(ManagerTest, InitializeDoesItsStepsInOrder) {
    EnergyManager::Initialize();
    std::vector<std::string> steps;
    for (const std::string &text : fakes::texts()) {
        if (text != "EnergyManager::KestAddProxy()" && !text.starts_with("KestAddProxyCommands")) {
            steps.push_back(text);
        }
    }
    EXPECT_THAT(steps, ElementsAre("EnergyManager::Initialize()", kCityKey, "register MainMicom",
                                   kDisplayOverrideKey, fakes::kMicomOverride,
                                   "KestInitProxy(KestProxyTest)", "KestStart",
                                   "KestSendSetProxyCmds", "Start Intro", "wifi_initialize"));
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TEST_F(ManagerTest, CommandsAreDeclaredBetweenTheKeysAndTheProxysStart) {
    EnergyManager::Initialize();
    const std::vector<std::string> all = fakes::texts();
    const auto at = [&all](const std::string &text) {
        return std::find(all.begin(), all.end(), text) - all.begin();
    };
    EXPECT_LT(at(fakes::kMicomOverride), at("KestAddProxyCommands(GetDRLCOverride, 1)"));
    EXPECT_LT(at("KestAddProxyCommands(GetEnergyConsumption, 1)"),
              at("KestInitProxy(KestProxyTest)"));
    EXPECT_EQ(fakes::log::count("EnergyManager::KestAddProxy()"), 15);
}

TEST_F(ManagerTest, LinesOfInitializeHaveTheirPriorities) {
    EnergyManager::Initialize();
    EXPECT_EQ(fakes::log::find("EnergyManager::Initialize()").priority, DLOG_INFO);
    EXPECT_EQ(fakes::log::find("EnergyManager::KestAddProxy()").priority, DLOG_INFO);
    EXPECT_EQ(fakes::log::find("register MainMicom").priority, DLOG_DEBUG);
    EXPECT_EQ(fakes::log::find("Start Intro").priority, DLOG_DEBUG);
    EXPECT_EQ(fakes::log::find("Start Intro").file, "EnergyManager.cpp");
}

TEST_F(ManagerTest, SecondInitializeRepeatsAllButTheGate) {
    EnergyManager::Initialize();
    const std::vector<std::string> first = fakes::texts();
    fakes::clearRecords();
    EnergyManager::Initialize();
    std::vector<std::string> expected = first;
    expected.pop_back(); // wifi_initialize of a new gate
    EXPECT_EQ(fakes::texts(), expected);
    EXPECT_EQ(fakes::proxy::commands().size(), 30U);
}

TEST_F(ManagerTest, SecondInitializeLeavesTheControllersRunning) {
    startServiceAndOpenGate();
    advance(1);
    fakes::clearRecords();
    EnergyManager::Initialize();
    advance(10);
    EXPECT_EQ(controllers(), "dre");
    EXPECT_THAT(workerLines(), IsEmpty());
    EXPECT_THAT(fakes::texts({Kind::Wifi}), IsEmpty());
}

TEST_F(ManagerTest, KeyCallbacksAreRegisteredWithNoUserData) {
    EnergyManager::Initialize();
    EnergyManager::Finalize();
    const auto keptAway = std::make_unique<char[]>(sizeof(EnergyManager));
    EnergyManager::Initialize(); // of another manager: still the identical registrations
    for (const char *key : {kCityKey, kDisplayOverrideKey, fakes::kMicomOverride}) {
        EXPECT_EQ(fakes::settings::registrations(key), 1) << key;
    }
}

TEST_F(ManagerTest, InitializeMindsNoFailureOfSettingsOrWifi) {
    fakes::wifi::State failing;
    failing.initializeResult = -1;
    fakes::wifi::set(failing);
    for (const char *key : {kOverrideKey, fakes::kMicomCommand, "db/corvane/dr/level"}) {
        fakes::settings::failReads(key);
        fakes::settings::failWrites(key);
    }
    startServiceAndOpenGate();
    EXPECT_EQ(controllers(), "dre");
}

// ---- The watched keys ----

class ManagerKeyTest : public ManagerTest {
protected:
    void SetUp() override {
        ManagerTest::SetUp();
        fakes::wifi::State away;
        away.connected = false; // no controller unless a test launches them
        fakes::wifi::set(away);
        startService();
        fakes::clearRecords();
    }

    // What the service did because of the write, the write itself left out.
    static std::vector<std::string> reactionTo(const std::string &key, int value) {
        fakes::clearRecords();
        writeAsMicom(key, value);
        std::vector<std::string> all = fakes::texts(
            {Kind::Log, Kind::Setting, Kind::Notification, Kind::Proxy, Kind::Watch, Kind::Sql});
        all.erase(all.begin());
        return all;
    }
};

TEST_F(ManagerKeyTest, ChangeOfTheTimeZoneOnlyLogsTheLocalTime) {
    EXPECT_THAT(reactionTo(kCityKey, 42),
                ElementsAre("change timezone", "Current LocalTime : Fri May  1 00:00:00 2026\n"));
    for (const fakes::log::Line &line : fakes::log::lines()) {
        EXPECT_EQ(line.priority, DLOG_DEBUG);
    }
}

TEST_F(ManagerKeyTest, ChangeOfTheTimeZoneIsSeenInTheLoggedTime) {
    for (const auto &[zone, text] : std::vector<std::pair<const char *, const char *>>{
             {"Asia/Seoul", "Fri May  1 09:00:00 2026\n"},
             {"Europe/Berlin", "Fri May  1 02:00:00 2026\n"},
             {"America/New_York", "Thu Apr 30 20:00:00 2026\n"}}) {
        setenv("TZ", zone, 1);
        EXPECT_THAT(reactionTo(kCityKey, 1),
                    ElementsAre("change timezone", std::string("Current LocalTime : ") + text));
    }
}

TEST_F(ManagerKeyTest, ChangeOfTheTimeZoneNeedsNoReadableValue) {
    fakes::clearRecords();
    fakes::settings::set(kCityKey, "Seoul");
    advance(0);
    EXPECT_TRUE(fakes::log::has("change timezone"));
}

TEST_F(ManagerKeyTest, OverrideOnTheDisplayIsCommandedDirectly) {
    EXPECT_THAT(reactionTo(kDisplayOverrideKey, 1),
                ElementsAre("Callback Set DR_Override From LCD : 1",
                            "memory/refrigerator/TxMessage=SET_SMARTGRID_OVERRIDE_FOREVER"));
    EXPECT_THAT(reactionTo(kDisplayOverrideKey, 0),
                ElementsAre("Callback Set DR_Override From LCD : 0",
                            "memory/refrigerator/TxMessage=SET_SMARTGRID_OVERRIDE_OFF"));
    EXPECT_EQ(fakes::log::find("Callback Set DR_Override From LCD : 0").priority, DLOG_DEBUG);
}

TEST_F(ManagerKeyTest, OverrideOnTheDisplayOfAnotherValueSendsNothing) {
    for (const int value : {2, -1, 3, 100}) {
        EXPECT_THAT(reactionTo(kDisplayOverrideKey, value),
                    ElementsAre("Callback Set DR_Override From LCD : " + std::to_string(value)));
    }
}

TEST_F(ManagerKeyTest, OverrideOnTheDisplayWrittenAgainIsCommandedAgain) {
    (void)reactionTo(kDisplayOverrideKey, 1);
    EXPECT_EQ(reactionTo(kDisplayOverrideKey, 1).size(), 2U);
}

TEST_F(ManagerKeyTest, OverrideOnTheDisplayIsSentOnceAlsoWhenTheWriteFails) {
    fakes::settings::failWrites(fakes::kMicomCommand, 1);
    (void)reactionTo(kDisplayOverrideKey, 1);
    EXPECT_THAT(micomCommands(), IsEmpty());
}

TEST_F(ManagerKeyTest, KeyThatCannotBeReadChangesNothing) {
    for (const char *key : {kDisplayOverrideKey, fakes::kMicomOverride}) {
        fakes::settings::failReads(key, 1);
        (void)reactionTo(key, 1);
        EXPECT_THAT(fakes::texts({Kind::Setting}), testing::SizeIs(1)) << key;
        EXPECT_THAT(fakes::texts({Kind::Notification}), IsEmpty()) << key;
    }
}

TEST_F(ManagerKeyTest, OverrideOfTheMicomIsOnlyStoredBeforeTheLaunch) {
    EXPECT_EQ(EnergyManager::GetEnergyDR(), nullptr);
    for (const int value : {1, 0, 7, -1}) {
        const std::string text = std::to_string(value);
        EXPECT_THAT(reactionTo(fakes::kMicomOverride, value),
                    ElementsAre("Callback Set DR_Override From Micom : " + text,
                                std::string(kOverrideKey) + "=" + text));
    }
    EXPECT_EQ(fakes::log::find("Callback Set DR_Override From Micom : -1").priority, DLOG_DEBUG);
}

TEST_F(ManagerKeyTest, OverrideStoredBeforeTheLaunchIsWhatTheControllerLoads) {
    (void)reactionTo(fakes::kMicomOverride, 1);
    launchAll();
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getOverride(), 1);
}

TEST_F(ManagerKeyTest, OverrideOfTheMicomReachesTheController) {
    launchAll();
    ASSERT_EQ(EnergyManager::GetEnergyDR()->getOverride(), 0);
    EXPECT_THAT(reactionTo(fakes::kMicomOverride, 1),
                ElementsAre("Callback Set DR_Override From Micom : 1", "db/corvane/dr/override=1",
                            "DR] Info that is changed Override send KestD : 1",
                            "SendOverrideNotify(1)"));
    EXPECT_EQ(EnergyManager::GetEnergyDR()->getOverride(), 1);
}

TEST_F(ManagerKeyTest, OverrideOfTheMicomEqualToTheControllersChangesNothing) {
    launchAll();
    for (const int value : {0, 1, 5}) {
        EnergyManager::GetEnergyDR()->setOverride(value);
        EXPECT_THAT(reactionTo(fakes::kMicomOverride, value),
                    ElementsAre("Callback Set DR_Override From Micom : " + std::to_string(value)));
    }
}

TEST_F(ManagerKeyTest, OverrideOfTheMicomIsStoredAgainOnceTheControllersAreGone) {
    launchAll();
    EnergyManager::FinalThread();
    EXPECT_THAT(reactionTo(fakes::kMicomOverride, 0),
                ElementsAre("Callback Set DR_Override From Micom : 0", "db/corvane/dr/override=0"));
}

// ---- Launch and end of the controllers ----

TEST_F(ManagerTest, GettersAnswerNullBeforeTheLaunch) { EXPECT_EQ(controllers(), "---"); }

TEST_F(ManagerTest, ControllersAreBuiltOneSecondApartInTheirOrder) {
    EnergyManager::LaunchApp();
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
    const std::vector<std::pair<double, std::string>> steps = {
        {0.999, "---"}, {1, "d--"}, {2.049, "d--"}, {2.05, "dr-"}, {3.099, "dr-"}, {3.1, "dre"}};
    for (const auto &[sec, slots] : steps) {
        virtualtime::sleepMs(std::llround(sec * 1000) - virtualtime::elapsedMs());
        EXPECT_EQ(controllers(), slots) << sec;
    }
    EXPECT_EQ(loggedAtMs("start DefrostDelay Thread!!"), 1000);
    EXPECT_EQ(loggedAtMs("start EnergyDR Thread!!"), 2050);
    EXPECT_EQ(loggedAtMs("start EnergyReport Thread!!"), 3100);
}

TEST_F(ManagerTest, LaunchQueuesNothingForControllersThatExist) {
    launchAll();
    Corvane::DefrostDelay *const defrost = EnergyManager::GetDefrostDelay();
    Corvane::EnergyDR *const dr = EnergyManager::GetEnergyDR();
    Corvane::EnergyReport *const report = EnergyManager::GetEnergyReport();
    advance(2); // the controllers' own first tasks
    const auto now = virtualtime::elapsedMs();
    EnergyManager::LaunchApp();
    queueTask();
    advance(10);
    ASSERT_EQ(starts.size(), 1U);
    EXPECT_LE(starts[0], now + 50);
    EXPECT_EQ(EnergyManager::GetDefrostDelay(), defrost);
    EXPECT_EQ(EnergyManager::GetEnergyDR(), dr);
    EXPECT_EQ(EnergyManager::GetEnergyReport(), report);
}

TEST_F(ManagerTest, LaunchWhileTheLaunchIsUnderWayBuildsEachControllerOnce) {
    for (const double sec : {0.0, 0.5, 1.0, 1.5, 2.5, 3.0}) {
        fakes::clearRecords();
        EnergyManager::LaunchApp();
        advance(sec);
        EnergyManager::LaunchApp();
        advance(12);
        EXPECT_EQ(controllers(), "dre");
        EXPECT_THAT(workerLines(),
                    ElementsAre("start DefrostDelay Thread!!", "start EnergyDR Thread!!",
                                "start EnergyReport Thread!!"))
            << sec;
        EnergyManager::FinalThread();
    }
}

TEST_F(ManagerTest, FinalThreadDeletesTheControllersInTheirOrder) {
    launchAll();
    fakes::clearRecords();
    EnergyManager::FinalThread();
    EXPECT_EQ(controllers(), "---");
    EXPECT_THAT(workerLines(), ElementsAre("stop DefrostDelay Thread!!", "stop EnergyDR Thread!!",
                                           "stop EnergyReport Thread!!"));
    EXPECT_LE(virtualtime::elapsedMs(), 4000 + 3000);
}

TEST_F(ManagerTest, FinalThreadEmptiesEachSlotOnceItsControllerIsDeleted) {
    launchAll();
    advance(0.02);
    std::thread ending([] { EnergyManager::FinalThread(); });
    std::vector<std::string> seen;
    while (seen.empty() || seen.back() != "---") {
        if (const std::string now = controllers(); seen.empty() || seen.back() != now) {
            seen.push_back(now);
        }
        advance(0.01);
    }
    ending.join();
    EXPECT_THAT(seen, ElementsAre("dre", "-re", "--e", "---"));
}

TEST_F(ManagerTest, FinalThreadWithoutControllersDoesNothing) {
    EnergyManager::FinalThread();
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
    EXPECT_TRUE(fakes::trace().empty());
}

TEST_F(ManagerTest, LaunchAfterFinalThreadBuildsAllThreeAgain) {
    launchAll();
    EnergyManager::FinalThread();
    fakes::clearRecords();
    advance(3); // lets go the tasks that the old controllers had queued
    EnergyManager::LaunchApp();
    advance(4);
    EXPECT_EQ(controllers(), "dre");
    EXPECT_THAT(workerLines(), ElementsAre("start DefrostDelay Thread!!", "start EnergyDR Thread!!",
                                           "start EnergyReport Thread!!"));
}

TEST_F(ManagerTest, LaunchBuildsOnlyWhatIsMissing) {
    EnergyManager::LaunchApp();
    advance(1.02); // the first of three
    Corvane::DefrostDelay *const defrost = EnergyManager::GetDefrostDelay();
    EnergyManager::LaunchApp();
    advance(10);
    EXPECT_EQ(EnergyManager::GetDefrostDelay(), defrost);
    EXPECT_EQ(fakes::log::count("start DefrostDelay Thread!!"), 1);
}

// ---- The end ----

TEST_F(ManagerTest, IdleManagerEndsWithinFiftyMilliseconds) {
    (void)EnergyManager::GetEnergyDR();
    advance(0.02);
    EnergyManager::Finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), 50);
}

TEST_F(ManagerTest, EndWithTasksQueuedFreesThemUnrun) {
    auto held = std::make_shared<int>(0);
    for (int i = 0; i < 20; ++i) {
        EnergyManager::AsyncCall([held] {
            ++*held;
            advance(1);
        });
    }
    advance(1.5); // the second is running
    EnergyManager::Finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), 2050);
    EXPECT_EQ(*held, 2);
    EXPECT_EQ(held.use_count(), 1);
    advance(60);
    EXPECT_EQ(*held, 2);
}

TEST_F(ManagerTest, RunningTaskMayFinishBeforeTheEnd) {
    bool finished = false;
    EnergyManager::AsyncCall([&finished] {
        advance(30);
        finished = true;
    });
    advance(1);
    EnergyManager::Finalize();
    EXPECT_TRUE(finished);
    EXPECT_EQ(virtualtime::elapsedMs(), 30000); // and the thread leaves without its pause
}

TEST_F(ManagerTest, TaskThatRunsIntoTheEndFindsThisManagerAndNoOther) {
    auto held = std::make_shared<int>(0);
    std::string slots;
    EnergyManager::AsyncCall([held, &slots] {
        advance(2);
        EnergyManager::AsyncCall([held] { ++*held; });
        EnergyManager::LaunchApp();
        EnergyManager::FinalThread();
        slots = controllers();
    });
    advance(1);
    EnergyManager::Finalize();
    EXPECT_EQ(slots, "---");
    EXPECT_EQ(*held, 0);
    advance(0.02);
    queueTask(); // a manager left behind would keep its own grid
    EXPECT_EQ(held.use_count(), 1);
    advance(0.001);
    EXPECT_THAT(starts, ElementsAre(2020));
}

TEST_F(ManagerTest, ControllerThatARunningTaskStillBuildsIsDeletedToo) {
    EnergyManager::LaunchApp();
    advance(0.5);
    EnergyManager::Finalize();
    EXPECT_THAT(workerLines(),
                ElementsAre("start DefrostDelay Thread!!", "stop DefrostDelay Thread!!"));
    EXPECT_EQ(loggedAtMs("start DefrostDelay Thread!!"), 1000);
    EXPECT_EQ(loggedAtMs("stop DefrostDelay Thread!!"), 2000);
    EXPECT_EQ(controllers(), "---");
}

TEST_F(ManagerTest, EndDeletesTheGateThenTheControllersInTheirOrder) {
    EnergyManager::Initialize();
    advance(8);
    ASSERT_EQ(controllers(), "dre");
    fakes::clearRecords();
    EnergyManager::Finalize();
    std::vector<std::string> steps;
    for (const std::string &text : fakes::texts({Kind::Wifi, Kind::Log})) {
        if (text.starts_with("wifi_") || text.starts_with("stop ")) {
            steps.push_back(text);
        }
    }
    EXPECT_THAT(steps, ElementsAre("wifi_initialize", "wifi_unset_connection_state_changed_cb",
                                   "stop DefrostDelay Thread!!", "stop EnergyDR Thread!!",
                                   "stop EnergyReport Thread!!"));
}

TEST_F(ManagerTest, SecondFinalizeDoesNothing) {
    EnergyManager::Initialize();
    advance(1);
    EnergyManager::Finalize();
    const auto end = virtualtime::elapsedMs();
    fakes::clearRecords();
    EnergyManager::Finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), end);
    EXPECT_TRUE(fakes::trace().empty());
}

} // namespace
