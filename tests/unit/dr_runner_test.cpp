/*
 * The demand-response controller's start-up and its worker: loading the state, carrying out the
 * stored event in UTC, the repetition every ten minutes and the lines logged beside it.
 */
#include "controllers.h"

#include <algorithm>
#include <optional>

namespace {

using namespace controllers;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kSelect = "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1";

class DrRunner : public ControllerTest {
protected:
    using ControllerTest::ControllerTest;

    void TearDown() override {
        controller_.reset();
        ControllerTest::TearDown();
    }

    // A controller alone, constructed at this moment: its passes fall on this fraction of a second.
    void startAt(const std::string &utc) {
        controller_.reset();
        virtualtime::setClock(utc);
        fakes::clearRecords();
        controller_ = std::make_unique<EnergyDR>();
    }
    EnergyDR &alone() { return *controller_; }

    static void setKeys(int level, int override) {
        fakes::settings::set(kDrLevel, level);
        fakes::settings::set(kDrOverride, override);
    }

    std::unique_ptr<EnergyDR> controller_;
};

// ---- Start-up ----

TEST_F(DrRunner, StartUpRestoresTheStateThenReadsTheEventThenRegisters) {
    setKeys(3, 1);
    startAt("2026-05-01T10:03:00");
    EXPECT_THAT(
        fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql, Kind::Watch, Kind::Proxy}),
        ElementsAre(
            command("LEVEL3"), setting(kDrOverride, 1), "SendOverrideNotify(1)",
            "CREATE TABLE IF NOT EXISTS dr_usage_table(\t\t\t   rowid INTEGER PRIMARY KEY "
            "AUTOINCREMENT,\t\t\t   drlcLevel NUMERIC(4) NOT NULL, \t\t\t   duration TEXT NOT "
            "NULL, \t\t\t   drlcStartTime TEXT NOT NULL);",
            kSelect, kSelect, "SendDefrostBlockNotify(0)", fakes::kMicomLevel,
            "KestRegisterControlOverrideFunc", "KestRegisterControlDRLCFunc",
            "KestRegisterGetDRLCOverrideFunc", "KestRegisterGetDefrostBlockFunc"));
}

TEST_F(DrRunner, EachUseOfTheTableHasAConnectionOfItsOwn) {
    startAt("2026-05-01T10:03:00");
    EXPECT_THAT(storageCalls(), ElementsAre("open", "exec", "close", "open", "prepare", "close",
                                            "open", "prepare", "close"));
    EXPECT_EQ(fakes::storage::openConnections(), 0);
}

TEST_F(DrRunner, HandlersAreInstalledByTheController) {
    startAt("2026-05-01T10:03:00");
    const fakes::proxy::Handlers handlers = fakes::proxy::handlers();
    EXPECT_NE(handlers.controlDrlc, nullptr);
    EXPECT_NE(handlers.controlOverride, nullptr);
    EXPECT_NE(handlers.getDrlcOverride, nullptr);
    EXPECT_NE(handlers.getDefrostBlock, nullptr);
}

TEST_F(DrRunner, LastReportedLevelIsCommandedAgainButStaysUnconfirmed) {
    setKeys(2, 0);
    startAt("2026-05-01T10:03:00");
    EXPECT_EQ(alone().getSendLevel(), 2);
    EXPECT_EQ(alone().getLevel(), -1);
    EXPECT_THAT(fakes::settings::history(kDrLevel), IsEmpty());
}

struct Restored {
    std::optional<int> level;
    std::optional<int> override;
    int sendLevelExpected;
    int overrideExpected;
    Texts effectsExpected;
};

TEST_F(DrRunner, OverrideThatCannotBeReadTakesTheLevelsValue) {
    const std::string normal = command("LEVEL_NORMAL");
    const std::vector<Restored> cases{
        {{}, {}, 0, 0, {normal, setting(kDrOverride, 0), "SendOverrideNotify(0)"}},
        {3, {}, 3, 3, {command("LEVEL3"), setting(kDrOverride, 3)}},
        {1, {}, 1, 1, {command("LEVEL1"), setting(kDrOverride, 1), "SendOverrideNotify(1)"}},
        {{}, 1, 0, 1, {normal, setting(kDrOverride, 1), "SendOverrideNotify(1)"}},
        {4, 0, 4, 0, {command("LEVEL4"), setting(kDrOverride, 0), "SendOverrideNotify(0)"}},
        {-1, -1, -1, -1, {setting(kDrOverride, -1)}},
        {9, 2, 9, 2, {setting(kDrOverride, 2)}},
    };
    for (const Restored &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.level) + testing::PrintToString(one.override));
        controller_.reset();
        setKeys(one.level.value_or(0), one.override.value_or(0));
        fakes::settings::failReads(kDrLevel, one.level ? 0 : fakes::settings::kAlways);
        fakes::settings::failReads(kDrOverride, one.override ? 0 : fakes::settings::kAlways);
        startAt("2026-05-01T10:03:00");
        EXPECT_EQ(alone().getSendLevel(), one.sendLevelExpected);
        EXPECT_EQ(alone().getOverride(), one.overrideExpected);
        Texts expected = one.effectsExpected;
        expected.push_back("SendDefrostBlockNotify(0)");
        EXPECT_EQ(effects(), expected);
    }
}

TEST_F(DrRunner, StoredEventBlocksDefrostDelayFromTheStart) {
    const std::vector<std::pair<std::string, int>> cases{{"2", 1}, {"4", 1}, {"0", 0}};
    for (const auto &[level, block] : cases) {
        SCOPED_TRACE(level);
        storeEvent(level, "01:00:00", "2026-05-01T14:00:00");
        startAt("2026-05-01T10:03:00");
        EXPECT_EQ(alone().getBlock(), block);
        EXPECT_EQ(fakes::proxy::notifications().back(),
                  "SendDefrostBlockNotify(" + std::to_string(block) + ")");
    }
}

TEST_F(DrRunner, LoadingLogsStartLevelAndDuration) {
    storeEvent("2", "01:00:00", "2026-05-01T14:00:00");
    startAt("2026-05-01T10:03:00");
    fakes::clearRecords();
    alone().loadSchedule();
    EXPECT_THAT(messagesOf("EnergyDR.cpp"), ElementsAre("drlcStartTime : 2026-05-01T14:00:00",
                                                        "drlcLevel : 2", "duration : 01:00:00"));
    EXPECT_EQ(priorityOf("drlcLevel : 2"), DLOG_DEBUG);
    EXPECT_THAT(fieldsOf(alone().getSchedule()),
                ElementsAre("0", "2", "01:00:00", "2026-05-01T14:00:00"));
}

TEST_F(DrRunner, WithoutAnEventLoadingLogsEmptyTexts) {
    startAt("2026-05-01T10:03:00");
    fakes::clearRecords();
    alone().loadSchedule();
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre("drlcStartTime : ", "drlcLevel : ", "duration : "));
}

TEST_F(DrRunner, WhetherThereIsAnEventIsReadFromTheTableNotFromTheCopy) {
    startAt("2026-05-01T10:03:00");
    EXPECT_FALSE(alone().haveSchedule());
    storeEvent("1", "01:00:00", "2026-05-01T14:00:00");
    EXPECT_TRUE(alone().haveSchedule());
    EXPECT_EQ(alone().getSchedule().drlcLevel, "");
    storeEvent("0", "01:00:00", "2026-05-01T14:00:00");
    EXPECT_FALSE(alone().haveSchedule());
}

TEST_F(DrRunner, OfTwoRowsTheHighestIsTheEvent) {
    storeEvent("1", "01:00:00", "2026-05-01T14:00:00");
    fakes::storage::execute(
        kFile, "INSERT INTO dr_usage_table VALUES (7, '3', '02:00:00', '2026-05-01T16:00:00')");
    startAt("2026-05-01T10:03:00");
    EXPECT_THAT(fieldsOf(alone().getSchedule()),
                ElementsAre("7", "3", "02:00:00", "2026-05-01T16:00:00"));
}

TEST_F(DrRunner, RepeatedStartUpKeepsOneRegistrationOfTheEcho) {
    startAt("2026-05-01T10:03:00");
    alone()._initialize();
    EXPECT_EQ(fakes::settings::registrations(fakes::kMicomLevel), 1);
}

TEST_F(DrRunner, EchoIsRegisteredForTheControllerItself) {
    startAt("2026-05-01T10:03:00");
    auto other = std::make_unique<EnergyDR>();
    EXPECT_EQ(fakes::settings::registrations(fakes::kMicomLevel), 2);
    other.reset();
}

// ---- The worker's life ----

TEST_F(DrRunner, WorkerSaysWhenItStartsAndStops) {
    startAt("2026-05-01T10:03:00");
    EXPECT_FALSE(fakes::log::has("start EnergyDR Thread!!"));
    advance(0);
    EXPECT_EQ(priorityOf("start EnergyDR Thread!!"), DLOG_INFO);
    advance(5.3);
    EXPECT_FALSE(fakes::log::has("stop EnergyDR Thread!!"));
    controller_.reset();
    EXPECT_EQ(priorityOf("stop EnergyDR Thread!!"), DLOG_INFO);
    EXPECT_THAT(timesOfLog("stop EnergyDR Thread!!"), ElementsAre("2026-05-01T10:03:06"));
}

TEST_F(DrRunner, StoppedWorkerDoesNoFurtherPass) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:06");
    startAt("2026-05-01T10:03:00");
    advance(5.5);
    controller_.reset(); // the worker wakes at the start of the event
    EXPECT_THAT(timesOfCommand("LEVEL2"), IsEmpty());
}

TEST_F(DrRunner, NothingIsReadFromTheTableWhileNothingChanges) {
    storeEvent("2", "01:00:00", "2026-05-01T12:00:00");
    startAt("2026-05-01T10:03:00");
    advance(0.5);
    fakes::clearRecords();
    advance(3600);
    EXPECT_THAT(storageCalls(), IsEmpty());
}

TEST_F(DrRunner, PassThatWasHeldUpIsNotCaughtUpWith) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:10");
    startAt("2026-05-01T10:03:00");
    advance(0.5);
    // Another process holds the file; who asks for the event keeps the mutex, the worker waits.
    auto file =
        std::make_unique<fakes::storage::Lock>(kFile, fakes::storage::Lock::Kind::Exclusive);
    std::thread asking([this] { alone().haveSchedule(); });
    advance(0.9);
    file.reset();
    asking.join();
    advanceTo("2026-05-01T10:03:10.1");
    EXPECT_THAT(timesOfCommand("LEVEL2"), IsEmpty()); // the passes have moved off the full seconds
    advance(1);
    EXPECT_THAT(timesOfCommand("LEVEL2"), ElementsAre("2026-05-01T10:03:10"));
}

// ---- The repetition ----

TEST_F(DrRunner, CommandIsRepeatedAtEveryTenthMinuteWithoutAnEvent) {
    startAt("2026-05-01T10:03:00");
    advance(3600);
    EXPECT_THAT(timesOfCommand("LEVEL_NORMAL"),
                ElementsAre("2026-05-01T10:03:00", // start-up
                            "2026-05-01T10:10:00", "2026-05-01T10:20:00", "2026-05-01T10:30:00",
                            "2026-05-01T10:40:00", "2026-05-01T10:50:00", "2026-05-01T11:00:00"));
}

TEST_F(DrRunner, CommandIsRepeatedWithTheMutexHeld) {
    startAt("2026-05-01T10:03:00");
    advanceTo("2026-05-01T10:09:59.995");
    EXPECT_TRUE(waitsWhileAt(command("LEVEL_NORMAL"), [this] { alone().getLevel(); }));
}

TEST_F(DrRunner, PersistedLevelIsWhatIsRepeated) {
    setKeys(3, 0);
    startAt("2026-05-01T10:09:58.4");
    advance(900);
    EXPECT_THAT(timesOfCommand("LEVEL3"),
                ElementsAre("2026-05-01T10:09:58", "2026-05-01T10:10:00", "2026-05-01T10:20:00"));
}

TEST_F(DrRunner, UnknownLevelIsNotRepeated) {
    setKeys(-1, 0);
    startAt("2026-05-01T10:03:00");
    advance(3600);
    EXPECT_THAT(micomCommands(), IsEmpty());
}

TEST_F(DrRunner, FirstPassInATenthMinuteRepeatsAtOnceAndNoMoreInThatMinute) {
    startAt("2026-05-01T10:10:30");
    advance(29);
    EXPECT_THAT(timesOfCommand("LEVEL_NORMAL"),
                ElementsAre("2026-05-01T10:10:30", "2026-05-01T10:10:30"));
}

TEST_F(DrRunner, RepetitionFollowsTheMinuteOfUtc) {
    setZone("Asia/Kathmandu"); // 5:45 ahead, so its tenth minutes are other ones
    startAt("2026-05-01T10:03:00");
    advance(600);
    EXPECT_THAT(timesOfCommand("LEVEL_NORMAL"),
                ElementsAre("2026-05-01T10:03:00", "2026-05-01T10:10:00"));
}

TEST_F(DrRunner, AbsenceOfAnEventIsLoggedOnTheFirstPassAfterATenthMinute) {
    startAt("2026-05-01T10:03:00");
    advance(3600);
    EXPECT_THAT(timesOfLog("No have DR Schedule"),
                ElementsAre("2026-05-01T10:11:00", "2026-05-01T10:21:00", "2026-05-01T10:31:00",
                            "2026-05-01T10:41:00", "2026-05-01T10:51:00", "2026-05-01T11:01:00"));
    EXPECT_EQ(priorityOf("No have DR Schedule"), DLOG_DEBUG);
}

TEST_F(DrRunner, AbsenceOfAnEventIsNotLoggedOnTheFirstPass) {
    for (const char *start : {"2026-05-01T10:10:00", "2026-05-01T10:11:00"}) {
        startAt(start);
        advance(30);
        EXPECT_FALSE(fakes::log::has("No have DR Schedule")) << start;
    }
}

TEST_F(DrRunner, StoredLevelOfZeroIsNoEvent) {
    storeEvent("0", "01:00:00", "2026-05-01T10:00:00");
    startAt("2026-05-01T10:09:30");
    advance(120);
    EXPECT_TRUE(fakes::log::has("No have DR Schedule"));
    EXPECT_FALSE(fakes::log::has("DR] Complete Active Time"));
}

// ---- The event ----

struct Interval {
    const char *start;
    const char *duration;
    const char *end;
};

class DrInterval : public DrRunner, public testing::WithParamInterface<const char *> {};

// The level is commanded at the start exactly; at the end exactly nothing happens; a second later
// all is over.
TEST_P(DrInterval, EventRunsFromItsStartToItsEndInUtcWhateverTheZone) {
    setZone(GetParam());
    for (const auto &[start, duration, end] : std::vector<Interval>{
             {"2026-05-01T14:00:00", "01:00:00", "2026-05-01T15:00:00"},
             {"2026-05-01T14:05:07", "01:02:03", "2026-05-01T15:07:10"},
             {"2026-05-01T14:05:07", "00:00:05", "2026-05-01T14:05:12"},
             {"2026-05-01T23:30:00", "23:59:59", "2026-05-02T23:29:59"},
             {"2026-12-31T23:00:00", "04:30:00", "2027-01-01T03:30:00"}, // year end
             {"2028-02-28T23:59:30", "00:01:00", "2028-02-29T00:00:30"}, // leap day
             {"2028-02-29T23:00:00", "02:00:00", "2028-03-01T01:00:00"},
             {"2027-02-28T23:00:00", "02:00:00", "2027-03-01T01:00:00"},
             {"2026-03-29T00:30:00", "03:00:00",
              "2026-03-29T03:30:00"}, // Berlin's clocks go forward
             {"2026-10-25T00:30:00", "03:00:00", "2026-10-25T03:30:00"}, // and back
             {"2026-03-08T06:30:00", "01:00:00", "2026-03-08T07:30:00"}, // New York's forward
             {"2026-11-01T05:30:00", "01:00:00", "2026-11-01T06:30:00"}, // and back
         }) {
        SCOPED_TRACE(std::string(start) + " + " + duration);
        setKeys(0, 0);
        storeEvent("2", duration, start);
        startAt(virtualtime::formatUtc(virtualtime::parseUtc(start) - 2'000'000'000));
        advance(3);
        const Texts commanded = timesOfCommand("LEVEL2");
        ASSERT_THAT(commanded, Not(IsEmpty()));
        EXPECT_EQ(commanded.front(), start);

        virtualtime::setClock(virtualtime::formatUtc(virtualtime::parseUtc(end) - 2'000'000'000));
        advance(2);
        EXPECT_EQ(virtualtime::nowUtc(), end);
        EXPECT_FALSE(fakes::log::has("DR] Complete Active Time"));
        EXPECT_EQ(storedEvents().size(), 1U);
        advance(2);
        EXPECT_THAT(
            timesOfLog("DR] Complete Active Time"),
            ElementsAre(virtualtime::formatUtc(virtualtime::parseUtc(end) + 1'000'000'000)));
        EXPECT_THAT(storedEvents(), IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, DrInterval,
                         testing::Values("UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"),
                         [](const auto &zone) {
                             std::string name = zone.param;
                             std::replace(name.begin(), name.end(), '/', '_');
                             return name;
                         });

TEST_F(DrRunner, EventInTheFutureDoesNothingUntilItsStart) {
    storeEvent("2", "01:00:00", "2026-05-01T10:08:00");
    startAt("2026-05-01T10:03:00");
    advance(0.5);
    fakes::clearRecords();
    advanceTo("2026-05-01T10:07:59.9");
    EXPECT_THAT(fakes::texts(), IsEmpty());
}

TEST_F(DrRunner, PassBetweenTheSecondsStartsTheEventUpToASecondLate) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:05");
    startAt("2026-05-01T10:03:00.4");
    advanceTo("2026-05-01T10:03:05.3");
    EXPECT_EQ(alone().getSendLevel(), 0);
    advanceTo("2026-05-01T10:03:05.4");
    EXPECT_EQ(alone().getSendLevel(), 2);
}

TEST_F(DrRunner, StartIsLoggedWithItsEndAndLevel) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:05");
    startAt("2026-05-01T10:03:00");
    advance(1);
    fakes::clearRecords();
    advanceTo("2026-05-01T10:03:07");
    EXPECT_THAT(fakes::texts(),
                ElementsAre(" [UTC] Send Time : Fri May  1 10:03:05 2026\n",
                            "Send To Micom Info that SET_SMARTGRID_LEVEL2", command("LEVEL2"),
                            "DR] Active Time Until Fri May  1 11:03:05 2026\n", "DR] SendLevel 2"));
    EXPECT_EQ(priorityOf("DR] Active Time Until Fri May  1 11:03:05 2026\n"), DLOG_DEBUG);
    EXPECT_EQ(priorityOf("DR] SendLevel 2"), DLOG_DEBUG);
}

TEST_F(DrRunner, StartOnATenthMinuteCommandsByTheStartAndByTheRepetition) {
    storeEvent("2", "01:00:00", "2026-05-01T10:10:00");
    startAt("2026-05-01T10:09:57");
    advance(10);
    EXPECT_THAT(timesOfCommand("LEVEL2"),
                ElementsAre("2026-05-01T10:10:00", "2026-05-01T10:10:00"));
}

TEST_F(DrRunner, LevelIsCommandedOnceThenRepeatedEveryTenMinutesUntilTheEnd) {
    storeEvent("4", "00:25:00", "2026-05-01T10:05:00");
    startAt("2026-05-01T10:03:00");
    advanceTo("2026-05-01T10:41:00");
    EXPECT_THAT(timesOfCommand("LEVEL4"),
                ElementsAre("2026-05-01T10:05:00", "2026-05-01T10:10:00", "2026-05-01T10:20:00",
                            "2026-05-01T10:30:00"));
    EXPECT_THAT(timesOfCommand("LEVEL_NORMAL"),
                ElementsAre("2026-05-01T10:03:00", "2026-05-01T10:30:01", "2026-05-01T10:40:00"));
}

TEST_F(DrRunner, LevelOutsideTheCommandsIsTakenOverSilently) {
    storeEvent("7", "00:00:10", "2026-05-01T10:03:05");
    startAt("2026-05-01T10:03:00");
    advance(1);
    fakes::clearRecords();
    advanceTo("2026-05-01T10:03:14");
    EXPECT_EQ(alone().getSendLevel(), 7);
    EXPECT_THAT(effects(), IsEmpty());
    EXPECT_EQ(fakes::log::count("DR] SendLevel 7"), 1);
}

TEST_F(DrRunner, EndIsReportedOnceAndResetsEverything) {
    storeEvent("2", "00:00:10", "2026-05-01T10:03:05");
    startAt("2026-05-01T10:03:00");
    advanceTo("2026-05-01T10:03:15");
    fakes::clearRecords();
    advance(5);
    EXPECT_THAT(fakes::texts({Kind::Setting, Kind::Notification}),
                ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"),
                            "SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
    EXPECT_EQ(messagesOf("EnergyDR.cpp").front(), "DR] Complete Active Time");
    EXPECT_EQ(fakes::log::count("DR] Complete Active Time"), 1);
    EXPECT_EQ(priorityOf("DR] Complete Active Time"), DLOG_DEBUG);
    EXPECT_EQ(alone().getSchedule().drlcLevel, "");
}

TEST_F(DrRunner, EventWhoseEndIsThisVeryMomentIsNeitherStartedNorOver) {
    storeEvent("3", "01:00:00", "2026-05-01T09:03:00");
    startAt("2026-05-01T10:03:00");
    advance(0);
    EXPECT_THAT(micomCommands(), ElementsAre("SET_SMARTGRID_LEVEL_NORMAL"));
    EXPECT_EQ(alone().getSendLevel(), 0);
    EXPECT_EQ(storedEvents().size(), 1U);
    advance(1);
    EXPECT_THAT(storedEvents(), IsEmpty());
}

TEST_F(DrRunner, EventThatEndedWhileTheServiceWasAwayIsOverOnTheFirstPass) {
    setKeys(3, 0);
    storeEvent("3", "01:00:00", "2026-04-30T10:00:00");
    startAt("2026-05-01T10:03:00");
    EXPECT_EQ(alone().getBlock(), 1);
    advance(0);
    EXPECT_THAT(micomCommands(), ElementsAre("SET_SMARTGRID_LEVEL3", "SET_SMARTGRID_LEVEL_NORMAL"));
    EXPECT_EQ(alone().getBlock(), 0);
    EXPECT_THAT(storedEvents(), IsEmpty());
}

TEST_F(DrRunner, RestartDuringAnEventWhoseLevelWasConfirmedSendsNothingFurther) {
    setKeys(2, 0);
    storeEvent("2", "01:00:00", "2026-05-01T10:00:00");
    startAt("2026-05-01T10:03:00");
    advanceTo("2026-05-01T10:10:30");
    EXPECT_THAT(timesOfCommand("LEVEL2"),
                ElementsAre("2026-05-01T10:03:00", "2026-05-01T10:10:00"));
    EXPECT_FALSE(fakes::log::has("DR] SendLevel 2"));
}

TEST_F(DrRunner, RestartDuringAnEventWithAnotherLevelConfirmedCommandsTheEventsLevel) {
    setKeys(1, 0);
    storeEvent("2", "01:00:00", "2026-05-01T10:00:00");
    startAt("2026-05-01T10:03:00");
    advance(5);
    EXPECT_THAT(micomCommands(), ElementsAre("SET_SMARTGRID_LEVEL1", "SET_SMARTGRID_LEVEL2"));
    EXPECT_EQ(fakes::log::count("DR] SendLevel 2"), 1);
}

// ---- Lines logged after each tenth minute ----

TEST_F(DrRunner, WaitingEventIsLoggedAfterEachTenthMinute) {
    storeEvent("2", "01:00:00", "2026-05-01T12:00:00");
    startAt("2026-05-01T10:09:30");
    advanceTo("2026-05-01T10:10:59.5");
    EXPECT_FALSE(fakes::log::has(" [UTC]start : Fri May  1 12:00:00 2026\n"));
    fakes::clearRecords();
    advanceTo("2026-05-01T10:20:59.5");
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre(" [UTC]current : Fri May  1 10:11:00 2026\n",
                            " [UTC]start : Fri May  1 12:00:00 2026\n",
                            " [UTC]end : Fri May  1 13:00:00 2026\n"));
    EXPECT_EQ(priorityOf(" [UTC]end : Fri May  1 13:00:00 2026\n"), DLOG_DEBUG);
}

TEST_F(DrRunner, RunningEventIsLoggedAfterEachTenthMinute) {
    storeEvent("2", "01:00:00", "2026-05-01T10:05:00");
    startAt("2026-05-01T10:09:30");
    advanceTo("2026-05-01T10:10:59.5");
    fakes::clearRecords();
    advanceTo("2026-05-01T10:20:59.5");
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre(" [UTC]current : Fri May  1 10:11:00 2026\n",
                            " [UTC]start : Fri May  1 10:05:00 2026\n",
                            " [UTC]end : Fri May  1 11:05:00 2026\n",
                            "DR] Current : Fri May  1 10:11:00 2026\n",
                            "DR] Active Time Until Fri May  1 11:05:00 2026\n", "DR] SendLevel 2"));
}

TEST_F(DrRunner, StartAfterATenthMinuteIsLoggedTwiceWithTheCommandFirst) {
    storeEvent("2", "01:00:00", "2026-05-01T10:11:00");
    startAt("2026-05-01T10:09:30");
    advanceTo("2026-05-01T10:10:59.5");
    fakes::clearRecords();
    advance(2);
    const std::string until = "DR] Active Time Until Fri May  1 11:11:00 2026\n";
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre(" [UTC]current : Fri May  1 10:11:00 2026\n",
                            " [UTC]start : Fri May  1 10:11:00 2026\n",
                            " [UTC]end : Fri May  1 11:11:00 2026\n", until, "DR] SendLevel 2",
                            "DR] Current : Fri May  1 10:11:00 2026\n", until, "DR] SendLevel 2"));
}

TEST_F(DrRunner, EndAfterATenthMinuteIsLoggedWithoutTheLinesOfARunningEvent) {
    storeEvent("2", "00:05:59", "2026-05-01T10:05:00");
    startAt("2026-05-01T10:09:30");
    advanceTo("2026-05-01T10:10:59.5");
    fakes::clearRecords();
    advance(1);
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre(" [UTC]current : Fri May  1 10:11:00 2026\n",
                            " [UTC]start : Fri May  1 10:05:00 2026\n",
                            " [UTC]end : Fri May  1 10:10:59 2026\n", "DR] Complete Active Time",
                            "DR] Info that is changed Level send KestD : 0"));
}

// ---- Beside the defrost-delay controller ----

class DrBesideDefrost : public DrRunner {
protected:
    // All controllers, defrost delay on and active at once: its reservation covers the whole year.
    void launchWithDefrostActive() {
        fakes::settings::set(kDefrostStatus, 1);
        launch();
        fakes::storage::execute(kFile, "INSERT INTO defrost_usage_table VALUES (2, 'always', "
                                       "'0000-01-01T00:00:00', '0000-12-31T00:00:00', '23:59:59')");
        defrost().initSchedules();
        advance(1.2);
        ASSERT_EQ(defrost().getActive(), 1);
        fakes::clearRecords();
    }
};

TEST_F(DrBesideDefrost, StartDropsDefrostDelayBeforeTheLevelIsCommanded) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:20");
    launchWithDefrostActive();
    advanceTo("2026-05-01T10:03:30");
    EXPECT_THAT(effects(), ElementsAre(setting(kDefrostActivate, 0), command("DISABLE"),
                                       setting(kDefrostStatus, 0), "SendDelayDefrostNotify(false)",
                                       command("LEVEL2")));
}

TEST_F(DrBesideDefrost, EventOfTheCommandedLevelLeavesDefrostDelayAloneAndStillResetsAtItsEnd) {
    fakes::settings::set(kDrLevel, 2);
    storeEvent("2", "00:01:00", "2026-05-01T10:03:20");
    launchWithDefrostActive();
    advanceTo("2026-05-01T10:04:20");
    EXPECT_THAT(effects(), IsEmpty());
    EXPECT_EQ(defrost().getEnable(), 1);
    advance(2);
    EXPECT_THAT(effects(), ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"),
                                       "SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
}

TEST_F(DrBesideDefrost, RestartWithAnotherLevelDropsDefrostDelayAgain) {
    fakes::settings::set(kDefrostStatus, 1);
    fakes::settings::set(kDrLevel, 1);
    storeEvent("2", "01:00:00", "2026-05-01T10:00:00");
    launch();
    EXPECT_EQ(defrost().getEnable(), 0);
    EXPECT_EQ(dr().getSendLevel(), 2);
}

TEST_F(DrRunner, EventRunsWithoutADefrostController) {
    storeEvent("2", "01:00:00", "2026-05-01T10:03:05");
    startAt("2026-05-01T10:03:00");
    advance(6);
    EXPECT_EQ(EnergyManager::GetDefrostDelay(), nullptr);
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL2");
}

// ---- What ends the process ----

class DrRunnerDeath : public DrRunner {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        DrRunner::SetUp();
    }
};

TEST_F(DrRunnerDeath, MalformedStoredEventEndsTheProcess) {
    struct Malformed {
        const char *level;
        const char *duration;
        const char *start;
        const char *error;
    };
    const char *past = "2026-05-01T10:00:00";
    for (const auto &[level, duration, start, error] : std::vector<Malformed>{
             {"2", "01", past, "out_of_range.*\n.*which is 3"},
             {"2", "01:00", past, "out_of_range.*\n.*which is 6"},
             {"2", "xx:00:00", past, "invalid_argument"},
             {"2", "01:xx:00", past, "invalid_argument"},
             {"2", "01:00:xx", past, "invalid_argument"},
             {"2", "01", "2030-01-01T00:00:00", "out_of_range"}, // also while it waits
             {"abc", "01:00:00", past, "invalid_argument"},
         }) {
        EXPECT_DEATH(
            {
                storeEvent(level, duration, start);
                startAt("2026-05-01T10:03:00");
                advance(1);
            },
            error)
            << level << " " << duration;
    }
}

TEST_F(DrRunner, LevelThatIsNoNumberIsReadOnlyOnceTheEventRuns) {
    storeEvent("abc", "01:00:00", "2030-01-01T00:00:00");
    startAt("2026-05-01T10:03:00");
    advance(5);
    EXPECT_EQ(alone().getSchedule().drlcLevel, "abc");
    EXPECT_EQ(alone().getSendLevel(), 0);
}

TEST_F(DrRunner, TwoDigitsOfADurationAreReadAsFarAsTheyAreDigits) {
    storeEvent("2", "0x:1y:2z", "2026-05-01T10:03:05"); // 0 hours, 1 minute, 2 seconds
    startAt("2026-05-01T10:03:00");
    advance(75);
    EXPECT_THAT(timesOfLog("DR] Complete Active Time"), ElementsAre("2026-05-01T10:04:08"));
}

} // namespace
