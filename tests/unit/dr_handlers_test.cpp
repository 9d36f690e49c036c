/*
 * What the remote side can ask of demand response: order or cancel an event, set the override,
 * read level, override and block.
 */
#include "controllers.h"

#include <cstring>
#include <stdexcept>

namespace {

using namespace controllers;
using fakes::proxy::controlDrlc;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kSelect = "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1";
constexpr const char *kDelete = "DELETE from dr_usage_table;";
constexpr const char *kCreate =
    "CREATE TABLE IF NOT EXISTS dr_usage_table(\t\t\t   rowid INTEGER PRIMARY KEY "
    "AUTOINCREMENT,\t\t\t   drlcLevel NUMERIC(4) NOT NULL, \t\t\t   duration TEXT NOT "
    "NULL, \t\t\t   drlcStartTime TEXT NOT NULL);";

std::string insertOf(const std::string &level, const std::string &duration,
                     const std::string &start) {
    return "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) values('0', '" +
           level + "', '" + duration + "', '" + start + "');";
}

// A request as the proxy holds it; a text that fills its member is not terminated.
KestDrlcInfo requestOf(const std::string &level, const std::string &duration = "",
                       const std::string &start = "") {
    KestDrlcInfo info{};
    std::memcpy(info.drlcLevel, level.data(), std::min(level.size(), sizeof info.drlcLevel));
    std::memcpy(info.duration, duration.data(), std::min(duration.size(), sizeof info.duration));
    std::memcpy(info.drlcStartTime, start.data(),
                std::min(start.size(), sizeof info.drlcStartTime));
    return info;
}

class DrHandlers : public ControllerTest {
protected:
    // 10:03:03.5 on return; the worker's next pass comes at 10:03:04.05.
    void SetUp() override {
        ControllerTest::SetUp();
        launch();
    }

    // A column of the stored event, "no event" without one.
    static std::string storedField(std::size_t column) {
        const fakes::storage::Rows events = storedEvents();
        return events.empty() ? "no event" : events.front()[column];
    }
};

// ---- Without a controller ----

TEST_F(DrHandlers, EachAnswersNothingOnceTheControllerIsGoneButLogsThatItWasAsked) {
    storeEvent("2", "01:00:00", "2026-05-01T14:00:00");
    EnergyManager::FinalThread();
    fakes::clearRecords();
    EXPECT_EQ(controlDrlc("3"), 0);
    EXPECT_EQ(fakes::proxy::controlOverride(1), 0);
    const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(state.answer, 0);
    EXPECT_EQ(state.level, -99);
    EXPECT_EQ(state.override_state, -99);
    const fakes::proxy::Value block = fakes::proxy::getDefrostBlock();
    EXPECT_EQ(block.answer, 0);
    EXPECT_EQ(block.value, -99);
    EXPECT_THAT(fakes::texts({Kind::Log, Kind::Setting, Kind::Notification, Kind::Sql}),
                ElementsAre("KestRegisterControlDRLCFunc", "KestRegisterControlOverrideFunc",
                            "KestRegisterGetDRLCOverrideFunc", "KestRegisterGetDefrostBlockFunc"));
    EXPECT_EQ(storedEvents().size(), 1U);
}

TEST_F(DrHandlers, EachLogsTheNameOfItsRegistrationFirst) {
    const std::vector<std::pair<const char *, std::function<void()>>> requests{
        {"KestRegisterControlDRLCFunc", [] { controlDrlc("2", "01:00:00", "14:00:00"); }},
        {"KestRegisterControlOverrideFunc", [] { fakes::proxy::controlOverride(1); }},
        {"KestRegisterGetDRLCOverrideFunc", [] { (void)fakes::proxy::getDrlcOverride(); }},
        {"KestRegisterGetDefrostBlockFunc", [] { (void)fakes::proxy::getDefrostBlock(); }}};
    for (const auto &[name, request] : requests) {
        fakes::clearRecords();
        request();
        EXPECT_EQ(fakes::log::messages().front(), name);
        EXPECT_EQ(priorityOf(name), DLOG_DEBUG);
    }
}

TEST_F(DrHandlers, RequestWhileTheControllersAreBeingDeletedIsAnsweredOrRefused) {
    std::thread refresh([] { EnergyManager::FinalThread(); });
    advance(0.1); // the defrost-delay controller's worker is being waited for
    EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1); // without a defrost delay to drop
    EXPECT_EQ(dr().getBlock(), 1);
    advance(0.5); // now it is demand response that is being deleted
    EXPECT_EQ(controlDrlc("3", "01:00:00", "14:00:00"), 0);
    EXPECT_EQ(storedField(1), "2");
    refresh.join();
}

// ---- Level ----

TEST_F(DrHandlers, RequestWithoutALevelIsRefusedAndChangesNothing) {
    controlDrlc("2", "01:00:00", "14:00:00");
    for (const char *level : {"", "null", "nullx"}) {
        SCOPED_TRACE(level);
        fakes::clearRecords();
        KestDrlcInfo info = requestOf(level, "null", "null");
        EXPECT_EQ(controlDrlc(&info), 0);
        EXPECT_THAT(
            fakes::texts({Kind::Log, Kind::Setting, Kind::Notification, Kind::Sql}),
            ElementsAre("KestRegisterControlDRLCFunc", "Not Have Drlc Level Data", "return 0"));
        EXPECT_EQ(FAKES_TEXT(info.duration), "null");
    }
    EXPECT_EQ(storedField(1), "2");
    EXPECT_EQ(dr().getSchedule().drlcLevel, "2");
}

TEST_F(DrHandlers, LevelZeroOrNoNumberCancelsTheEvent) {
    for (const char *level : {"0", "00", "-0", " 0", "abc", "nul", "x2", "0x4"}) {
        SCOPED_TRACE(level);
        controlDrlc("2", "01:00:00", "14:00:00");
        fakes::clearRecords();
        EXPECT_EQ(controlDrlc(level, "01:00:00", "15:00:00"), 1);
        EXPECT_THAT(fakes::texts({Kind::Log}),
                    ElementsAre("KestRegisterControlDRLCFunc", "Drlc Level : 0",
                                " [UTC] Send Time : Fri May  1 10:03:03 2026\n",
                                "Send To Micom Info that SET_SMARTGRID_LEVEL_NORMAL",
                                "DR] Info that is changed Level send KestD : 0"));
        EXPECT_THAT(effects(), ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"),
                                           "SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
        EXPECT_THAT(storedEvents(), IsEmpty());
        EXPECT_EQ(dr().getSchedule().drlcLevel, "");
    }
}

TEST_F(DrHandlers, CancelWithoutAnEventIsHandledAllTheSame) {
    EXPECT_EQ(controlDrlc("0"), 1);
    EXPECT_THAT(effects(),
                ElementsAre(setting(kDrLevel, 0), command("LEVEL_NORMAL"), "SendDRLCNotify(0)"));
}

TEST_F(DrHandlers, LevelIsLoggedAsANumberAndStoredAsTextWhateverItsRange) {
    struct Level {
        const char *text;
        const char *logged;
        const char *stored;
    };
    for (const auto &[text, logged, stored] :
         std::vector<Level>{{"1", "1", "1"},
                            {"4", "4", "4"},
                            {"7", "7", "7"},
                            {"-1", "-1", "-1"},
                            {"2x", "2", "2x"},
                            {"99999", "99999", "99999"}}) { // fills its member
        SCOPED_TRACE(text);
        fakes::clearRecords();
        KestDrlcInfo info = requestOf(text, "01:00:00", "14:00:00");
        EXPECT_EQ(controlDrlc(&info), 1);
        EXPECT_TRUE(fakes::log::has(std::string("Drlc Level : ") + logged));
        EXPECT_EQ(fakes::storage::attempts(insertOf(text, "01:00:00", "2026-05-01T14:00:00")), 1);
        EXPECT_EQ(storedField(1), stored);
    }
}

// ---- Duration ----

TEST_F(DrHandlers, EventWithoutADurationLastsFourAndAHalfHours) {
    for (const std::string duration : {"", "null", "nullnullnu"}) {
        SCOPED_TRACE(duration);
        fakes::clearRecords();
        KestDrlcInfo info = requestOf("2", duration, "14:00:00");
        int answer = 0;
        ASSERT_NO_THROW(answer = fakes::proxy::handlers().controlDrlc(&info));
        EXPECT_EQ(answer, 1);
        EXPECT_TRUE(fakes::log::has("_infos->duration : " + duration +
                                    ", size : " + std::to_string(duration.size())));
        EXPECT_EQ(priorityOf("No Have Duration Data - set 04:30:00"), DLOG_DEBUG);
        EXPECT_EQ(FAKES_TEXT(info.duration), "04:30:00");
        EXPECT_EQ(storedField(2), "04:30:00");
    }
}

TEST_F(DrHandlers, GivenDurationIsKeptInRequestAndTable) {
    KestDrlcInfo info = requestOf("2", "01:02:03", "14:00:00");
    EXPECT_EQ(controlDrlc(&info), 1);
    EXPECT_TRUE(fakes::log::has("_infos->duration : 01:02:03, size : 8"));
    EXPECT_FALSE(fakes::log::has("No Have Duration Data - set 04:30:00"));
    EXPECT_EQ(FAKES_TEXT(info.duration), "01:02:03");
    EXPECT_EQ(storedField(2), "01:02:03");
}

TEST_F(DrHandlers, MalformedDurationLeavesTheHandlerAsAnErrorWithTheOldEventGone) {
    const auto handler = fakes::proxy::handlers().controlDrlc;
    const auto order = [handler](const char *duration) {
        controlDrlc("1", "01:00:00", "15:00:00");
        KestDrlcInfo info = requestOf("2", duration, "14:00:00");
        handler(&info);
    };
    for (const char *tooShort : {"1", "01", "01:00"}) {
        EXPECT_THROW(order(tooShort), std::out_of_range) << tooShort;
        EXPECT_THAT(storedEvents(), IsEmpty());
    }
    for (const char *noNumber : {"xx:00:00", "01:xx:00", "01:00:xx", "01:00:"}) {
        EXPECT_THROW(order(noNumber), std::invalid_argument) << noNumber;
        EXPECT_THAT(storedEvents(), IsEmpty());
    }
    EXPECT_EQ(controlDrlc("3", "01:00:00", "14:00:00"), 1); // the mutex is free
}

// ---- Where the event is placed ----

struct Placement {
    const char *now;
    const char *start;
    const char *duration;
    const char *stored;
};

class DrPlacement : public DrHandlers, public testing::WithParamInterface<const char *> {};

TEST_P(DrPlacement, EventIsPlacedOnTodaysUtcDateOrTomorrowWhenItIsOverAlready) {
    setZone(GetParam());
    for (const auto &[now, start, duration, stored] : std::vector<Placement>{
             // without a start: now, in whole seconds
             {"2026-05-01T10:00:00", "null", "01:00:00", "2026-05-01T10:00:00"},
             {"2026-05-01T10:00:00.75", "", "01:00:00", "2026-05-01T10:00:00"},
             {"2026-12-31T23:59:59", "", "01:00:00", "2026-12-31T23:59:59"},
             // to come, under way, over
             {"2026-05-01T10:00:00", "14:00:00", "01:00:00", "2026-05-01T14:00:00"},
             {"2026-05-01T10:00:00", "08:00:00", "03:00:00", "2026-05-01T08:00:00"},
             {"2026-05-01T10:00:00", "08:00:00", "01:00:00", "2026-05-02T08:00:00"},
             // the end is now exactly, and a moment ago
             {"2026-05-01T10:00:00", "09:00:00", "01:00:00", "2026-05-01T09:00:00"},
             {"2026-05-01T10:00:00.000001", "09:00:00", "01:00:00", "2026-05-02T09:00:00"},
             {"2026-05-01T10:00:00", "08:58:58", "01:01:01", "2026-05-02T08:58:58"},
             {"2026-05-01T10:00:00", "08:58:59", "01:01:01", "2026-05-01T08:58:59"},
             // over midnight
             {"2026-05-01T00:30:00", "23:00:00", "02:00:00", "2026-05-01T23:00:00"},
             {"2026-05-01T23:59:59", "00:00:00", "00:00:01", "2026-05-02T00:00:00"},
             // year end, leap day, daylight saving of the zones
             {"2026-12-31T10:00:00", "08:00:00", "01:00:00", "2027-01-01T08:00:00"},
             {"2028-02-28T10:00:00", "08:00:00", "01:00:00", "2028-02-29T08:00:00"},
             {"2028-02-29T10:00:00", "08:00:00", "01:00:00", "2028-03-01T08:00:00"},
             {"2027-02-28T10:00:00", "08:00:00", "01:00:00", "2027-03-01T08:00:00"},
             {"2026-03-28T10:00:00", "02:30:00", "01:00:00", "2026-03-29T02:30:00"},
             {"2026-10-24T10:00:00", "02:30:00", "01:00:00", "2026-10-25T02:30:00"},
             {"2026-03-07T10:00:00", "07:30:00", "01:00:00", "2026-03-08T07:30:00"},
             // a start of another form replaces the whole time of day
             {"2026-05-01T10:00:00", "14:00:00Z", "01:00:00", "2026-05-01T14:00:00"},
             {"2026-05-01T10:00:00", "9:05:00", "04:00:00", "2026-05-01T09:05:00"},
         }) {
        SCOPED_TRACE(std::string(now) + " " + start + " + " + duration);
        virtualtime::setClock(now);
        EXPECT_EQ(controlDrlc("2", duration, start), 1);
        EXPECT_EQ(storedField(3), stored);
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, DrPlacement,
                         testing::Values("UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"),
                         [](const auto &zone) {
                             std::string name = zone.param;
                             std::replace(name.begin(), name.end(), '/', '_');
                             return name;
                         });

TEST_F(DrHandlers, StartThatOnlyBeginsWithNullIsNotNow) {
    EXPECT_EQ(controlDrlc("2", "23:00:00", "nullx"), 1);
    EXPECT_FALSE(fakes::log::has("drlcStartTime Empty() - setCurrentTime"));
    EXPECT_NE(storedField(3), "2026-05-01T10:03:03");
}

TEST_F(DrHandlers, EventOverTwiceIsMovedOnceOnly) {
    virtualtime::setClock("2026-05-01T10:00:00");
    EXPECT_EQ(dr()._sendToDB("2", "-9:00:00", "08:00:00"), 0); // ends before it starts
    EXPECT_EQ(storedField(3), "2026-05-02T08:00:00");
    EXPECT_EQ(controlDrlc("2", "-9:00:00", "00:00:00"), 1);
    EXPECT_EQ(storedEvents().size(), 1U);
    EXPECT_EQ(storedField(3), "2026-05-02T00:00:00");
}

TEST_F(DrHandlers, EventUnderWayStartsOnTheNextPass) {
    EXPECT_EQ(controlDrlc("2", "03:00:00", "08:00:00"), 1);
    EXPECT_THAT(micomCommands(), Not(Contains("SET_SMARTGRID_LEVEL2")));
    advance(1);
    EXPECT_THAT(timesOfCommand("LEVEL2"), ElementsAre("2026-05-01T10:03:04"));
}

TEST_F(DrHandlers, EventFromNowStartsOnTheNextPass) {
    EXPECT_EQ(controlDrlc("3", "01:00:00", "null"), 1);
    advance(1);
    EXPECT_THAT(timesOfCommand("LEVEL3"), ElementsAre("2026-05-01T10:03:04"));
}

// ---- The order of things ----

TEST_F(DrHandlers, AcceptedEventIsLoggedStepByStep) {
    EXPECT_EQ(controlDrlc("2", "01:00:00", "08:00:00"), 1);
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                ElementsAre("KestRegisterControlDRLCFunc", "Drlc Level : 2",
                            "_infos->duration : 01:00:00, size : 8",
                            // as ordered, then as stored
                            "drlcLevel : 2", "duration : 01:00:00", "drlcStartTime : 08:00:00",
                            "drlcLevel : 2", "duration : 01:00:00",
                            "drlcStartTime : 2026-05-02T08:00:00", "Sucess Send To DB",
                            // block and reload
                            "EnergyDR::setBlock()", "DR] Info that is changed Block send KestD : 1",
                            "EnergyDR::setBlock() End", "drlcStartTime : 2026-05-02T08:00:00",
                            "drlcLevel : 2", "duration : 01:00:00"));
    EXPECT_EQ(priorityOf("Sucess Send To DB"), DLOG_DEBUG);
}

TEST_F(DrHandlers, StartOfNowIsLoggedAsTheTimeOfDay) {
    EXPECT_EQ(controlDrlc("2", "01:00:00", ""), 1);
    EXPECT_THAT(messagesOf("EnergyDR.cpp"),
                AllOf(Contains("drlcStartTime Empty() - setCurrentTime"),
                      Contains("drlcStartTime : 10:03:03")));
}

TEST_F(DrHandlers, FirstEventIsInsertedIntoAnEmptyTable) {
    EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1);
    EXPECT_THAT(fakes::storage::statements(),
                ElementsAre(kSelect, insertOf("2", "01:00:00", "2026-05-01T14:00:00"), kSelect));
    EXPECT_THAT(storageCalls(), ElementsAre("open", "prepare", "close", "open", "exec", "close",
                                            "open", "prepare", "close"));
}

TEST_F(DrHandlers, NewEventAlwaysTakesTheOldOnesPlace) {
    controlDrlc("2", "01:00:00", "14:00:00");
    fakes::clearRecords();
    EXPECT_EQ(controlDrlc("3", "02:00:00", "16:00:00"), 1);
    EXPECT_THAT(
        fakes::storage::statements(),
        ElementsAre(kSelect, kDelete, insertOf("3", "02:00:00", "2026-05-01T16:00:00"), kSelect));
    EXPECT_THAT(storageCalls(), ElementsAre("open", "prepare", "exec", "close", "open", "exec",
                                            "close", "open", "prepare", "close"));
    EXPECT_THAT(storedEvents(), ElementsAre(Texts{"0", "3", "02:00:00", "2026-05-01T16:00:00"}));
}

TEST_F(DrHandlers, NewEventAlsoTakesThePlaceOfARowThatIsNoEvent) {
    storeEvent("0", "01:00:00", "2026-05-01T12:00:00");
    const std::string insert = insertOf("2", "01:00:00", "2026-05-01T14:00:00");
    fakes::pauseAt(insert, 1); // beside the old row it would be repeated for ever
    std::thread remoteSide([] { EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1); });
    advance(5);
    EXPECT_EQ(fakes::storage::attempts(insert), 1);
    EXPECT_THAT(storedEvents(), ElementsAre(Texts{"0", "2", "01:00:00", "2026-05-01T14:00:00"}));
    if (fakes::storage::attempts(insert) > 1) {
        fakes::storage::execute(kFile, "DELETE FROM dr_usage_table");
    }
    remoteSide.join();
}

TEST_F(DrHandlers, DefrostDelayIsDroppedAfterTheInsertAndBeforeTheBlock) {
    defrost().setEnable(1);
    fakes::clearRecords();
    EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1);
    EXPECT_THAT(fakes::texts({Kind::Sql, Kind::Setting, Kind::Notification}),
                ElementsAre(kSelect, insertOf("2", "01:00:00", "2026-05-01T14:00:00"),
                            setting(kDefrostStatus, 0), "SendDelayDefrostNotify(false)",
                            "SendDefrostBlockNotify(1)", kSelect));
    EXPECT_EQ(defrost().getEnable(), 0);
}

TEST_F(DrHandlers, BlockThatIsSetAlreadyIsNotAnnouncedAgain) {
    controlDrlc("2", "01:00:00", "14:00:00");
    fakes::clearRecords();
    EXPECT_EQ(controlDrlc("3", "01:00:00", "15:00:00"), 1);
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    EXPECT_EQ(dr().getBlock(), 1);
}

TEST_F(DrHandlers, InsertIsRepeatedUntilItSucceeds) {
    // The look at the table uses the first failure up, with Full harmlessly.
    fakes::storage::failStatements(fakes::storage::Trouble::Full, 36);
    EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1);
    EXPECT_EQ(fakes::storage::attempts(insertOf("2", "01:00:00", "2026-05-01T14:00:00")), 36);
    EXPECT_EQ(storedEvents().size(), 1U);
}

// ---- A whole event ----

TEST_F(DrHandlers, OrderedEventIsCommandedConfirmedReportedEndedAndReset) {
    startLoop();
    EXPECT_EQ(controlDrlc("2", "01:00:00", "14:00:00"), 1);
    EXPECT_THAT(fakes::proxy::notifications(), ElementsAre("SendDefrostBlockNotify(1)"));
    advanceTo("2026-05-01T14:00:02");
    EXPECT_EQ(timesOfCommand("LEVEL2").front(), "2026-05-01T14:00:00");
    EXPECT_EQ(dr().getLevel(), -1);

    echoLevel(2);
    advance(1.1);
    EXPECT_EQ(fakes::settings::getInt(kDrLevel), 2);
    EXPECT_EQ(fakes::proxy::notifications().back(), "SendDRLCNotify(2)");

    advanceTo("2026-05-01T15:00:02");
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL_NORMAL");
    EXPECT_THAT(fakes::proxy::notifications(),
                ElementsAre("SendDefrostBlockNotify(1)", "SendDRLCNotify(2)",
                            "SendDefrostBlockNotify(0)", "SendDRLCNotify(0)"));
    EXPECT_THAT(storedEvents(), IsEmpty());

    fakes::clearRecords();
    echoLevel(0);
    advance(5);
    EXPECT_THAT(effects(), ElementsAre(setting(fakes::kMicomLevel, 0)));
}

// ---- Override ----

TEST_F(DrHandlers, OverrideIsWrittenStraightToTheMicomAndStaysUntilItIsReported) {
    const std::vector<std::pair<int, Texts>> cases{
        {1, {command("OVERRIDE_FOREVER")}}, {0, {command("OVERRIDE_OFF")}}, {2, {}}, {-1, {}}};
    for (const auto &[value, expected] : cases) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        EXPECT_EQ(fakes::proxy::controlOverride(value), 1);
        const std::string message = "Callback Set DR_Override From Kest : " + std::to_string(value);
        EXPECT_THAT(fakes::texts({Kind::Log}),
                    ElementsAre("KestRegisterControlOverrideFunc", message));
        EXPECT_EQ(priorityOf(message), DLOG_DEBUG);
        EXPECT_EQ(effects(), expected);
        EXPECT_EQ(dr().getOverride(), 0);
    }
}

TEST_F(DrHandlers, OverrideWaitsForTheControllersMutexBeforeItLogs) {
    EXPECT_TRUE(waitsForMutex(
        [] { dr().haveSchedule(); },
        [] {
            const auto asked = virtualtime::nowUtcNs();
            fakes::proxy::handlers().controlOverride(1);
            EXPECT_GT(fakes::log::find("Callback Set DR_Override From Kest : 1").utcNs, asked);
        }));
}

// ---- Level and override read ----

TEST_F(DrHandlers, KnownLevelAndOverrideAreAnsweredWithoutAnyWork) {
    dr().setLevel(3);
    dr().setOverride(1);
    fakes::clearRecords();
    const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(state.answer, 1);
    EXPECT_EQ(state.level, 3);
    EXPECT_EQ(state.override_state, 1);
    EXPECT_THAT(fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql, Kind::Proxy}),
                IsEmpty());
}

TEST_F(DrHandlers, UnknownLevelIsLoadedOnceMoreAndThenAnsweredAsNormal) {
    const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(state.answer, 1);
    EXPECT_EQ(state.level, 0);
    EXPECT_EQ(state.override_state, 0);
    EXPECT_EQ(fakes::storage::attempts(kCreate), 1);
    EXPECT_THAT(fakes::texts({Kind::Watch, Kind::Proxy}),
                ElementsAre(fakes::kMicomLevel, "KestRegisterControlOverrideFunc",
                            "KestRegisterControlDRLCFunc", "KestRegisterGetDRLCOverrideFunc",
                            "KestRegisterGetDefrostBlockFunc"));
    EXPECT_EQ(dr().getLevel(), -1); // still unknown
}

TEST_F(DrHandlers, UnknownOverrideIsLoadedAndAnsweredWhateverItIsThen) {
    dr().setLevel(2);
    for (const int stored : {-1, 1, 0}) {
        SCOPED_TRACE(stored);
        dr().setOverride(-1);
        fakes::settings::set(kDrOverride, stored);
        fakes::clearRecords();
        const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
        EXPECT_EQ(state.answer, 1);
        EXPECT_EQ(state.override_state, stored);
        EXPECT_EQ(state.level, 2);
        EXPECT_EQ(fakes::storage::attempts(kCreate), 1);
    }
}

TEST_F(DrHandlers, UnknownOverrideAndLevelAreLoadedOneAfterTheOther) {
    fakes::settings::set(kDrOverride, -1);
    dr().setOverride(-1);
    fakes::clearRecords();
    const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(state.answer, 1);
    EXPECT_EQ(state.level, 0);
    EXPECT_EQ(state.override_state, -1);
    EXPECT_EQ(fakes::storage::attempts(kCreate), 2);
}

// ---- Block read ----

TEST_F(DrHandlers, KnownBlockIsAnsweredWithoutAnyWork) {
    for (const int block : {0, 1}) {
        dr().setBlock(block);
        fakes::clearRecords();
        const fakes::proxy::Value answer = fakes::proxy::getDefrostBlock();
        EXPECT_EQ(answer.answer, 1);
        EXPECT_EQ(answer.value, block);
        EXPECT_THAT(fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql}), IsEmpty());
    }
}

TEST_F(DrHandlers, UnknownBlockFollowsFromTheTableAndIsAnnounced) {
    for (const int block : {1, 0}) {
        storeEvent(block == 1 ? "2" : "0", "01:00:00", "2026-05-01T14:00:00");
        dr().setBlock(-1);
        fakes::clearRecords();
        const fakes::proxy::Value answer = fakes::proxy::getDefrostBlock();
        EXPECT_EQ(answer.answer, 1);
        EXPECT_EQ(answer.value, block);
        EXPECT_EQ(dr().getBlock(), block);
        EXPECT_THAT(fakes::texts({Kind::Sql, Kind::Notification}),
                    ElementsAre(kSelect, "SendDefrostBlockNotify(" + std::to_string(block) + ")"));
    }
}

} // namespace
