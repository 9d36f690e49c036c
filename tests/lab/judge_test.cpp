/*
 * The judge by itself: for each rule, what is right passes and what is wrong is told by its name.
 */
#include "judge.h"

#include "disk.h"
#include "life.h"
#include "storage.h"

#include <device_power.h>
#include <gmock/gmock.h>

#include <optional>
#include <stdexcept>

namespace {

using corvane::lab::EndOfLife;
using corvane::lab::Judge;
using fakes::Kind;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr std::int64_t kNoonMs = 1'785'499'200'000; // 2026-07-31T12:00Z

class JudgeTest : public testing::Test, public Judge::Eyes {
protected:
    void SetUp() override {
        judge.lifeBegins(*this, 0, 0, 0, 0);
        command("SET_SMARTGRID_DISABLE");
        launch();
        pass(598); // past the start's own exceptions, and the repeat of 12:10
    }

    /* The controllers of a start come one after the other. */
    void launch() {
        see(Kind::Watch, "db/corvane/dr/micom_override");
        see(Kind::Log, "start DefrostDelay Thread!!");
        now += 1'050;
        command("SET_SMARTGRID_LEVEL_NORMAL");
        set("db/corvane/dr/override", "0");
        see(Kind::Notification, "SendOverrideNotify(0)");
        see(Kind::Notification, "SendDefrostBlockNotify(0)");
        see(Kind::Log, "start EnergyDR Thread!!");
        now += 1'050;
        see(Kind::Log, "start EnergyReport Thread!!");
    }

    void see(Kind kind, const std::string &text) { judge.see({kind, text, 0}); }
    void set(const std::string &key, const std::string &value) {
        see(Kind::Setting, key + "=" + value);
    }
    void command(const std::string &text) { set("memory/refrigerator/TxMessage", text); }

    /* An event that is ordered to begin at once, and its command. */
    void beginEvent(int ofLevel) {
        const std::string number = std::to_string(ofLevel);
        see(Kind::Request, "ControlDRLC(" + number + ", 01:00:00, 12:09:00)");
        see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                       "values('0', '" +
                           number + "', '01:00:00', '2026-07-31T12:09:00');");
        see(Kind::Request, "ControlDRLC -> 1");
        command("SET_SMARTGRID_LEVEL" + number);
    }
    void report(int ofLevel) {
        set("db/corvane/dr/level", std::to_string(ofLevel));
        see(Kind::Notification, "SendDRLCNotify(" + std::to_string(ofLevel) + ")");
    }

    /* Seconds in which the repeats come and the judge looks each second. */
    void pass(int seconds) {
        for (; seconds > 0; --seconds) {
            now += 1'000;
            if ((kNoonMs + now) / 1'000 % 600 == 0) {
                command("SET_SMARTGRID_DISABLE");
                command(level);
            }
            judge.tick();
        }
    }

    template <class Doing>
    static void expectBroken(Doing doing, const std::string &rule) {
        EXPECT_THAT(doing, ThrowsMessage<std::runtime_error>(HasSubstr(rule)));
    }

    std::int64_t now = 0;
    std::int64_t clockMs = 0; // that the system clock was set on
    std::string level = "SET_SMARTGRID_LEVEL_NORMAL";
    std::uint64_t failures = 0; // of the database
    std::uint64_t unsure = 0;   // connections
    bool hasTables = false;
    bool isTroubled = false; // the database
    Judge judge;

private:
    std::int64_t nowMs() const override { return now; }
    std::int64_t utcMs() const override { return kNoonMs + now + clockMs; }
    std::uint64_t storeFailures() const override { return failures; }
    std::uint64_t unsureCommits() const override { return unsure; }
    bool isStoreTroubled() const override { return isTroubled; }
    bool isMeteringTroubled() const override { return false; }
    bool canLookInto(const std::string &) const override { return hasTables; }
    bool isWifiConnected() const override { return true; }
    void broken(const std::string &rule, const std::string &what) override {
        throw std::runtime_error(rule + ": " + what);
    }
};

TEST_F(JudgeTest, QuietHourBreaksNothing) { EXPECT_NO_THROW(pass(3'600)); }

TEST_F(JudgeTest, UnknownMicomTextIsBroken) {
    expectBroken([&] { command("SET_SMARTGRID_LEVEL5"); }, "vocabulary");
}

TEST_F(JudgeTest, LevelWithoutEventIsBroken) {
    expectBroken([&] { command("SET_SMARTGRID_LEVEL2"); }, "only while its event lasts");
}

TEST_F(JudgeTest, LevelOfAnEventIsCommandedInItsTimeOnly) {
    now = 620'000; // 12:10:20
    see(Kind::Request, "ControlDRLC(2, 00:01:00, 12:11:00)");
    see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                   "values('0', '2', '00:01:00', '2026-07-31T12:11:00');");
    see(Kind::Request, "ControlDRLC -> 1");
    expectBroken([&] { command("SET_SMARTGRID_LEVEL2"); }, "only while its event lasts");
    now = 660'000;
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL2"));
    expectBroken([&] { command("SET_SMARTGRID_LEVEL3"); }, "only while its event lasts");
    now = 720'000;
    expectBroken([&] { command("SET_SMARTGRID_LEVEL1"); }, "only while its event lasts");
}

TEST_F(JudgeTest, LevelThatIsCommandedTwiceIsBroken) {
    now = 660'000; // 12:11
    beginEvent(2);
    const auto again = [&] { command("SET_SMARTGRID_LEVEL2"); };
    const std::string rule = "at the ten-minute repeats only";
    expectBroken(again, rule);
    ++failures; // the repeat of a minute may have waited for the database
    EXPECT_NO_THROW(again());
    now = 1'200'000; // 12:20
    EXPECT_NO_THROW(again());
    now += 1'000;
    expectBroken(again, rule);
    judge.clockWasTouched();
    EXPECT_NO_THROW(again()); // another minute that is repeated
    now = 1'260'000;          // 12:21
    expectBroken(again, rule);
}

TEST_F(JudgeTest, StartOrQueryMayCommandALevelAgain) {
    now = 660'000;
    beginEvent(2);
    judge.lifeEnds(EndOfLife::Kill);
    judge.lifeBegins(*this, 2, 0, 0, 0);
    see(Kind::Watch, "db/corvane/dr/micom_override");
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL2"));
    see(Kind::Log, "start EnergyDR Thread!!");
    see(Kind::Request, "GetDRLCOverride()"); // of a level that is not confirmed yet
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL2"));
    see(Kind::Request, "GetDRLCOverride -> 1");
    expectBroken([&] { command("SET_SMARTGRID_LEVEL2"); }, "at the ten-minute repeats only");
}

TEST_F(JudgeTest, EventMayEndInTheMillisecondInWhichItIsOver) {
    see(Kind::Request, "ControlDRLC(2, 00:01:00, 12:11:00)");
    see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                   "values('0', '2', '00:01:00', '2026-07-31T12:11:00');");
    see(Kind::Request, "ControlDRLC -> 1");
    now = 660'000;
    command("SET_SMARTGRID_LEVEL2");
    now = 719'999;
    expectBroken([&] { command("SET_SMARTGRID_LEVEL_NORMAL"); }, "at an event's end");
    ++now;
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL_NORMAL"));
}

TEST_F(JudgeTest, LevelOfAnEventThatWasOverWhenItWasStoredIsExplained) {
    now = 661'000; // 12:11:01
    see(Kind::Request, "ControlDRLC(3, 00:00:03, 12:11:00)");
    for (int attempt = 0; attempt < 5; ++attempt) {
        see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                       "values('0', '3', '00:00:03', '2026-07-31T12:11:00');");
        ++failures;
        now += 1'000;
    }
    see(Kind::Request, "ControlDRLC -> 1");
    see(Kind::Request, "GetDefrostBlock()"); // has waited for its turn
    see(Kind::Request, "GetDefrostBlock -> 1");
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL3"));
    now += 3'000;
    expectBroken([&] { command("SET_SMARTGRID_LEVEL3"); }, "only while its event lasts");
}

TEST_F(JudgeTest, EventStoredOtherwiseThanOrderedIsBroken) {
    see(Kind::Request, "ControlDRLC(2, 00:01:00, 12:11:00)");
    expectBroken(
        [&] {
            see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                           "values('0', '2', '00:01:00', '2026-07-31T14:11:00');");
        },
        "as it was ordered");
}

TEST_F(JudgeTest, IntervalThatHasPassedStoredForTodayIsBroken) {
    see(Kind::Request, "ControlDRLC(2, 00:01:00, 11:00:00)");
    expectBroken(
        [&] {
            see(Kind::Sql, "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
                           "values('0', '2', '00:01:00', '2026-07-31T11:00:00');");
        },
        "meant for tomorrow");
}

TEST_F(JudgeTest, EchoThatTheLevelKeyDoesNotFollowIsBroken) {
    beginEvent(4);
    judge.micomWrites("memory/refrigerator/SmartGridDrLevel", 4);
    expectBroken([&] { judge.calm(4); }, "follows the appliance's echo");
    report(4);
    EXPECT_NO_THROW(judge.calm(4));
    expectBroken([&] { judge.calm(3); }, "follows the command");
    report(0); // though the event lasts
    expectBroken([&] { judge.calm(4); }, "follows the appliance's echo");
}

TEST_F(JudgeTest, LevelThatTheApplianceKeptOverTheEndOfItsEventNeedsNoEcho) {
    beginEvent(4);
    judge.micomWrites("memory/refrigerator/SmartGridDrLevel", 4);
    report(4);
    see(Kind::Request, "ControlDRLC(0, , )"); // of which it hears nothing
    set("db/corvane/dr/level", "0");
    command("SET_SMARTGRID_LEVEL_NORMAL");
    see(Kind::Notification, "SendDRLCNotify(0)");
    see(Kind::Request, "ControlDRLC -> 1");
    expectBroken([&] { judge.calm(4); }, "follows the command");
    beginEvent(4);
    EXPECT_NO_THROW(judge.calm(4));
    now += 60'000;
    judge.micomWrites("memory/refrigerator/SmartGridDrLevel", 4);
    expectBroken([&] { judge.calm(4); }, "follows the appliance's echo");
}

TEST_F(JudgeTest, EventThatEndedBeforeTheClockWentBackBesideABusyDatabaseIsExplained) {
    beginEvent(2);
    now += 3'600'000; // 13:10
    const auto end = [&] { command("SET_SMARTGRID_LEVEL_NORMAL"); };
    ++failures;
    see(Kind::Sql, "DELETE from dr_usage_table;");
    clockMs = -1'740'000; // 12:41
    judge.clockWasTouched();
    ++failures;
    see(Kind::Sql, "DELETE from dr_usage_table;");
    EXPECT_NO_THROW(end());
    now += 10'000;
    expectBroken(end, "at an event's end");
}

TEST_F(JudgeTest, NormalLevelForNoReasonIsBroken) {
    now += 60'000;
    expectBroken([&] { command("SET_SMARTGRID_LEVEL_NORMAL"); }, "end or cancellation");
    see(Kind::Log, "Callback DR_Level Resp From Micom : 0");
    EXPECT_NO_THROW(command("SET_SMARTGRID_LEVEL_NORMAL")) << "the appliance has dropped to it";
}

TEST_F(JudgeTest, MissingRepeatIsBroken) {
    now += 540'000; // over 12:20:00
    expectBroken(
        [&] {
            for (int i = 0; i < 120; ++i) {
                now += 1'000;
                judge.tick();
            }
        },
        "is repeated");
}

TEST_F(JudgeTest, ChangeThatIsNotNotifiedIsBroken) {
    set("db/corvane/dr/level", "3");
    expectBroken([&] { judge.tick(); }, "hears of every change");
}

TEST_F(JudgeTest, NotificationOfAnotherValueIsBroken) {
    set("db/corvane/defrost/status", "1");
    expectBroken([&] { see(Kind::Notification, "SendDelayDefrostNotify(false)"); },
                 "equals what was last reported");
}

TEST_F(JudgeTest, HandlersAnswerIsZeroOrOne) {
    see(Kind::Request, "SetDelayDefrost(1)");
    expectBroken([&] { see(Kind::Request, "SetDelayDefrost -> 2"); }, "0 or 1");
}

TEST_F(JudgeTest, RefusalBesideItsControllerIsBroken) {
    see(Kind::Request, "GetDefrostBlock()");
    expectBroken([&] { see(Kind::Request, "GetDefrostBlock -> 0"); }, "its controller is there");
}

TEST_F(JudgeTest, CyclesThatComeTooCloseAreBroken) {
    see(Kind::Log, "REPORT] callback Energy from Micom");
    see(Kind::Log, "REPORT] callback Energy from Micom");
    see(Kind::Log, "REPORT] [UTC]currentTime : x");
    now += 1'049;
    expectBroken([&] { see(Kind::Log, "REPORT] [UTC]currentTime : x"); }, "50 ms apart");
}

TEST_F(JudgeTest, FigureIsTheMicomsAndTheDisplaysEnergy) {
    const auto cycle = [this](const char *rest, const char *figure) {
        see(Kind::Log, "REPORT] callback Energy from Micom");
        pass(60);
        see(Kind::Log, "REPORT] [UTC]currentTime : x");
        see(Kind::Log, std::string("REPORT] Remain LCD energy RAW: ") + rest);
        see(Kind::Post, std::string("POST http://127.0.0.1:7777/external/metering"
                                    "?cumulativepower=") +
                            figure + "&duration=60");
    };
    judge.micomWrites("memory/refrigerator/SmartGridWatt3", 1);
    judge.micomWrites("memory/refrigerator/SmartGridWatt4", 44);
    EXPECT_NO_THROW(cycle("0", "3.00"));
    const auto read = [](int times) {
        for (; times > 0; --times)
            (void)device_get_power_measurement_value();
    };
    const char *const rule = "the Micom's and the display's energy";
    fakes::power::set(360);
    read(25);
    expectBroken([&] { cycle("9000", "3.00"); }, rule);
    EXPECT_NO_THROW(cycle("1800", "3.02"));
    EXPECT_NO_THROW(cycle("1440", "3.00")) << "a reading that waits for the lock";
    read(10);
    expectBroken([&] { cycle("1800", "3.00"); }, rule);
    read(11'200);
    EXPECT_NO_THROW(cycle("360", "3.00")) << "more than is kept";
    expectBroken([&] { cycle("360", "3.01"); }, rule);
    fakes::power::set(0);
}

TEST_F(JudgeTest, FigureToAnotherAddressIsBroken) {
    EXPECT_NO_THROW(see(Kind::Post, "POST http://127.0.0.1:7777/external/metering?"
                                    "cumulativepower=0.00&duration=60"));
    expectBroken(
        [&] {
            see(Kind::Post, "POST http://127.0.0.1:7777/external/metering?"
                            "cumulativepower=0.00&duration=61");
        },
        "is posted to the metering service");
}

TEST_F(JudgeTest, QueryIsAnsweredWithWhatWasReportedByThen) {
    see(Kind::Notification, "SendDefrostBlockNotify(1)");
    see(Kind::Request, "GetDefrostBlock()");
    see(Kind::Request, "GetDefrostBlock -> 1");
    see(Kind::Notification, "SendDefrostBlockNotify(0)"); // before the answer has arrived
    see(Kind::Request, "ControlOverride(2)");
    see(Kind::Request, "ControlOverride -> 1");
    EXPECT_NO_THROW(judge.told("block", "1"));
    expectBroken([&] { judge.told("block", "0"); }, "what was last reported");
}

TEST_F(JudgeTest, OverrideThatIsNotCommandedIsBroken) {
    set("db/corvane/dr/micom_override", "1");
    expectBroken([&] { pass(4); }, "switched on the display");
}

TEST_F(JudgeTest, PressesOfOneInstantAreBothFollowedByTheLast) {
    set("db/corvane/dr/micom_override", "1");
    set("db/corvane/dr/micom_override", "0");
    EXPECT_NO_THROW(command("SET_SMARTGRID_OVERRIDE_OFF"));
    EXPECT_NO_THROW(command("SET_SMARTGRID_OVERRIDE_OFF"));
    expectBroken([&] { command("SET_SMARTGRID_OVERRIDE_OFF"); }, "an override is commanded when");
}

TEST_F(JudgeTest, WhatIsLeftAfterTerminateIsBroken) {
    const Judge::Remains thread{"thread 3", 0, false};
    const Judge::Remains lock{"", 1, false};
    const Judge::Remains memory{"", 0, true};
    expectBroken([&] { judge.terminated(thread, 500, false); }, "no thread is left");
    expectBroken([&] { judge.terminated(lock, 500, false); }, "no lock is left");
    expectBroken([&] { judge.terminated(memory, 500, false); }, "no memory is left");
    expectBroken([&] { judge.terminated({}, 60'000, false); }, "within one second");
    EXPECT_NO_THROW(judge.terminated({}, 60'000, true));
    EXPECT_NO_THROW(judge.terminated({}, 1'000, false));
}

TEST_F(JudgeTest, PruningBeforeAnotherLimitThanSixMonthsIsBroken) {
    expectBroken([&] { see(Kind::Log, "REPORT] delete date : 2026020000"); }, "older than six");
    see(Kind::Log, "REPORT] delete date : 2026010000");
    EXPECT_NO_THROW(see(Kind::Sql, "DELETE from power_usage_table WHERE date < '2026010000';"));
    expectBroken(
        [&] { see(Kind::Sql, "DELETE from power_usage_table WHERE date < '2026073112';"); },
        "older than six");
}

TEST_F(JudgeTest, GateThatStaysShutIsBroken) {
    judge.lifeEnds(EndOfLife::Terminate);
    judge.lifeBegins(*this, 0, 0, 0, 0);
    expectBroken([&] { pass(60); }, "controllers are built");
}

/* With the service's tables, which the judge reads. */
class JudgeOfTables : public JudgeTest {
protected:
    JudgeOfTables() { hasTables = true; }
    void SetUp() override {
        corvane::lab::preparePlatform(disk);
        fakes::storage::execute("corvane.db", "CREATE TABLE dr_usage_table(rowid INTEGER PRIMARY "
                                              "KEY, drlcLevel, duration, drlcStartTime)");
        fakes::storage::execute("corvane.db", "CREATE TABLE defrost_usage_table(id, description, "
                                              "startTime, endTime, period)");
        fakes::storage::execute("usage.db", "CREATE TABLE power_usage_table(date, power_usage)");
        JudgeTest::SetUp();
    }
    void TearDown() override { fakes::storage::unmount(); }

    /* Level 2 from 12:30 to 13:30. */
    void order() {
        const std::string sql = "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, "
                                "drlcStartTime) values('0', '2', '01:00:00', "
                                "'2026-07-31T12:30:00');";
        see(Kind::Request, "ControlDRLC(2, 01:00:00, 12:30:00)");
        see(Kind::Sql, sql);
        fakes::storage::execute("corvane.db", sql);
        see(Kind::Notification, "SendDefrostBlockNotify(1)");
        see(Kind::Request, "ControlDRLC -> 1");
        pass(1);
    }
    void switchDefrostDelayOn() {
        see(Kind::Request, "SetDelayDefrost(1)");
        see(Kind::Sql, "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1");
        failures += failsNow ? 1 : 0;
        set("db/corvane/defrost/status", "1");
        see(Kind::Notification, "SendDelayDefrostNotify(true)");
        see(Kind::Request, "SetDelayDefrost -> 1");
    }
    void switchDefrostDelayOff() {
        see(Kind::Request, "SetDelayDefrost(0)");
        set("db/corvane/defrost/status", "0");
        see(Kind::Notification, "SendDelayDefrostNotify(false)");
        see(Kind::Request, "SetDelayDefrost -> 1");
    }
    /* A reservation as number 2, of which the remote side hears so. */
    void reserve(const std::string &notification) {
        const std::string sql = "INSERT INTO defrost_usage_table (id, description, startTime, "
                                "endTime, period) values('2', 'x', '0000-07-01T20:00:00', "
                                "'0000-08-31T00:00:00', '01:00:00');";
        see(Kind::Request, "CreateDefrostReservations(, x)");
        see(Kind::Sql, sql);
        fakes::storage::execute("corvane.db", sql);
        if (!notification.empty())
            see(Kind::Notification, notification);
        see(Kind::Request, "CreateDefrostReservations -> 1");
    }
    /* A start with defrost delay off and defrost held. */
    void startHeld() {
        judge.lifeEnds(EndOfLife::Kill);
        judge.lifeBegins(*this, 0, 0, 0, 1);
        set("db/corvane/defrost/activate", "1");
        command("SET_SMARTGRID_ENABLE");
        command("SET_SMARTGRID_DISABLE");
        launch();
    }
    void openHour(const std::string &hour = "2026073112", int counter = 0) {
        const std::string sql = "INSERT INTO power_usage_table (date, power_usage) values('" +
                                hour + "', '" + std::to_string(counter) + "');";
        see(Kind::Sql, "SELECT * FROM power_usage_table WHERE date = '" + hour + "'");
        failures += failsNow ? 1 : 0;
        change(sql);
        change("DELETE from power_usage_table WHERE date > '" + hour + "';");
        pass(5);
    }
    void change(const std::string &sql) { // of the hours
        see(Kind::Sql, sql);
        fakes::storage::execute("usage.db", sql);
    }

    /* A cycle after which the counter has grown by one. */
    void storeUnit(const std::string &hour = "2026073112", int counter = 1) {
        judge.micomWrites("memory/refrigerator/SmartGridWatt3", 39);
        judge.micomWrites("memory/refrigerator/SmartGridWatt4", 16);
        see(Kind::Log, "REPORT] callback Energy from Micom");
        see(Kind::Log, "REPORT] [UTC]currentTime : x");
        see(Kind::Post, "POST http://127.0.0.1:7777/external/metering"
                        "?cumulativepower=100.00&duration=60");
        see(Kind::Log, "REPORT] saveValue : 1");
        see(Kind::Sql, "SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1");
        change("UPDATE power_usage_table SET power_usage = '" + std::to_string(counter) +
               "' WHERE date = '" + hour + "';");
        pass(5);
    }
    void loseUnitInAPowerCut() {
        judge.lifeEnds(EndOfLife::PowerCut);
        fakes::storage::execute("usage.db", "UPDATE power_usage_table SET power_usage = '0'");
        JudgeTest::SetUp();
    }
    void loseHourInAPowerCut() {
        judge.lifeEnds(EndOfLife::PowerCut);
        fakes::storage::execute("usage.db", "DELETE FROM power_usage_table");
        JudgeTest::SetUp();
    }

    corvane::lab::Disk disk{1};
    bool failsNow = false; // the statement that is seen next
};

TEST_F(JudgeOfTables, DefrostDelayBesideAnEventIsBroken) {
    order();
    failures = 1; // long before
    pass(30);
    switchDefrostDelayOn();
    expectBroken([&] { pass(10); }, "defrost delay is off while an event is stored");
}

TEST_F(JudgeOfTables, DefrostDelaySwitchedOnByALookThatFailedIsExplained) {
    order();
    failsNow = true;
    switchDefrostDelayOn();
    EXPECT_NO_THROW(pass(30));
}

TEST_F(JudgeOfTables, StartThatFindsDefrostHeldWithoutDefrostDelayIsBroken) {
    startHeld();
    expectBroken([&] { pass(10); }, "defrost is held only inside the window");
}

TEST_F(JudgeOfTables, HoldThatBeginsLongAfterDefrostDelayWasSwitchedOffIsBroken) {
    switchDefrostDelayOn();
    switchDefrostDelayOff();
    pass(60);
    set("db/corvane/defrost/activate", "1");
    command("SET_SMARTGRID_ENABLE");
    expectBroken([&] { pass(10); }, "defrost is held only inside the window");
}

TEST_F(JudgeOfTables, StartRepeatsWhatWasSwitchedOffBetweenLookAndHold) {
    switchDefrostDelayOn();
    switchDefrostDelayOff();
    set("db/corvane/defrost/activate", "1");
    command("SET_SMARTGRID_ENABLE");
    EXPECT_NO_THROW(pass(10));
    startHeld();
    EXPECT_NO_THROW(pass(60)) << "the start's last word is a release, the state is held";
    command("SET_SMARTGRID_DISABLE");
    expectBroken([&] { pass(2); }, "the Micom hears the state of defrost delay");
}

TEST_F(JudgeOfTables, ReservationOfWhichTheRemoteSideDoesNotHearIsBroken) {
    const std::string rule = "hears of every reservation";
    const std::string created = "SendDefrostReservationsNotify(0, 2)";
    expectBroken([&] { reserve(""); }, rule);
    expectBroken([&] { reserve("SendDefrostReservationsNotify(2, 2)"); }, rule);
    expectBroken([&] { reserve("SendDefrostReservationsNotify(0, 3)"); }, rule);
    EXPECT_NO_THROW(reserve(created));
    see(Kind::Request, "DelDefrostReservations(2)");
    see(Kind::Notification, created);
    expectBroken([&] { see(Kind::Request, "DelDefrostReservations -> 1"); }, rule);
}

TEST_F(JudgeOfTables, DeletedReservationThatStaysIsBroken) {
    reserve("SendDefrostReservationsNotify(0, 2)");
    pass(3);
    see(Kind::Request, "DelDefrostReservations(2)");
    see(Kind::Sql, "DELETE FROM defrost_usage_table WHERE id = 2");
    see(Kind::Notification, "SendDefrostReservationsNotify(2, 2)");
    see(Kind::Request, "DelDefrostReservations -> 1");
    expectBroken([&] { pass(3); }, "a reservation that was deleted is gone");
}

TEST_F(JudgeOfTables, SecondRowForAnHourIsBroken) {
    openHour();
    expectBroken([&] { openHour(); }, "one row for an hour");
}

TEST_F(JudgeOfTables, SecondRowForAnHourWhoseLookFailedIsExplained) {
    openHour();
    failsNow = true;
    EXPECT_NO_THROW(openHour());
}

TEST_F(JudgeOfTables, CounterGoesOnFromAnyRowOfAnHourThatHasTwoAndComesBack) {
    openHour();
    failsNow = true;
    openHour(); // again
    failsNow = false;
    storeUnit();
    openHour("2026073113", 1);
    storeUnit("2026073113", 2);
    judge.clockWasTouched();
    EXPECT_NO_THROW(openHour("2026073112", 2)) << "its rows are not one";
    EXPECT_EQ(fakes::storage::query("usage.db", "SELECT power_usage FROM power_usage_table "
                                                "ORDER BY date DESC LIMIT 1")[0][0],
              "1");
    EXPECT_NO_THROW(storeUnit("2026073112", 2));
    expectBroken([&] { storeUnit("2026073112", 2); }, "grows by one");
}

TEST_F(JudgeOfTables, ChangeThatWaitsForALockIsReadWhenItHasTakenEffect) {
    openHour();
    isTroubled = true;
    const std::string sql = "DELETE from power_usage_table WHERE date > '2026073111';";
    see(Kind::Sql, sql);
    isTroubled = false;
    now += 100;
    judge.tick();
    fakes::storage::execute("usage.db", sql);
    EXPECT_NO_THROW(pass(5));
    change("INSERT INTO power_usage_table (date, power_usage) values('2026073111', '0');");
    EXPECT_NO_THROW(pass(5));
}

TEST_F(JudgeOfTables, WindowInAnHourThatIsRepeatedOrLeftOutMayBeginInEitherOfTwo) {
    constexpr std::int64_t kHourMs = 3'600'000, kDayMs = 24 * kHourMs;
    const char *const before = getenv("TZ");
    const std::optional<std::string> zone =
        before != nullptr ? std::optional<std::string>(before) : std::nullopt;
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    fakes::storage::execute("corvane.db",
                            "INSERT INTO defrost_usage_table VALUES('2', 'x', "
                            "'0000-01-01T02:30:00', '0000-12-31T00:00:00', '00:20:00')");
    see(Kind::Sql, "CREATE TABLE IF NOT EXISTS defrost_usage_table"); // it is read anew
    switchDefrostDelayOn();
    const auto passHeld = [this](bool isHeld) {
        set("db/corvane/defrost/activate", isHeld ? "1" : "0");
        command(isHeld ? "SET_SMARTGRID_ENABLE" : "SET_SMARTGRID_DISABLE");
        pass(30);
    };
    // 2026-10-25, at 02:41 and 02:41 again, and 2027-03-28, at 01:41 and 03:41.
    for (const std::int64_t days : {86, 240}) {
        for (const std::int64_t hour : {0, 1}) { // UTC
            now = days * kDayMs + (hour - 12) * kHourMs + 41 * 60'000;
            EXPECT_NO_THROW(passHeld(true));
            EXPECT_NO_THROW(passHeld(false));
        }
    }
    now = 241 * kDayMs - 12 * kHourMs + 41 * 60'000; // the day after at 02:41
    EXPECT_NO_THROW(passHeld(true));
    expectBroken([&] { passHeld(false); }, "defrost is held inside the window");
    if (zone)
        setenv("TZ", zone->c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST_F(JudgeOfTables, EventThatIsThereBesideBlock0IsBroken) {
    order();
    see(Kind::Notification, "SendDefrostBlockNotify(0)");
    expectBroken([&] { pass(10); }, "the block is 1 exactly while an event is stored");
}

TEST_F(JudgeOfTables, CancellationWhoseDatabaseCouldNotBeOpenedIsExplained) {
    order();
    see(Kind::Sql, "SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1");
    see(Kind::Request, "ControlDRLC(0, , )");
    ++failures; // on the way to the statement that is seen next
    see(Kind::Sql, "DELETE from dr_usage_table;");
    command("SET_SMARTGRID_LEVEL_NORMAL");
    see(Kind::Notification, "SendDefrostBlockNotify(0)");
    see(Kind::Request, "ControlDRLC -> 1");
    EXPECT_NO_THROW(pass(30));
}

TEST_F(JudgeOfTables, CancellationThatCommandsNothingIsBroken) {
    order();
    see(Kind::Request, "ControlDRLC(0, , )");
    expectBroken([&] { see(Kind::Request, "ControlDRLC -> 1"); }, "back to normal");
}

TEST_F(JudgeOfTables, CancellationThatLeavesTheEventIsBroken) {
    order();
    see(Kind::Request, "ControlDRLC(0, , )");
    command("SET_SMARTGRID_LEVEL_NORMAL");
    see(Kind::Request, "ControlDRLC -> 1");
    expectBroken([&] { pass(3); }, "a cancellation empties the table");
}

TEST_F(JudgeOfTables, ConsumptionIsWhatTheHoursTell) {
    for (const char *row : {"2026053123', '90", "2026060100', '100", "2026063023', '142",
                            "2026070100', '142", "2026073111', '150"})
        fakes::storage::execute("usage.db",
                                "INSERT INTO power_usage_table VALUES('" + std::string(row) + "')");
    const auto tell = [this](const char *consumption) {
        see(Kind::Request, "GetEnergyConsumption()");
        failures += failsNow ? 1 : 0;
        see(Kind::Request, "GetEnergyConsumption -> 1");
        see(Kind::Request, "GetDefrostBlock()"); // may come before the answer has arrived
        judge.told("consumption", consumption);
    };
    EXPECT_NO_THROW(tell("8.00 and 42.00"));
    expectBroken([&] { tell("8.00 and 52.00"); },
                 "the month's and the last month's consumption are what their hours tell");
    fakes::storage::execute("usage.db",
                            "INSERT INTO power_usage_table VALUES('2026073111', '0')"); // doubled
    EXPECT_NO_THROW(tell("8.00 and 42.00"));
    failsNow = true;
    EXPECT_NO_THROW(tell("8.00 and 0.00"));
}

TEST_F(JudgeOfTables, HourThatIsGoneAfterAPowerCutIsBroken) {
    openHour();
    expectBroken([&] { loseHourInAPowerCut(); }, "rows of the last six months stay");
}

TEST_F(JudgeOfTables, HourOfAConnectionThatCouldNotBeMadeSurerMayGoInAPowerCut) {
    ++unsure;
    openHour();
    EXPECT_NO_THROW(loseHourInAPowerCut());
}

TEST_F(JudgeOfTables, HourOfSuchAConnectionWhoseLookWasRepeatedMayGoToo) {
    ++unsure;
    see(Kind::Sql, "SELECT * FROM power_usage_table WHERE date = '2026073112'");
    ++failures;
    openHour();
    EXPECT_NO_THROW(loseHourInAPowerCut());
}

TEST_F(JudgeOfTables, CounterThatIsLessAfterAPowerCutIsBroken) {
    openHour();
    storeUnit();
    expectBroken([&] { loseUnitInAPowerCut(); }, "neither loses nor doubles energy");
}

TEST_F(JudgeOfTables, CounterOfAConnectionThatCouldNotBeMadeSurerMayBeLessAfterAPowerCut) {
    openHour();
    ++unsure;
    storeUnit();
    EXPECT_NO_THROW(loseUnitInAPowerCut());
}

TEST_F(JudgeOfTables, LaterSureCommitMakesAnHourSure) {
    ++unsure;
    openHour();
    see(Kind::Sql, "SELECT * FROM power_usage_table WHERE date = '2026073112'");
    see(Kind::Sql, "UPDATE power_usage_table SET power_usage = '1' WHERE date = '2026073112';");
    pass(1);
    expectBroken([&] { loseHourInAPowerCut(); }, "rows of the last six months stay");
}

TEST_F(JudgeOfTables, IsNotQuietWhileSomethingIsUnderWay) {
    EXPECT_FALSE(judge.isQuiet()) << "the first seconds of a repeat have their rules";
    pass(20);
    EXPECT_TRUE(judge.isQuiet());
    see(Kind::Log, "REPORT] callback Energy from Micom");
    EXPECT_FALSE(judge.isQuiet()) << "a cycle is to follow";
    see(Kind::Log, "REPORT] [UTC]currentTime : x");
    EXPECT_FALSE(judge.isQuiet()) << "its figure is being posted";
    see(Kind::Log, "REPORT] saveValue : 0");
    EXPECT_TRUE(judge.isQuiet());
    see(Kind::Log, "REPORT] saveValue : 1");
    EXPECT_FALSE(judge.isQuiet()) << "it is to be stored";
    see(Kind::Sql, "UPDATE power_usage_table SET power_usage = '1' WHERE date = '2026073112';");
    pass(1);
    EXPECT_TRUE(judge.isQuiet());
    pass(281); // 12:15:02
    EXPECT_FALSE(judge.isQuiet()) << "in some zones a repeat is due";
    pass(5);
    EXPECT_TRUE(judge.isQuiet());
    set("db/corvane/dr/micom_override", "1");
    EXPECT_FALSE(judge.isQuiet()) << "a command is to follow";
}

TEST_F(JudgeOfTables, KnowsWhenAnEventOrAWindowBeginsOrEnds) {
    order();
    now = 1'790'250; // 12:29:50.250
    EXPECT_EQ(judge.untilEdgeMs(), 9'750);
    now += 9'751;
    EXPECT_EQ(judge.untilEdgeMs(), 300'000 - 1) << "a repeat may be due at each full five minutes";
    fakes::storage::execute("corvane.db",
                            "INSERT INTO defrost_usage_table VALUES('2', 'x', "
                            "'0000-05-01T12:31:30', '0000-10-31T00:00:00', '00:00:30')");
    see(Kind::Sql, "CREATE TABLE IF NOT EXISTS defrost_usage_table"); // it is read anew
    command("SET_SMARTGRID_LEVEL2");
    level = "SET_SMARTGRID_LEVEL2";
    pass(1);
    EXPECT_EQ(judge.untilEdgeMs(), 90'000 - 1'001);
    now += 89'000;
    EXPECT_EQ(judge.untilEdgeMs(), 30'000 - 1);
}

} // namespace
