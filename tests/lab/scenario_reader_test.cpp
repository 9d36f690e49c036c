/*
 * Reading scenarios: what is right is read as written, and each mistake is refused with one line
 * that names file, line and member and says what is expected.
 */
#include <scenario.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <ostream>

namespace {

using namespace corvane::lab;
using ::testing::ElementsAre;

/* The least that a scenario says; tests append to it, from line 4 on. */
const std::string kPeriod = "from = 2026-08-01\nto = 2026-08-31\nzone = \"Europe/Berlin\"\n";

Scenario read(const std::string &more) { return parseScenario(kPeriod + more, "file.toml"); }

std::string refusal(const std::string &text) {
    try {
        (void)parseScenario(text, "file.toml");
    } catch (const ScenarioError &error) {
        return error.what();
    }
    return "accepted";
}

std::string refusalOf(const std::string &more) { return refusal(kPeriod + more); }

std::string programme(const std::string &members) { return "[[programme]]\n" + members; }

TEST(ScenarioReader, LeavesAllButThePeriodToDefaults) {
    const Scenario scenario = parseScenario("from = 2026-08-01\nto = 2026-08-31\n", "a.toml");
    EXPECT_EQ(scenario.title, "a.toml");
    EXPECT_EQ(scenario.zone, "UTC");
    EXPECT_EQ(scenario.seed, 1U);
    EXPECT_EQ(scenario.ambientCelsius, 22);
    EXPECT_TRUE(scenario.householdPresent);
    EXPECT_TRUE(scenario.programmes.empty());
}

TEST(ScenarioReader, ReadsEveryMember) {
    const Scenario scenario = read(R"(
title = "All of it"
[household]
ambient-celsius = 25.5
ambient-by-month-celsius = [20, 20, 21, 21, 22, 23, 24, 24, 23, 22, 21, 20]
doors = "nobody"
seed = 9
[appliance]
defrost-delay = true
fridge-set-celsius = 4
[[programme]]
name = "p"
months = ["aug"]
weekdays = ["Monday", "fri"]
dates = [2026-08-03, 2026-08-07]
level = 3
start = 16:30:00
duration = "02:00"
lead = "01:00"
limit = 2
[[reservation]]
description = "r"
first-day = "06-01"
last-day = "02-29"
start = "17:00"
period = "04:00:30"
[[fault]]
kind = "clock-wrong"
date = 2026-08-03
start = "12:00"
duration = "00:10"
offset-sec = -3600
[expect]
energy-below-kwh = 400
every-event-confirmed = true
)");
    EXPECT_EQ(scenario.title, "All of it");
    EXPECT_EQ(scenario.ambientCelsius, 25.5);
    EXPECT_EQ(scenario.ambientByMonth.at(11), 20);
    EXPECT_FALSE(scenario.householdPresent);
    EXPECT_EQ(scenario.seed, 9U);
    EXPECT_TRUE(scenario.defrostDelay);
    EXPECT_EQ(scenario.parameters.fridgeSetCelsius, 4);
    const Programme &programme = scenario.programmes.at(0);
    EXPECT_THAT(programme.days.months, ElementsAre(8));
    EXPECT_THAT(programme.days.weekdays, ElementsAre(0, 4));
    EXPECT_EQ(programme.days.dates.size(), 2U);
    EXPECT_THAT(programme.startSecs, ElementsAre(16 * 3600 + 1800));
    EXPECT_EQ(programme.durationSec, 7200);
    EXPECT_EQ(programme.leadSec, 3600);
    EXPECT_EQ(programme.limit, 2);
    EXPECT_EQ(scenario.reservations.at(0).lastDay, "02-29");
    EXPECT_EQ(scenario.reservations.at(0).periodSec, 4 * 3600 + 30);
    EXPECT_EQ(scenario.faults.at(0).kind, FaultKind::ClockWrong);
    EXPECT_EQ(scenario.faults.at(0).offsetSec, -3600);
    EXPECT_EQ(scenario.expect.energyBelowKwh, 400);
    EXPECT_TRUE(scenario.expect.everyEventConfirmed);
}

struct Mistake {
    const char *name;
    std::string more; // begins in line 4
    const char *line;
};

/* For the list of tests, which would show its bytes. */
void PrintTo(const Mistake &mistake, std::ostream *stream) { *stream << mistake.name; }

class Refused : public ::testing::TestWithParam<Mistake> {};

TEST_P(Refused, WithOneLineThatSaysWhatIsExpected) {
    EXPECT_EQ(refusalOf(GetParam().more), GetParam().line);
}

const std::string kEvening = "level = 3\nfrom = \"18:00\"\nto = \"21:00\"\n";

INSTANTIATE_TEST_SUITE_P(
    Scenarios, Refused,
    ::testing::Values(
        Mistake{"UnknownMember", "speed = 3\n",
                "file.toml:4: speed: is not a member; expected one of appliance, expect, fault, "
                "from, household, programme, reservation, title, to, zone"},
        Mistake{"UnknownMemberOfTable", "[household]\nambient = 20\n",
                "file.toml:5: household.ambient: is not a member; expected one of "
                "ambient-by-month-celsius, ambient-celsius, doors, seed"},
        Mistake{"NumberOutOfRange", "[household]\nambient-celsius = 60\n",
                "file.toml:5: household.ambient-celsius: expected a number from 5 to 43, not 60"},
        Mistake{
            "NumberThatIsText", "[household]\nambient-celsius = \"warm\"\n",
            "file.toml:5: household.ambient-celsius: expected a number from 5 to 43, not \"warm\""},
        Mistake{"TooFewMonths", "[household]\nambient-by-month-celsius = [20]\n",
                "file.toml:5: household.ambient-by-month-celsius: expected a list of 12 numbers "
                "from 5 to 43, not [ 20 ]"},
        Mistake{"WordOfNoChoice", "[household]\ndoors = \"cat\"\n",
                "file.toml:5: household.doors: expected one of family, nobody, not \"cat\""},
        Mistake{"WholeNumberWithFraction", "[household]\nseed = 1.5\n",
                "file.toml:5: household.seed: expected a whole number from 0 to "
                "9223372036854775807, not 1.5"},
        Mistake{"FlagThatIsNumber", "[appliance]\ndefrost-delay = 1\n",
                "file.toml:5: appliance.defrost-delay: expected true or false, not 1"},
        Mistake{"TableThatIsNumber", "appliance = 1\n",
                "file.toml:4: appliance: expected a table, written [appliance], not 1"},
        Mistake{"TablesThatAreOne", "[programme]\nlevel = 3\n",
                "file.toml:4: programme: expected tables, each written [[programme]], not a table"},
        Mistake{"MissingLevel", programme("from = \"18:00\"\nto = \"21:00\"\n"),
                "file.toml:4: programme.level: is missing; expected a whole number from 1 to 4"},
        Mistake{"LevelOutOfRange", programme("level = 5\n"),
                "file.toml:5: programme.level: expected a whole number from 1 to 4, not 5"},
        Mistake{"NoTimes", programme("level = 3\n"),
                "file.toml:4: programme: expected either from and to, or start (or starts) and "
                "duration"},
        Mistake{"TwoKindsOfTimes", programme(kEvening + "duration = \"01:00\"\n"),
                "file.toml:4: programme: expected either from and to, or start (or starts) and "
                "duration"},
        Mistake{"TimeOfDayThatIsNone", programme("level = 3\nfrom = \"25:00\"\n"),
                "file.toml:6: programme.from: expected a time of day from \"00:00\" to "
                "\"23:59:59\", not \"25:00\""},
        Mistake{"LengthOfNothing",
                programme("level = 3\nstart = \"18:00\"\nduration = \"00:00\"\n"),
                "file.toml:7: programme.duration: expected a length from \"00:01\" to "
                "\"23:59:59\", not \"00:00\""},
        Mistake{"MonthThatIsNone", programme(kEvening + "months = [\"brumaire\"]\n"),
                "file.toml:8: programme.months: expected a list of months such as [\"june\", "
                "\"july\"], not \"brumaire\""},
        Mistake{"WeekdayThatIsNone", programme(kEvening + "weekdays = [1]\n"),
                "file.toml:8: programme.weekdays: expected a list of weekdays such as [\"mon\", "
                "\"wed\"], not 1"},
        Mistake{"EveryAndWeekdays",
                programme(kEvening + "weekdays = [\"mon\"]\nevery = \"weekday\"\n"),
                "file.toml:9: programme.every: expected either every or weekdays, not both"},
        Mistake{"DateThatIsText", programme(kEvening + "dates = [\"tomorrow\"]\n"),
                "file.toml:8: programme.dates: expected a list of dates such as [2026-08-03, "
                "2026-08-05], not \"tomorrow\""},
        Mistake{"DateOutsideThePeriod", programme(kEvening + "dates = [2026-09-01]\n"),
                "file.toml:8: programme.dates: expected dates from the scenario's first day to its "
                "last"},
        Mistake{"DayOfTheYearThatIsNone", "[[reservation]]\nfirst-day = \"02-30\"\n",
                "file.toml:5: reservation.first-day: expected a day of the year such as \"06-01\", "
                "not \"02-30\""},
        Mistake{"DescriptionThatWouldBreakAStatement", "[[reservation]]\ndescription = \"a'b\"\n",
                "file.toml:5: reservation.description: expected a text without quotes "
                "and backslashes"},
        Mistake{"FaultOfNoKind", "[[fault]]\nkind = \"earthquake\"\n",
                "file.toml:5: fault.kind: expected one of micom-silent, micom-slow, micom-drops, "
                "micom-wrong-echo, micom-restart, wifi-lost, metering-refuses, metering-hangs, "
                "database-busy, disk-full, io-error, clock-wrong, override, restart, kill, "
                "power-cut, not \"earthquake\""},
        Mistake{"FaultWithoutLength",
                "[[fault]]\nkind = \"wifi-lost\"\ndate = 2026-08-03\nstart = \"12:00\"\n",
                "file.toml:4: fault.duration: is missing; expected a length such as \"01:00\""},
        Mistake{"InstantWithLength",
                "[[fault]]\nkind = \"kill\"\ndate = 2026-08-03\nstart = \"12:00\"\nduration = "
                "\"01:00\"\n",
                "file.toml:8: fault.duration: expected none: kill happens in an instant"},
        Mistake{"FaultOutsideThePeriod", "[[fault]]\nkind = \"kill\"\ndate = 2026-09-01\n",
                "file.toml:6: fault.date: expected a date from the scenario's first day to its "
                "last"},
        Mistake{"OffsetOfAnotherFault",
                "[[fault]]\nkind = \"kill\"\ndate = 2026-08-03\nstart = \"12:00\"\noffset-sec = "
                "1\n",
                "file.toml:8: fault.offset-sec: expected only with kind clock-wrong"},
        Mistake{"TextThatIsTooLong", "title = \"" + std::string(121, 'x') + "\"\n",
                "file.toml:4: title: expected a text of 1 to 120 bytes, not "
                "\"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx…\""}),
    [](const auto &parameter) { return parameter.param.name; });

TEST(ScenarioReader, RefusesAPeriodThatIsNone) {
    EXPECT_EQ(refusal("to = 2026-08-01\n"),
              "file.toml:1: from: is missing; expected a date such as 2026-08-01");
    EXPECT_EQ(refusal("from = 2026-08-02\nto = 2026-08-01\n"),
              "file.toml:2: to: expected a date not before from");
    EXPECT_EQ(refusal("from = 2026-08-02\nto = 2036-08-01\n"),
              "file.toml:2: to: expected at most three years after from");
    EXPECT_EQ(refusal("from = 2014-08-02\nto = 2014-08-03\n"),
              "file.toml:1: from: expected a period from 2016 to 2037");
    EXPECT_EQ(refusal("from = \"August\"\n"),
              "file.toml:1: from: expected a date such as 2026-08-01, not \"August\"");
}

TEST(ScenarioReader, RefusesAZoneThatIsNone) {
    EXPECT_EQ(refusal("from = 2026-08-01\nto = 2026-08-02\nzone = \"Europe/Atlantis\"\n"),
              "file.toml:3: zone: expected a time zone such as \"Europe/Berlin\", not "
              "\"Europe/Atlantis\"");
    EXPECT_EQ(refusal("from = 2026-08-01\nto = 2026-08-02\nzone = \"../../etc/passwd\"\n"),
              "file.toml:3: zone: expected a time zone such as \"Europe/Berlin\", not "
              "\"../../etc/passwd\"");
}

TEST(ScenarioReader, NamesTheLineOfWhatIsNoToml) {
    EXPECT_EQ(refusalOf("[[programme\n").substr(0, 12), "file.toml:4:");
}

TEST(ScenarioReader, SaysWhatToDoAboutAFileThatIsNotThere) {
    try {
        (void)readScenario("/nowhere/a.toml");
        FAIL() << "accepted";
    } catch (const ScenarioError &error) {
        EXPECT_STREQ(error.what(), "/nowhere/a.toml: cannot be read; give the path of a scenario "
                                   "file, such as lab/scenarios/august-evenings.toml");
    }
}

TEST(ScenarioReader, AcceptsEveryScenarioThatIsShipped) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(SCENARIOS)) {
        EXPECT_NO_THROW((void)readScenario(entry.path().string())) << entry.path();
        ++count;
    }
    EXPECT_GE(count, 7);
}

} // namespace
