/*
 * The defrost-delay controller's start-up and its worker: the default reservations, which season
 * holds today, the daily window in local time, the repetition every ten minutes and the lines
 * logged beside it.
 *
 * Times in the names of the helpers are UTC unless they say local.
 */
#include "controllers.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace {

using namespace controllers;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char *kCreate =
    "CREATE TABLE IF NOT EXISTS defrost_usage_table(\t\t\t   id NUMERIC(4) NOT NULL PRIMARY "
    "KEY,\t\t\t   description TEXT NOT NULL,\t\t\t   startTime TEXT NOT NULL, \t\t\t   "
    "endTime TEXT NOT NULL, \t\t\t   period TEXT NOT NULL);";
constexpr const char *kInsertSummer =
    "INSERT INTO defrost_usage_table (id, description, startTime, endTime, period) values('0', "
    "'Summer Season', '0000-05-01T15:00:00', '0000-10-31T00:00:00', '04:00:00');";
constexpr const char *kInsertWinter =
    "INSERT INTO defrost_usage_table (id, description, startTime, endTime, period) values('1', "
    "'Winter Season', '0000-11-01T06:00:00', '0000-04-30T00:00:00', '04:00:00');";
constexpr const char *kSelectDescending = "SELECT * FROM defrost_usage_table ORDER BY id DESC";

const Texts kSummer{"0", "Summer Season", "0000-05-01T15:00:00", "0000-10-31T00:00:00", "04:00:00"};
const Texts kWinter{"1", "Winter Season", "0000-11-01T06:00:00", "0000-04-30T00:00:00", "04:00:00"};

Texts linesOf(const Texts &fields) {
    return {"Defrost] id : " + fields[0], "Defrost] description : " + fields[1],
            "Defrost] startTime : " + fields[2], "Defrost] endTime : " + fields[3],
            "Defrost] period : " + fields[4]};
}

void append(Texts &texts, const Texts &more) {
    texts.insert(texts.end(), more.begin(), more.end());
}

class DefrostRunner : public ControllerTest {
protected:
    void TearDown() override {
        controller_.reset();
        ControllerTest::TearDown();
    }

    // A controller alone, constructed at this moment: its passes fall on this fraction of a second.
    void startAt(const std::string &utc) {
        controller_.reset();
        virtualtime::setClock(utc);
        fakes::clearRecords();
        controller_ = std::make_unique<DefrostDelay>();
    }
    // The same, with enable and active as left by the process before.
    void startAt(const std::string &utc, int enable, int active) {
        controller_.reset();
        fakes::settings::set(kDefrostStatus, enable);
        fakes::settings::set(kDefrostActivate, active);
        startAt(utc);
    }
    DefrostDelay &alone() { return *controller_; }

    // The table as these rows; the controller takes them over on its next pass.
    void replaceReservations(const std::vector<Texts> &rows) {
        std::string sql = "DELETE FROM defrost_usage_table;";
        for (const Texts &row : rows) {
            sql += "INSERT INTO defrost_usage_table VALUES (" + row[0] + ", '" + row[1] + "', '" +
                   row[2] + "', '" + row[3] + "', '" + row[4] + "');";
        }
        fakes::storage::execute(kFile, sql);
        alone().initSchedules();
        fakes::clearRecords();
    }
    static Texts reservation(int id, const std::string &start, const std::string &end,
                             const std::string &period) {
        return {std::to_string(id), "r" + std::to_string(id), start, end, period};
    }

    std::unique_ptr<DefrostDelay> controller_;
};

// ---- Start-up ----

TEST_F(DefrostRunner, StartUpRestoresTheStateThenPutsTheDefaultsInThenRegisters) {
    startAt("2026-05-01T10:03:00", 1, 1);
    EXPECT_THAT(
        fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql, Kind::Watch, Kind::Proxy}),
        ElementsAre(setting(kDefrostStatus, 1), "SendDelayDefrostNotify(true)",
                    setting(kDefrostActivate, 1), command("ENABLE"), kCreate, kInsertSummer,
                    kInsertWinter, kSelectDescending, "KestRegisterCreateDefrostReservationsFunc",
                    "KestRegisterSetDefrostReservationsFunc",
                    "KestRegisterDelDefrostReservationsFunc",
                    "KestRegisterGetDefrostReservationsFunc", "KestRegisterSetDelayDefrostFunc",
                    "KestRegisterGetDelayDefrostFunc"));
    EXPECT_THAT(storageCalls(),
                ElementsAre("open", "exec", "exec", "exec", "close", "open", "prepare", "close"));
}

struct Restored {
    std::optional<int> enable;
    std::optional<int> active;
    Texts effectsExpected;
};

TEST_F(DefrostRunner, ActiveThatCannotBeReadTakesTheEnablesValueAndDisabledIsCommandedAgain) {
    const std::string on = "SendDelayDefrostNotify(true)";
    const std::string off = "SendDelayDefrostNotify(false)";
    const std::string enable = command("ENABLE");
    const std::string disable = command("DISABLE");
    const std::vector<Restored> cases{
        {{}, {}, {setting(kDefrostStatus, 0), off, setting(kDefrostActivate, 0), disable, disable}},
        {1, {}, {setting(kDefrostStatus, 1), on, setting(kDefrostActivate, 1), enable}},
        {5, {}, {setting(kDefrostStatus, 5), on, setting(kDefrostActivate, 5)}},
        {{}, 1, {setting(kDefrostStatus, 0), off, setting(kDefrostActivate, 1), enable, disable}},
        {1, 0, {setting(kDefrostStatus, 1), on, setting(kDefrostActivate, 0), disable}},
        {-1, -1, {setting(kDefrostStatus, -1), on, setting(kDefrostActivate, -1)}},
        {0, -1, {setting(kDefrostStatus, 0), off, setting(kDefrostActivate, -1), disable}},
    };
    for (const Restored &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.enable) + testing::PrintToString(one.active));
        controller_.reset();
        fakes::settings::set(kDefrostStatus, one.enable.value_or(0));
        fakes::settings::set(kDefrostActivate, one.active.value_or(0));
        fakes::settings::failReads(kDefrostStatus, one.enable ? 0 : fakes::settings::kAlways);
        fakes::settings::failReads(kDefrostActivate, one.active ? 0 : fakes::settings::kAlways);
        startAt("2026-05-01T10:03:00");
        EXPECT_EQ(effects(), one.effectsExpected);
    }
}

TEST_F(DefrostRunner, StartUpHoldsTheMutexWhileItCommandsAndWhileItUsesTheTable) {
    startAt("2026-05-01T10:03:00", 0, -1); // only the repeated command is sent
    for (const std::string &text :
         {command("DISABLE"), std::string(kCreate), std::string(kInsertSummer),
          std::string(kInsertWinter), std::string(kSelectDescending)}) {
        EXPECT_TRUE(waitsWhileAt(
            text, [this] { alone().getActive(); }, [this] { alone()._initialize(); }))
            << text;
    }
}

TEST_F(DefrostRunner, DefaultsAreLoadedHighestIdFirstAndLogged) {
    startAt("2026-05-01T10:03:00");
    ASSERT_THAT(alone().getSchedules(), SizeIs(2));
    EXPECT_EQ(fieldsOf(alone().getSchedules()[0]), kWinter);
    EXPECT_EQ(fieldsOf(alone().getSchedules()[1]), kSummer);

    fakes::clearRecords();
    alone().initSchedules();
    const std::string rule = "=================================================";
    Texts expected = linesOf(kWinter);
    expected.push_back(rule);
    append(expected, linesOf(kSummer));
    expected.push_back(rule);
    EXPECT_EQ(messagesOf("DefrostDelay.cpp"), expected);
    EXPECT_EQ(priorityOf(rule), DLOG_DEBUG);
    EXPECT_EQ(priorityOf("Defrost] id : 0"), DLOG_DEBUG);
}

TEST_F(DefrostRunner, StoredDefaultsStayAsTheyAreAndADeletedOneComesBack) {
    startAt("2026-05-01T10:03:00");
    controller_.reset();
    fakes::storage::execute(kFile, "UPDATE defrost_usage_table SET period = '01:00:00' WHERE id = "
                                   "0; DELETE FROM defrost_usage_table WHERE id = 1");
    startAt("2026-05-01T11:03:00");
    ASSERT_THAT(alone().getSchedules(), SizeIs(2));
    EXPECT_EQ(fieldsOf(alone().getSchedules()[0]), kWinter);
    EXPECT_EQ(alone().getSchedules()[1].period, "01:00:00");
    EXPECT_EQ(fakes::storage::attempts(kInsertWinter), 1);
    EXPECT_TRUE(fakes::log::has("SQL error: UNIQUE constraint failed: defrost_usage_table.id"));
}

TEST_F(DefrostRunner, LoadingAgainReplacesWhatWasLoaded) {
    startAt("2026-05-01T10:03:00");
    alone().initSchedules();
    EXPECT_THAT(alone().getSchedules(), SizeIs(2));
    replaceReservations({kSummer});
    EXPECT_THAT(alone().getSchedules(), SizeIs(1));
}

TEST_F(DefrostRunner, ReservationsAreHandedOutAsCopies) {
    startAt("2026-05-01T10:03:00");
    std::vector<Corvane::scheduleRecord> copies = alone().getSchedules();
    alone().deleteSchedules();
    EXPECT_EQ(fieldsOf(copies[1]), kSummer);
    alone().initSchedules();
    copies[0].id = "9";
    EXPECT_EQ(alone().getSchedules()[0].id, "1");
}

TEST_F(DefrostRunner, TableThatCannotBeReadLoadsNothing) {
    startAt("2026-05-01T10:03:00");
    fakes::storage::failStatements(fakes::storage::Trouble::IoError);
    alone().initSchedules();
    EXPECT_THAT(alone().getSchedules(), IsEmpty());
    EXPECT_EQ(alone().checkEmptyId(), -1);
}

TEST_F(DefrostRunner, LowestFreeIdOfFourIsFoundUnlessTheTableIsFullOrEmpty) {
    startAt("2026-05-01T10:03:00");
    for (const auto &[ids, expected] : std::vector<std::pair<std::vector<int>, int>>{
             {{}, -1},
             {{0, 1}, 2},
             {{0, 1, 2}, 3},
             {{0, 1, 2, 3}, -1},
             {{0, 1, 3}, 2},
             {{1}, 0},
             {{0, 2, 3}, 1},
             {{0, 1, 4, 7}, 2},
             {{4}, 0},
             {{-1, 1}, 0},
             {{-1, -1000, 0}, 1}, // by other hands; no slot of theirs
             {{0, 1, 2, 3, 4, 5}, -1}}) {
        std::vector<Texts> rows;
        for (const int id : ids) {
            rows.push_back(reservation(id, kSummer[2], kSummer[3], "04:00:00"));
        }
        replaceReservations(rows);
        EXPECT_EQ(alone().checkEmptyId(), expected) << testing::PrintToString(ids);
        EXPECT_THAT(storageCalls(), ElementsAre("open", "prepare", "close"));
    }
}

// ---- Which season holds today ----

struct Season {
    const char *localNow; // optionally with a fraction
    const char *start;
    const char *end;
    const char *period;
    bool holds;
};

class DefrostSeason : public DefrostRunner, public testing::WithParamInterface<const char *> {
protected:
    // The clock at a moment of local time.
    static void setLocalClock(const std::string &local) {
        tm fields{};
        const char *fraction = strptime(local.c_str(), "%FT%T", &fields);
        fields.tm_isdst = -1;
        virtualtime::setClock(virtualtime::formatUtc(mktime(&fields) * 1'000'000'000LL) + fraction);
    }
};

TEST_P(DefrostSeason, HoldsFromTheFirstDaysMidnightToTheLastDaysEndInLocalTime) {
    setZone(GetParam());
    startAt("2026-05-01T10:03:00");
    alone()._finalize(); // only the question is asked here
    const char *summer = "0000-05-01T15:00:00";
    const char *summerEnd = "0000-10-31T00:00:00";
    const char *winter = "0000-11-01T06:00:00";
    const char *winterEnd = "0000-04-30T00:00:00";
    const char *four = "04:00:00";
    for (const auto &[now, start, end, period, holds] : std::vector<Season>{
             // within one year
             {"2026-04-30T23:59:59", summer, summerEnd, four, false},
             {"2026-05-01T00:00:00", summer, summerEnd, four, true},
             {"2026-07-15T12:00:00", summer, summerEnd, four, true},
             {"2026-10-31T23:59:59", summer, summerEnd, four, true},
             {"2026-10-31T23:59:59.5", summer, summerEnd, four,
              false}, // the last second's beginning
             {"2026-11-01T00:00:00", summer, summerEnd, four, false},
             // over the year's end
             {"2026-10-31T23:59:59", winter, winterEnd, four, false},
             {"2026-11-01T00:00:00", winter, winterEnd, four, true},
             {"2026-12-31T23:59:59", winter, winterEnd, four, true},
             {"2027-01-01T00:00:00", winter, winterEnd, four, true},
             {"2028-02-29T12:00:00", winter, winterEnd, four, true},
             {"2026-04-30T23:59:59", winter, winterEnd, four, true},
             {"2026-05-01T00:00:00", winter, winterEnd, four, false},
             // a last window past midnight prolongs the season to its end, inclusive
             {"2026-10-31T01:59:59", "0000-05-01T22:00:00", "0000-10-30T00:00:00", four, true},
             {"2026-10-31T02:00:00", "0000-05-01T22:00:00", "0000-10-30T00:00:00", four, true},
             {"2026-10-31T02:00:01", "0000-05-01T22:00:00", "0000-10-30T00:00:00", four, false},
             {"2026-11-01T00:30:11", "0000-05-01T23:30:00", summerEnd, "01:00:11", true},
             {"2026-11-01T00:30:12", "0000-05-01T23:30:00", summerEnd, "01:00:11", false},
             {"2026-05-01T02:00:00", "0000-11-01T22:00:00", winterEnd, four, true},
             {"2026-05-01T02:00:01", "0000-11-01T22:00:00", winterEnd, four, false},
             // one day, and the whole year
             {"2026-06-15T00:00:00", "0000-06-15T10:00:00", "0000-06-15T00:00:00", four, true},
             {"2026-06-15T23:59:59", "0000-06-15T10:00:00", "0000-06-15T00:00:00", four, true},
             {"2026-06-16T00:00:00", "0000-06-15T10:00:00", "0000-06-15T00:00:00", four, false},
             {"2026-06-14T12:00:00", "0000-06-15T10:00:00", "0000-06-14T00:00:00", four, true},
             {"2026-06-15T12:00:00", "0000-06-15T10:00:00", "0000-06-14T00:00:00", four, true},
             {"2026-12-31T12:00:00", "0000-06-15T10:00:00", "0000-06-14T00:00:00", four, true},
             // whose last window reaches its first day: no longer over the year's end
             {"2026-06-15T02:00:00", "0000-06-15T23:00:00", "0000-06-14T00:00:00", four, true},
             {"2026-06-15T04:00:00", "0000-06-15T23:00:00", "0000-06-14T00:00:00", four, false},
             {"2026-06-13T12:00:00", "0000-06-15T23:00:00", "0000-06-14T00:00:00", four, false},
             // 29 February exists in leap years, else it is 1 March
             {"2028-02-29T00:00:00", "0000-02-29T10:00:00", "0000-03-31T00:00:00", four, true},
             {"2028-02-28T23:59:59", "0000-02-29T10:00:00", "0000-03-31T00:00:00", four, false},
             {"2027-02-28T23:59:59", "0000-02-29T10:00:00", "0000-03-31T00:00:00", four, false},
             {"2027-03-01T00:00:00", "0000-02-29T10:00:00", "0000-03-31T00:00:00", four, true},
             // neither the year nor the end's time of day is read
             {"2026-07-15T12:00:00", "1999-05-01T15:00:00", "1998-10-31T01:01:01", four, true},
             {"2026-10-31T20:00:00", summer, "xxxx-10-31", four, true},
             {"2026-10-31T23:00:00", summer, "0000-10-31T22:00:00", "00:00:00", true},
             // the days on which clocks change
             {"2026-03-29T00:00:00", "0000-03-29T10:00:00", "0000-03-29T00:00:00", four, true},
             {"2026-03-29T23:59:59", "0000-03-29T10:00:00", "0000-03-29T00:00:00", four, true},
             {"2026-10-25T23:59:59", "0000-10-25T10:00:00", "0000-10-25T00:00:00", four, true},
             {"2026-11-01T23:59:59", "0000-11-01T10:00:00", "0000-11-01T00:00:00", four, true},
             {"2026-03-08T00:00:00", "0000-03-08T10:00:00", "0000-03-08T00:00:00", four, true},
             {"2026-03-07T23:59:59", "0000-03-08T10:00:00", "0000-03-08T00:00:00", four, false},
         }) {
        setLocalClock(now);
        EXPECT_EQ(alone()._checkSchedule(start, end, period), holds)
            << now << ": " << start << " to " << end << ", " << period;
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, DefrostSeason,
                         testing::Values("UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"),
                         [](const auto &zone) {
                             std::string name = zone.param;
                             std::replace(name.begin(), name.end(), '/', '_');
                             return name;
                         });

TEST_F(DefrostRunner, MalformedReservationIsAnError) {
    startAt("2026-05-01T10:03:00");
    const auto check = [this](const char *start, const char *end, const char *period) {
        (void)alone()._checkSchedule(start, end, period);
    };
    const char *good = "0000-05-01T15:00:00";
    EXPECT_THROW(check("", good, "04:00:00"), std::out_of_range);
    EXPECT_THROW(check("0000", good, "04:00:00"), std::out_of_range);
    EXPECT_THROW(check("0000-05-01", good, "04:00:00"), std::out_of_range);
    EXPECT_THROW(check(good, "0000", "04:00:00"), std::out_of_range);
    EXPECT_THROW(check(good, good, "04"), std::out_of_range);
    EXPECT_THROW(check(good, good, "04:00"), std::out_of_range);
    EXPECT_THROW(check(good, good, ""), std::invalid_argument);
    EXPECT_THROW(check(good, good, "xx:00:00"), std::invalid_argument);
    EXPECT_THROW(check(good, good, "04:00:xx"), std::invalid_argument);
    EXPECT_NO_THROW(check(good, good, "4h:0m:0s"));
}

// ---- The daily window ----

TEST_F(DefrostRunner, SummerWindowRunsFromThreeToSevenInTheAfternoon) {
    startAt("2026-05-01T14:59:57", 1, 0);
    advance(2);
    EXPECT_EQ(virtualtime::nowUtc(), "2026-05-01T14:59:59");
    EXPECT_TRUE(fakes::log::has("Defrost] description : Summer Season"));
    EXPECT_EQ(alone().getActive(), 0);
    fakes::clearRecords();
    advance(1);
    EXPECT_EQ(alone().getActive(), 1);
    // The hour is a tenth minute as well: commanded by the change and by the repetition.
    EXPECT_THAT(effects(),
                ElementsAre(setting(kDefrostActivate, 1), command("ENABLE"), command("ENABLE")));
    advanceTo("2026-05-01T18:59:59");
    EXPECT_EQ(alone().getActive(), 1);
    EXPECT_THAT(micomCommands(), Each("SET_SMARTGRID_ENABLE"));
    EXPECT_THAT(fakes::settings::history(kDefrostActivate), ElementsAre("1"));
    fakes::clearRecords();
    advance(1);
    EXPECT_EQ(alone().getActive(), 0);
    EXPECT_THAT(effects(),
                ElementsAre(setting(kDefrostActivate, 0), command("DISABLE"), command("DISABLE")));
}

struct Window {
    const char *zone;
    const char *first; // UTC of the first pass, two seconds before the window
    const char *start; // local time of day
    const char *period;
    const char *enabled; // UTC of the commands
    const char *disabled;
};

TEST_F(DefrostRunner, WindowIsTodaysInLocalTimeStartInclusiveEndExclusive) {
    for (const auto &[zone, first, start, period, enabled, disabled] : std::vector<Window>{
             {"UTC", "2026-06-15T15:04:58", "15:05:00", "04:01:03", "2026-06-15T15:05:00",
              "2026-06-15T19:06:03"},
             {"Asia/Seoul", "2026-06-15T06:04:58", "15:05:00", "04:00:00", "2026-06-15T06:05:00",
              "2026-06-15T10:05:00"},
             {"Europe/Berlin", "2026-06-15T13:04:58", "15:05:00", "04:00:00", "2026-06-15T13:05:00",
              "2026-06-15T17:05:00"},
             {"Europe/Berlin", "2026-12-15T14:04:58", "15:05:00", "04:00:00", "2026-12-15T14:05:00",
              "2026-12-15T18:05:00"},
             {"America/New_York", "2026-06-15T19:04:58", "15:05:00", "04:00:00",
              "2026-06-15T19:05:00", "2026-06-15T23:05:00"},
             {"America/New_York", "2026-12-31T20:04:58", "15:05:00", "04:00:00",
              "2026-12-31T20:05:00", "2027-01-01T00:05:00"},
             {"UTC", "2028-02-29T15:04:58", "15:05:00", "00:01:30", "2028-02-29T15:05:00",
              "2028-02-29T15:06:30"},
             // Four hours of real time, also where the clock on the wall goes forward or back.
             {"Europe/Berlin", "2026-03-29T00:04:58", "01:05:00", "04:00:00", "2026-03-29T00:05:00",
              "2026-03-29T04:05:00"},
             {"Europe/Berlin", "2026-10-24T23:04:58", "01:05:00", "04:00:00", "2026-10-24T23:05:00",
              "2026-10-25T03:05:00"},
             {"America/New_York", "2026-03-08T06:04:58", "01:05:00", "04:00:00",
              "2026-03-08T06:05:00", "2026-03-08T10:05:00"},
             // Past midnight it ends with the day.
             {"UTC", "2026-06-15T22:04:58", "22:05:00", "04:00:00", "2026-06-15T22:05:00",
              "2026-06-16T00:00:00"},
             {"Asia/Seoul", "2026-06-15T13:04:58", "22:05:00", "04:00:00", "2026-06-15T13:05:00",
              "2026-06-15T15:00:00"},
         }) {
        SCOPED_TRACE(std::string(zone) + " " + first);
        setZone(zone);
        startAt("2026-06-15T12:03:00", 1, 0);
        alone()._finalize();
        replaceReservations(
            {reservation(2, std::string("0000-01-01T") + start, "0000-12-31T00:00:00", period)});
        startAt(first, 1, 0);
        replaceReservations(
            {reservation(2, std::string("0000-01-01T") + start, "0000-12-31T00:00:00", period)});
        advance(2.5 + 5 * 3600);
        ASSERT_THAT(fakes::settings::history(kDefrostActivate), ElementsAre("1", "0"));
        EXPECT_EQ(timesOf(Kind::Setting, setting(kDefrostActivate, 1)).front(), enabled);
        EXPECT_EQ(timesOf(Kind::Setting, setting(kDefrostActivate, 0)).front(), disabled);
    }
}

TEST_F(DefrostRunner, WindowPastMidnightBeginsAgainTheNextEvening) {
    startAt("2026-06-15T21:03:00", 1, 0);
    replaceReservations({reservation(2, "0000-01-01T22:05:00", "0000-12-31T00:00:00", "04:00:00")});
    advanceTo("2026-06-17T00:00:30");
    EXPECT_THAT(timesOf(Kind::Setting, setting(kDefrostActivate, 1)),
                ElementsAre("2026-06-15T22:05:00", "2026-06-16T22:05:00"));
    EXPECT_THAT(timesOf(Kind::Setting, setting(kDefrostActivate, 0)),
                ElementsAre("2026-06-16T00:00:00", "2026-06-17T00:00:00"));
}

TEST_F(DefrostRunner, WindowFollowsAChangeOfTheTimeZone) {
    startAt("2026-06-15T12:03:00", 1, 0);
    advance(5);
    EXPECT_EQ(alone().getActive(), 0); // 12:03
    setZone("Europe/Moscow");
    advance(1);
    EXPECT_EQ(alone().getActive(), 1); // 15:03
}

TEST_F(DefrostRunner, SummerGivesWayToWinterAtMidnight) {
    startAt("2026-10-31T23:59:57", 1, 0);
    advance(2);
    EXPECT_TRUE(fakes::log::has("Defrost] description : Summer Season"));
    fakes::clearRecords();
    advance(1);
    ASSERT_THAT(messagesOf("DefrostDelay.cpp"), Not(IsEmpty()));
    EXPECT_EQ(messagesOf("DefrostDelay.cpp").front(), "Defrost] current Schedule ============");
    EXPECT_TRUE(fakes::log::has("Defrost] description : Winter Season"));
    advanceTo("2026-11-01T10:00:05");
    EXPECT_THAT(timesOf(Kind::Setting, setting(kDefrostActivate, 1)),
                ElementsAre("2026-11-01T06:00:00"));
    EXPECT_THAT(timesOf(Kind::Setting, setting(kDefrostActivate, 0)),
                ElementsAre("2026-11-01T10:00:00"));
}

TEST_F(DefrostRunner, RemoteReservationsWinHighestIdFirstAsFarAsTheirSeasonHolds) {
    const auto always = [](int id) {
        return reservation(id, "0000-01-01T09:00:00", "0000-12-31T00:00:00", "04:00:00");
    };
    const auto never = [](int id) {
        return reservation(id, "0000-06-01T09:00:00", "0000-06-30T00:00:00", "04:00:00");
    };
    startAt("2026-05-01T10:03:00", 1, 0);
    advance(0.5);
    for (const auto &[rows, id] : std::vector<std::pair<std::vector<Texts>, const char *>>{
             {{kSummer, kWinter, always(2), always(3)}, "3"},
             {{kSummer, kWinter, always(2), never(3)}, "2"},
             {{kSummer, kWinter, never(2), never(3)}, "0"},
             {{kSummer, kWinter, always(2)}, "2"}}) {
        replaceReservations(rows);
        advance(1);
        ASSERT_GE(messagesOf("DefrostDelay.cpp").size(), 2U);
        EXPECT_EQ(messagesOf("DefrostDelay.cpp")[1], std::string("Defrost] id : ") + id);
        EXPECT_EQ(alone().getActive(), id == std::string("0") ? 0 : 1);
    }
}

TEST_F(DefrostRunner, MatchIsLoggedOnceForEachChangeOfItsId) {
    const Texts night = reservation(2, "0000-01-01T01:00:00", "0000-12-31T00:00:00", "00:30:00");
    startAt("2026-05-01T10:03:00", 1, 0);
    advance(3);
    fakes::clearRecords();
    replaceReservations({kSummer, night});
    advance(5);
    Texts expected{"Defrost] current Schedule ============"};
    append(expected, linesOf(night));
    expected.push_back("Defrost] Current LocalTime : Fri May  1 10:03:04 2026\n");
    EXPECT_EQ(messagesOf("DefrostDelay.cpp"), expected);
    EXPECT_EQ(priorityOf(expected.front()), DLOG_DEBUG);

    Texts changed = night;
    changed[2] = "0000-01-01T02:00:00";
    replaceReservations({kSummer, changed}); // the id is the same
    advance(5);
    EXPECT_FALSE(fakes::log::has(expected.front()));
    replaceReservations({kSummer});
    advance(5);
    EXPECT_EQ(fakes::log::count("Defrost] id : 0"), 1);
}

TEST_F(DefrostRunner, MatchAfterAPauseWithoutOneIsNotLoggedAgain) {
    const Texts june = reservation(2, "0000-06-01T09:00:00", "0000-06-30T00:00:00", "04:00:00");
    startAt("2026-05-01T10:03:00", 1, 0);
    advance(1);
    replaceReservations({june});
    advance(3);
    replaceReservations({kSummer});
    advance(3);
    EXPECT_THAT(messagesOf("DefrostDelay.cpp"), IsEmpty());
}

TEST_F(DefrostRunner, ChangesOfActiveAreLoggedWithTheLocalTime) {
    setZone("Asia/Seoul");
    startAt("2026-06-15T06:04:55", 1, 0);
    replaceReservations({reservation(2, "0000-01-01T15:05:00", "0000-12-31T00:00:00", "00:00:10")});
    advance(2);
    fakes::clearRecords();
    advance(5);
    EXPECT_THAT(messagesOf("DefrostDelay.cpp"),
                ElementsAre("Defrost] Current LocalTime : Mon Jun 15 15:05:00 2026\n",
                            "Defrost] Active Time Until Mon Jun 15 15:05:10 2026\n"));
    EXPECT_EQ(fakes::texts({Kind::Log, Kind::Setting})[2], setting(kDefrostActivate, 1));
    EXPECT_EQ(priorityOf("Defrost] Active Time Until Mon Jun 15 15:05:10 2026\n"), DLOG_DEBUG);
    fakes::clearRecords();
    advance(10);
    EXPECT_THAT(messagesOf("DefrostDelay.cpp"),
                ElementsAre("Defrost] Current LocalTime : Mon Jun 15 15:05:10 2026\n",
                            "Defrost] Not Active Time"));
    EXPECT_EQ(fakes::texts({Kind::Log, Kind::Setting})[2], setting(kDefrostActivate, 0));
    EXPECT_EQ(priorityOf("Defrost] Not Active Time"), DLOG_DEBUG);
}

TEST_F(DefrostRunner, ActiveFollowsTheWindowFromWhateverItWas) {
    for (const auto &[now, before, after] :
         std::vector<std::tuple<const char *, int, int>>{{"2026-05-01T16:03:00", 0, 1},
                                                         {"2026-05-01T16:03:00", -1, 1},
                                                         {"2026-05-01T16:03:00", 5, 1},
                                                         {"2026-05-01T10:03:00", 1, 0},
                                                         {"2026-05-01T10:03:00", -1, 0}}) {
        startAt(now, 1, before);
        advance(0);
        EXPECT_EQ(alone().getActive(), after) << now << " " << before;
    }
}

TEST_F(DefrostRunner, ActiveThatIsRightAlreadyIsNotCommandedAgain) {
    startAt("2026-05-01T16:03:00", 1, 1);
    fakes::clearRecords();
    advance(60);
    EXPECT_THAT(effects(), IsEmpty());
}

TEST_F(DefrostRunner, OnlyAnEnableOfOneLetsTheWindowDecide) {
    for (const int enable : {0, 5, -1}) {
        SCOPED_TRACE(enable);
        startAt("2026-05-01T16:03:00", enable, 0);
        advance(30);
        EXPECT_EQ(alone().getActive(), 0);
        startAt("2026-05-01T10:03:00", enable, 1);
        advance(30);
        EXPECT_EQ(alone().getActive(), 1);
    }
}

// ---- The repetition ----

const Texts kTenthMinutes{"2026-05-01T10:10:00", "2026-05-01T10:20:00", "2026-05-01T10:30:00",
                          "2026-05-01T10:40:00", "2026-05-01T10:50:00", "2026-05-01T11:00:00"};

TEST_F(DefrostRunner, StateIsRepeatedEveryTenMinutes) {
    startAt("2026-05-01T10:03:00", 1, 0);
    fakes::clearRecords();
    advance(3600);
    EXPECT_EQ(timesOfCommand("DISABLE"), kTenthMinutes);
    EXPECT_FALSE(fakes::log::has("Defrost] Disable"));
}

TEST_F(DefrostRunner, StateIsRepeatedWithTheMutexHeld) {
    startAt("2026-05-01T10:03:00", 1, 0);
    advanceTo("2026-05-01T10:09:59.995");
    EXPECT_TRUE(waitsWhileAt(command("DISABLE"), [this] { alone().getActive(); }));
}

TEST_F(DefrostRunner, StateIsRepeatedWhileSwitchedOffWithARemark) {
    startAt("2026-05-01T10:03:00", 0, 1);
    fakes::clearRecords();
    advance(3600);
    EXPECT_EQ(timesOfCommand("ENABLE"), kTenthMinutes);
    EXPECT_EQ(timesOfLog("Defrost] Disable"), kTenthMinutes);
    EXPECT_EQ(alone().getActive(), 1);
}

TEST_F(DefrostRunner, RepetitionFollowsTheLocalMinute) {
    setZone("Asia/Kathmandu"); // 5:45 ahead
    startAt("2026-05-01T10:03:00", 0, 0);
    fakes::clearRecords();
    advance(900);
    EXPECT_THAT(timesOfCommand("DISABLE"),
                ElementsAre("2026-05-01T10:05:00", "2026-05-01T10:15:00"));
}

TEST_F(DefrostRunner, FirstPassInATenthMinuteRepeatsAtOnceAndNoMoreInThatMinute) {
    startAt("2026-05-01T10:10:30", 1, 0);
    fakes::clearRecords();
    advance(29);
    EXPECT_THAT(timesOfCommand("DISABLE"), ElementsAre("2026-05-01T10:10:30"));
}

TEST_F(DefrostRunner, EmptyTableIsSilentAndStillRepeatsTheState) {
    startAt("2026-05-01T10:03:00", -1, 1);
    advance(0.5);
    replaceReservations({});
    advance(3600);
    EXPECT_EQ(timesOfCommand("ENABLE"), kTenthMinutes);
    EXPECT_THAT(messagesOf("DefrostDelay.cpp"), IsEmpty());
    EXPECT_EQ(alone().checkEmptyId(), -1);
}

TEST_F(DefrostRunner, ReservationsOutOfSeasonAreReportedEverySecondAndNothingIsRepeated) {
    startAt("2026-05-01T10:03:00", 5, 1);
    advance(0.5);
    replaceReservations({kWinter});
    advance(3600);
    EXPECT_EQ(fakes::log::count("Nothing Maching!!"), 3600);
    EXPECT_EQ(priorityOf("Nothing Maching!!"), DLOG_DEBUG);
    EXPECT_THAT(messagesOf("DefrostDelay.cpp"), Each("Nothing Maching!!"));
    EXPECT_THAT(effects(), IsEmpty());
    EXPECT_EQ(alone().getActive(), 1);
}

TEST_F(DefrostRunner, RepetitionLeftOutForWantOfAMatchIsMadeUpWithinItsMinute) {
    startAt("2026-05-01T10:09:57", 1, 0);
    replaceReservations({kWinter});
    advanceTo("2026-05-01T10:10:20.5");
    EXPECT_THAT(effects(), IsEmpty());
    replaceReservations({kSummer});
    advance(5);
    EXPECT_THAT(timesOfCommand("DISABLE"), ElementsAre("2026-05-01T10:10:21"));
}

// ---- Lines logged after each tenth minute ----

class DefrostPeriodic : public DefrostRunner {
protected:
    // What is logged from 10:10:59.5 to 10:20:59.5, inside or outside the window.
    Texts loggedAfterTheTenthMinute(int enable, const std::string &windowStart) {
        startAt("2026-05-01T10:09:30", enable, 0);
        replaceReservations(
            {reservation(2, "0000-01-01T" + windowStart, "0000-12-31T00:00:00", "04:00:00")});
        advanceTo("2026-05-01T10:10:59.5");
        EXPECT_FALSE(
            fakes::log::has(" [Defrost] Start LocalTime : Fri May  1 " + windowStart + " 2026\n"));
        fakes::clearRecords();
        advance(30);
        const Texts first = messagesOf("DefrostDelay.cpp");
        fakes::clearRecords();
        advance(540); // to 10:20:29.5, past the repetition
        EXPECT_THAT(
            messagesOf("DefrostDelay.cpp"),
            Not(Contains(" [Defrost] Start LocalTime : Fri May  1 " + windowStart + " 2026\n")));
        return first;
    }
};

TEST_F(DefrostPeriodic, WindowAndStateAreLoggedInside) {
    EXPECT_THAT(loggedAfterTheTenthMinute(1, "09:00:00"),
                ElementsAre(" [Defrost] Start LocalTime : Fri May  1 09:00:00 2026\n",
                            " [Defrost] End LocalTime : Fri May  1 13:00:00 2026\n",
                            "Defrost] Current LocalTime : Fri May  1 10:11:00 2026\n",
                            "Defrost] Active Time Until Fri May  1 13:00:00 2026\n"));
}

TEST_F(DefrostPeriodic, WindowAndStateAreLoggedOutside) {
    EXPECT_THAT(loggedAfterTheTenthMinute(1, "12:00:00"),
                ElementsAre(" [Defrost] Start LocalTime : Fri May  1 12:00:00 2026\n",
                            " [Defrost] End LocalTime : Fri May  1 16:00:00 2026\n",
                            "Defrost] Current LocalTime : Fri May  1 10:11:00 2026\n",
                            "Defrost] Not Active Time"));
}

TEST_F(DefrostPeriodic, OnlyTheWindowIsLoggedWhileSwitchedOff) {
    EXPECT_THAT(loggedAfterTheTenthMinute(0, "09:00:00"),
                ElementsAre(" [Defrost] Start LocalTime : Fri May  1 09:00:00 2026\n",
                            " [Defrost] End LocalTime : Fri May  1 13:00:00 2026\n"));
}

TEST_F(DefrostPeriodic, ChangeAfterATenthMinuteIsLoggedTwice) {
    EXPECT_THAT(loggedAfterTheTenthMinute(1, "10:11:00"),
                ElementsAre(" [Defrost] Start LocalTime : Fri May  1 10:11:00 2026\n",
                            " [Defrost] End LocalTime : Fri May  1 14:11:00 2026\n",
                            "Defrost] Current LocalTime : Fri May  1 10:11:00 2026\n",
                            "Defrost] Active Time Until Fri May  1 14:11:00 2026\n",
                            "Defrost] Current LocalTime : Fri May  1 10:11:00 2026\n",
                            "Defrost] Active Time Until Fri May  1 14:11:00 2026\n"));
}

// ---- The worker's life ----

TEST_F(DefrostRunner, WorkerSaysWhenItStartsAndStops) {
    startAt("2026-05-01T10:03:00");
    EXPECT_FALSE(fakes::log::has("start DefrostDelay Thread!!"));
    advance(5.3);
    EXPECT_EQ(priorityOf("start DefrostDelay Thread!!"), DLOG_INFO);
    EXPECT_FALSE(fakes::log::has("stop DefrostDelay Thread!!"));
    controller_.reset();
    EXPECT_EQ(priorityOf("stop DefrostDelay Thread!!"), DLOG_INFO);
    EXPECT_THAT(timesOfLog("stop DefrostDelay Thread!!"), ElementsAre("2026-05-01T10:03:06"));
}

TEST_F(DefrostRunner, StoppedWorkerDoesNoFurtherPass) {
    startAt("2026-05-01T14:59:55", 1, 0);
    advance(4.5);
    controller_.reset(); // the worker wakes at the start of the window
    EXPECT_EQ(fakes::settings::getInt(kDefrostActivate), 0);
}

TEST_F(DefrostRunner, TableIsNotReadByTheWorker) {
    startAt("2026-05-01T10:03:00", 1, 0);
    fakes::clearRecords();
    advance(7200);
    EXPECT_THAT(storageCalls(), IsEmpty());
}

TEST_F(DefrostRunner, PassThatWasHeldUpIsNotCaughtUpWith) {
    startAt("2026-05-01T14:59:50", 1, 0);
    advance(0.5);
    // Another process holds the file; who looks for a free id keeps the mutex, the worker waits.
    auto file =
        std::make_unique<fakes::storage::Lock>(kFile, fakes::storage::Lock::Kind::Exclusive);
    std::thread asking([this] { alone().checkEmptyId(); });
    advance(0.9);
    file.reset();
    asking.join();
    advanceTo("2026-05-01T15:00:00.1");
    EXPECT_EQ(alone().getActive(), 0); // the passes have moved off the full seconds
    advance(1);
    EXPECT_EQ(alone().getActive(), 1);
}

TEST_F(DefrostRunner, ReservationsMayBeReplacedWhileTheWorkerRuns) {
    startAt("2026-05-01T10:03:00", 1, 0);
    std::thread replacing([this] {
        for (int i = 0; i < 200; ++i) {
            alone().initSchedules();
            virtualtime::sleepMs(100);
        }
    });
    advance(25);
    replacing.join();
    EXPECT_THAT(alone().getSchedules(), SizeIs(2));
}

// ---- What ends the process ----

class DefrostRunnerDeath : public DefrostRunner {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        DefrostRunner::SetUp();
    }
};

TEST_F(DefrostRunnerDeath, MalformedStoredReservationEndsTheProcess) {
    const char *end = "0000-12-31T00:00:00";
    for (const auto &[row, error] : std::vector<std::pair<Texts, const char *>>{
             {reservation(2, "0000", end, "04:00:00"), "out_of_range"},
             {reservation(2, "0000-01-01", end, "04:00:00"), "out_of_range"},
             {reservation(2, "", end, "04:00:00"), "out_of_range"},
             {reservation(2, "0000-01-01T10:00:00", "", "04:00:00"), "out_of_range"},
             {reservation(2, "0000-01-01T10:00:00", end, "04:00"), "out_of_range"},
             {reservation(2, "0000-01-01T10:00:00", end, "four"), "invalid_argument"}}) {
        EXPECT_DEATH(
            {
                startAt("2026-05-01T10:03:00", 1, 0);
                replaceReservations({row});
                advance(2);
            },
            error)
            << testing::PrintToString(row);
    }
}

} // namespace
