/*
 * The demand-response controller's state: accessors with their side effects, the commands to the
 * Micom, the reset, the Micom's level echo, and the end of the controller.
 */
#include "controllers.h"

namespace {

using namespace controllers;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kCreate =
    "CREATE TABLE IF NOT EXISTS dr_usage_table(\t\t\t   rowid INTEGER PRIMARY KEY "
    "AUTOINCREMENT,\t\t\t   drlcLevel NUMERIC(4) NOT NULL, \t\t\t   duration TEXT NOT "
    "NULL, \t\t\t   drlcStartTime TEXT NOT NULL);";

class DrState : public ControllerTest {
protected:
    // A controller alone, its first pass done, the next one half a second away.
    void SetUp() override {
        ControllerTest::SetUp();
        startLoop();
        controller_ = std::make_unique<EnergyDR>();
        advance(0.5);
        fakes::clearRecords();
    }
    void TearDown() override {
        controller_.reset();
        ControllerTest::TearDown();
    }
    EnergyDR &dr() { return *controller_; }

    std::unique_ptr<EnergyDR> controller_;
};

TEST_F(DrState, LevelIsUnknownAndEverythingElseOffBeforeAnythingWasEverReported) {
    EXPECT_EQ(dr().getLevel(), -1);
    EXPECT_EQ(dr().getOverride(), 0);
    EXPECT_EQ(dr().getSendLevel(), 0);
    EXPECT_EQ(dr().getBlock(), 0);
    EXPECT_THAT(fieldsOf(dr().getSchedule()), ElementsAre("", "", "", ""));
}

TEST_F(DrState, OverrideIsPersistedAndLoggedAndAnnouncedOnlyWhenOffOrOn) {
    for (const int value : {0, 1, 2, -1}) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        const std::string number = std::to_string(value);
        const std::string message = "DR] Info that is changed Override send KestD : " + number;
        EXPECT_EQ(dr().setOverride(value), 0);
        EXPECT_EQ(dr().getOverride(), value);
        Texts expected{setting(kDrOverride, value), message};
        if (value == 0 || value == 1) {
            expected.push_back("SendOverrideNotify(" + number + ")");
        }
        EXPECT_EQ(fakes::texts(), expected);
        EXPECT_EQ(priorityOf(message), DLOG_DEBUG);
    }
}

TEST_F(DrState, MutexThatCannotBeLockedRaisesTheStandardErrorAndChangesNothing) {
    dr().setLevel(1);
    for (const std::function<void()> &operation : std::vector<std::function<void()>>{
             [this] { dr().getLevel(); }, [this] { dr().getSchedule(); },
             [this] { dr().setLevel(2); }, [this] { dr().setOverride(1); },
             [this] { dr().setBlock(1); }, [this] { dr().setSendLevel(3); },
             [this] { dr().isActiveInit(); }}) {
        fakes::clearRecords();
        virtualtime::failLocks(1);
        EXPECT_THROW(operation(), std::system_error);
        EXPECT_THAT(fakes::texts({fakes::Kind::Setting, fakes::Kind::Notification}), IsEmpty());
    }
    EXPECT_EQ(dr().getLevel(), 1);
}

TEST_F(DrState, SettingTheOverrideAnswersWhatItsAnnouncementDoesAndZeroWithoutOne) {
    fakes::proxy::answerNotifications(-7);
    EXPECT_EQ(dr().setOverride(0), -7);
    EXPECT_EQ(dr().setOverride(1), -7);
    EXPECT_EQ(dr().setOverride(2), 0);
}

TEST_F(DrState, ConfirmedLevelIsPersistedLoggedAndAnnouncedWhateverItIsAndNeverCommanded) {
    for (const int value : {3, 0, 1, 2, 4, 5, -1, 99}) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        const std::string number = std::to_string(value);
        const std::string message = "DR] Info that is changed Level send KestD : " + number;
        dr().setLevel(value);
        EXPECT_EQ(dr().getLevel(), value);
        EXPECT_THAT(fakes::texts(), ElementsAre(setting(kDrLevel, value), message,
                                                "SendDRLCNotify(" + number + ")"));
        EXPECT_EQ(priorityOf(message), DLOG_DEBUG);
    }
    EXPECT_EQ(dr().getSendLevel(), 0);
}

TEST_F(DrState, BlockIsAnnouncedBetweenItsLogLinesEvenWhenUnchanged) {
    for (const int value : {1, 1, 0, -1}) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        const std::string number = std::to_string(value);
        dr().setBlock(value);
        EXPECT_EQ(dr().getBlock(), value);
        EXPECT_THAT(fakes::texts(),
                    ElementsAre("EnergyDR::setBlock()",
                                "DR] Info that is changed Block send KestD : " + number,
                                "SendDefrostBlockNotify(" + number + ")",
                                "EnergyDR::setBlock() End"));
        EXPECT_EQ(priorityOf("EnergyDR::setBlock()"), DLOG_INFO);
        EXPECT_EQ(priorityOf("DR] Info that is changed Block send KestD : " + number), DLOG_DEBUG);
        EXPECT_EQ(priorityOf("EnergyDR::setBlock() End"), DLOG_INFO);
    }
}

TEST_F(DrState, BlockSaysThatItComesBeforeItWaitsForTheMutex) {
    EXPECT_TRUE(waitsForMutex([this] { dr().haveSchedule(); },
                              [this] {
                                  dr().setBlock(1);
                                  EXPECT_GT(virtualtime::elapsedMs(), 520);
                              }));
    const fakes::log::Line first = fakes::log::find("EnergyDR::setBlock()");
    const fakes::log::Line last = fakes::log::find("EnergyDR::setBlock() End");
    EXPECT_EQ(first.utcNs, virtualtime::parseUtc("2026-05-01T10:03:00.51"));
    EXPECT_GT(last.utcNs, first.utcNs);
}

TEST_F(DrState, CommandedLevelIsSentButNeitherPersistedNorAnnounced) {
    const std::vector<std::pair<int, Texts>> cases{{0, {command("LEVEL_NORMAL")}},
                                                   {1, {command("LEVEL1")}},
                                                   {2, {command("LEVEL2")}},
                                                   {3, {command("LEVEL3")}},
                                                   {4, {command("LEVEL4")}},
                                                   {5, {}},
                                                   {-1, {}},
                                                   {100, {}}};
    for (const auto &[level, expected] : cases) {
        SCOPED_TRACE(level);
        fakes::clearRecords();
        dr().setSendLevel(level);
        EXPECT_EQ(dr().getSendLevel(), level);
        EXPECT_EQ(effects(), expected);
    }
    EXPECT_EQ(dr().getLevel(), -1);
}

TEST_F(DrState, CommandIsLoggedWithItsTime) {
    dr().setSendLevel(1);
    EXPECT_THAT(fakes::texts(),
                ElementsAre(" [UTC] Send Time : Fri May  1 10:03:00 2026\n",
                            "Send To Micom Info that SET_SMARTGRID_LEVEL1", command("LEVEL1")));
}

TEST_F(DrState, OverrideCommandIsForeverOrOffAndNothingElse) {
    const std::vector<std::pair<int, Texts>> cases{
        {1, {command("OVERRIDE_FOREVER")}}, {0, {command("OVERRIDE_OFF")}}, {2, {}}, {-1, {}}};
    for (const auto &[value, expected] : cases) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        dr()._sendToMicomInfoByOverride(value);
        EXPECT_EQ(effects(), expected);
    }
}

TEST_F(DrState, SettingsThatCannotBeWrittenStopNothing) {
    for (const char *key : {kDrLevel, kDrOverride, fakes::kMicomCommand}) {
        fakes::settings::failWrites(key);
    }
    dr().setLevel(2);
    dr().setOverride(1);
    dr().setSendLevel(2);
    EXPECT_THAT(effects(), ElementsAre("SendDRLCNotify(2)", "SendOverrideNotify(1)"));
    EXPECT_EQ(dr().getLevel(), 2);
    EXPECT_EQ(dr().getOverride(), 1);
    EXPECT_EQ(dr().getSendLevel(), 2);
    dr().isActiveInit();
    EXPECT_EQ(fakes::proxy::notifications().back(), "SendDRLCNotify(0)");
}

TEST_F(DrState, EveryLineGoesToThePlatformLogAndToStandardOutput) {
    dr().setBlock(1);
    dr().setLevel(3);
    dr().isActiveInit();
    dr().loadSchedule();
    ASSERT_GE(fakes::log::lines().size(), 9U);
    for (const fakes::log::Line &line : fakes::log::lines()) {
        EXPECT_EQ(line.buffer, LOG_ID_MAIN);
        EXPECT_EQ(line.tag, "corvane");
        const std::string at = line.function + ":" + std::to_string(line.line);
        EXPECT_THAT(standardOutput(), HasSubstr("[" + at + "] " + line.message + "\n"));
    }
    EXPECT_EQ(fakes::log::find("EnergyDR::setBlock()").file, "EnergyDR.cpp");
    EXPECT_EQ(fakes::log::find("EnergyDR::setBlock()").function, "setBlock");
}

// ---- The reset ----

class DrReset : public DrState {
protected:
    // An event that runs: level 3 commanded and confirmed, defrost blocked.
    void SetUp() override {
        DrState::SetUp();
        storeEvent("3", "01:00:00", "2026-05-01T10:00:00");
        dr().loadSchedule();
        dr().setSendLevel(3);
        dr().setLevel(3);
        dr().setBlock(1);
        fakes::clearRecords();
    }
};

TEST_F(DrReset, TableIsEmptiedThenTheLevelCommandedThenBlockAndLevelAnnounced) {
    dr().isActiveInit();
    EXPECT_THAT(fakes::texts(),
                ElementsAre("DELETE from dr_usage_table;",
                            "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1",
                            setting(kDrLevel, 0), " [UTC] Send Time : Fri May  1 10:03:00 2026\n",
                            "Send To Micom Info that SET_SMARTGRID_LEVEL_NORMAL",
                            command("LEVEL_NORMAL"), "SendDefrostBlockNotify(0)",
                            "DR] Info that is changed Level send KestD : 0", "SendDRLCNotify(0)"));
    EXPECT_EQ(priorityOf("DR] Info that is changed Level send KestD : 0"), DLOG_DEBUG);
}

TEST_F(DrReset, EverythingIsBackToNormal) {
    EXPECT_EQ(dr().getSchedule().drlcLevel, "3");
    dr().isActiveInit();
    EXPECT_EQ(dr().getLevel(), 0);
    EXPECT_EQ(dr().getSendLevel(), 0);
    EXPECT_EQ(dr().getBlock(), 0);
    EXPECT_THAT(fieldsOf(dr().getSchedule()), ElementsAre("", "", "", ""));
    EXPECT_THAT(storedEvents(), IsEmpty());
}

TEST_F(DrReset, OneConnectionServesBothStatementsAndIsClosedOnce) {
    dr().isActiveInit();
    EXPECT_THAT(storageCalls(), ElementsAre("open", "exec", "prepare", "close"));
    EXPECT_EQ(fakes::storage::openConnections(), 0);
}

TEST_F(DrReset, BlockThatIsClearAlreadyIsNotAnnouncedButTheLevelIs) {
    dr().setBlock(0);
    fakes::clearRecords();
    dr().isActiveInit();
    EXPECT_THAT(effects(),
                ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"), "SendDRLCNotify(0)"));
}

TEST_F(DrReset, UnknownBlockIsClearedAndAnnounced) {
    dr().setBlock(-1);
    fakes::clearRecords();
    dr().isActiveInit();
    EXPECT_THAT(fakes::proxy::notifications(),
                ElementsAre("SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
    EXPECT_EQ(dr().getBlock(), 0);
}

TEST_F(DrReset, RepeatedResetCommandsAndAnnouncesTheNormalLevelAgain) {
    dr().isActiveInit();
    fakes::clearRecords();
    dr().isActiveInit();
    EXPECT_THAT(effects(),
                ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"), "SendDRLCNotify(0)"));
}

// ---- The mutex ----

TEST_F(DrState, EveryOperationWaitsForTheControllersMutex) {
    const std::vector<std::pair<const char *, std::function<void()>>> operations{
        {"getOverride", [this] { dr().getOverride(); }},
        {"getLevel", [this] { dr().getLevel(); }},
        {"getSendLevel", [this] { dr().getSendLevel(); }},
        {"getBlock", [this] { dr().getBlock(); }},
        {"getSchedule", [this] { dr().getSchedule(); }},
        {"setOverride", [this] { dr().setOverride(1); }},
        {"setLevel", [this] { dr().setLevel(1); }},
        {"setBlock", [this] { dr().setBlock(1); }},
        {"setSendLevel", [this] { dr().setSendLevel(1); }},
        {"isActiveInit", [this] { dr().isActiveInit(); }},
        {"loadSchedule", [this] { dr().loadSchedule(); }},
        {"haveSchedule", [this] { dr().haveSchedule(); }},
        {"_sendToDB", [this] { dr()._sendToDB("2", "01:00:00", "12:00:00"); }},
        {"_deleteStored", [this] { dr()._deleteStored(); }}};
    for (const auto &[name, operation] : operations) {
        EXPECT_TRUE(waitsForMutex([this] { dr().haveSchedule(); }, operation)) << name;
    }
}

TEST_F(DrState, ResetHoldsTheMutexUntilItIsDone) {
    dr().setLevel(3);
    EXPECT_TRUE(
        waitsForMutex([this] { dr().isActiveInit(); }, [this] { EXPECT_EQ(dr().getLevel(), 0); }));
}

TEST_F(DrState, OperationsHoldTheMutexWhileTheyUseTheTableOrCommand) {
    const std::string select = "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1";
    const std::string insert = "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, "
                               "drlcStartTime) values('0', '2', '01:00:00', "
                               "'2026-05-01T12:00:00');";
    const std::vector<std::pair<std::string, std::function<void()>>> operations{
        {command("LEVEL1"), [this] { dr().setSendLevel(1); }},
        {insert, [this] { dr()._sendToDB("2", "01:00:00", "12:00:00"); }},
        {select, [this] { dr().loadSchedule(); }},
        {"duration : 01:00:00", [this] { dr().loadSchedule(); }}, // its last line
        {"DELETE from dr_usage_table;", [this] { dr()._deleteStored(); }}};
    for (const auto &[text, operation] : operations) {
        EXPECT_TRUE(waitsWhileAt(
            text, [this] { dr().getLevel(); }, operation))
            << text;
    }
}

TEST_F(DrState, StartUpHoldsTheMutexWhileItCreatesItsTable) {
    EXPECT_TRUE(waitsWhileAt(
        kCreate, [this] { dr().getLevel(); }, [this] { dr()._initialize(); }));
}

TEST_F(DrState, ScheduleIsHandedOutAsACopy) {
    storeEvent("2", "01:00:00", "2026-05-01T12:00:00");
    dr().loadSchedule();
    Corvane::drRecord copy = dr().getSchedule();
    dr().isActiveInit();
    EXPECT_THAT(fieldsOf(copy), ElementsAre("0", "2", "01:00:00", "2026-05-01T12:00:00"));
    copy.drlcLevel = "4";
    EXPECT_EQ(dr().getSchedule().drlcLevel, "");
}

// ---- The Micom's level echo ----

TEST_F(DrState, EchoOfANewLevelIsFollowedOneSecondLater) {
    echoLevel(2);
    EXPECT_THAT(fakes::texts({Kind::Log}), ElementsAre("Callback DR_Level Resp From Micom : 2"));
    EXPECT_EQ(priorityOf("Callback DR_Level Resp From Micom : 2"), DLOG_DEBUG);
    advance(0.99);
    EXPECT_EQ(dr().getLevel(), -1);
    advance(0.02);
    EXPECT_EQ(dr().getLevel(), 2);
    EXPECT_THAT(effects(), ElementsAre(setting(fakes::kMicomLevel, 2), setting(kDrLevel, 2),
                                       "SendDRLCNotify(2)"));
}

TEST_F(DrState, EchoOfTheLevelThatIsKnownSchedulesNothing) {
    dr().setLevel(2);
    fakes::clearRecords();
    echoLevel(2);
    EXPECT_TRUE(fakes::log::has("Callback DR_Level Resp From Micom : 2"));
    dr().setLevel(1); // a task left from the echo would bring 2 back
    advance(3);
    EXPECT_EQ(dr().getLevel(), 1);
}

TEST_F(DrState, EchoOfNormalWhileNormalSchedulesNoReset) {
    dr().setLevel(0);
    fakes::clearRecords();
    echoLevel(0);
    advance(3);
    EXPECT_THAT(effects(), ElementsAre(setting(fakes::kMicomLevel, 0)));
}

TEST_F(DrState, EchoIsComparedAgainAfterItsSecond) {
    echoLevel(2);
    advance(0.5);
    dr().setLevel(2);
    fakes::clearRecords();
    advance(3);
    EXPECT_THAT(effects(), IsEmpty());
}

TEST_F(DrReset, EchoOfNormalEndsTheEventAfterOneSecond) {
    echoLevel(0);
    fakes::clearRecords();
    advance(0.49); // before the worker's next pass
    EXPECT_THAT(effects(), IsEmpty());
    advance(0.52);
    EXPECT_THAT(effects(), ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"),
                                       "SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
    EXPECT_THAT(storedEvents(), IsEmpty());
}

TEST_F(DrReset, EchoOfNormalEndsTheEventAlsoWhenTheLevelHasFallenMeanwhile) {
    echoLevel(0);
    advance(0.4);
    dr().setLevel(0);
    fakes::clearRecords();
    advance(0.7);
    EXPECT_THAT(storedEvents(), IsEmpty());
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL_NORMAL");
}

TEST_F(DrState, EchoOfNormalBeforeAnyLevelIsKnownResets) {
    echoLevel(0);
    advance(1.1);
    EXPECT_EQ(dr().getLevel(), 0);
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL_NORMAL");
}

TEST_F(DrState, EchoOutsideTheLevelsIsReportedAllTheSame) {
    for (const int value : {7, -3}) {
        echoLevel(value);
        advance(1.2);
        EXPECT_EQ(dr().getLevel(), value);
        EXPECT_EQ(fakes::proxy::notifications().back(),
                  "SendDRLCNotify(" + std::to_string(value) + ")");
    }
}

TEST_F(DrState, EchoesReturnAtOnceAndAreFollowedInTurnFiftyMillisecondsApart) {
    echoLevel(2);
    echoLevel(3);
    EXPECT_THAT(timesOfLog("Callback DR_Level Resp From Micom : 3"),
                ElementsAre("2026-05-01T10:03:00"));
    advance(4);
    std::vector<std::int64_t> ms;
    for (const fakes::Entry &entry : fakes::trace({Kind::Notification})) {
        ms.push_back((entry.utcNs - virtualtime::parseUtc("2026-05-01T10:03:00")) / 1'000'000);
    }
    EXPECT_THAT(ms, ElementsAre(1500, 2550));
    EXPECT_THAT(fakes::proxy::notifications(),
                ElementsAre("SendDRLCNotify(2)", "SendDRLCNotify(3)"));
}

TEST_F(DrState, EchoThatCannotBeReadChangesNothing) {
    fakes::settings::failReads(fakes::kMicomLevel);
    echoLevel(3);
    advance(3);
    EXPECT_EQ(dr().getLevel(), -1);
    EXPECT_THAT(effects(), ElementsAre(setting(fakes::kMicomLevel, 3)));
}

TEST_F(DrState, EchoWhoseControllerIsGoneAfterTheSecondIsForgotten) {
    echoLevel(3);
    advance(0.2);
    controller_.reset();
    fakes::clearRecords();
    advance(3);
    EXPECT_THAT(effects(), IsEmpty());
}

TEST_F(DrState, EchoAfterTheControllersEndIsForgotten) {
    controller_.reset();
    fakes::clearRecords();
    echoLevel(3);
    advance(3);
    EXPECT_THAT(fakes::texts(), ElementsAre(setting(fakes::kMicomLevel, 3)));
}

// ---- The end ----

TEST_F(DrState, FinalizeJoinsTheWorkerWithinASecondAndMayBeRepeated) {
    const std::int64_t before = virtualtime::elapsedMs();
    dr()._finalize();
    EXPECT_LE(virtualtime::elapsedMs() - before, 1000);
    EXPECT_EQ(fakes::log::count("stop EnergyDR Thread!!"), 1);
    dr()._finalize();
    EXPECT_EQ(fakes::log::count("stop EnergyDR Thread!!"), 1);
    advance(3600);
    EXPECT_THAT(micomCommands(), IsEmpty());
}

TEST_F(DrState, DestructorFinalizes) {
    controller_.reset();
    EXPECT_EQ(fakes::log::count("stop EnergyDR Thread!!"), 1);
}

TEST_F(DrState, DestructorAfterFinalizeFindsNothingToDo) {
    dr()._finalize();
    const std::int64_t before = virtualtime::elapsedMs();
    controller_.reset();
    EXPECT_EQ(virtualtime::elapsedMs(), before);
}

} // namespace
