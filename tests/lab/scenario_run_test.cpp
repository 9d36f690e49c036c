/*
 * Scenarios run with the service itself: short ones, so that a year's rules hold in seconds.
 */
#include <fakes.h>
#include <scenario_run.h>

#include <gmock/gmock.h>

#include <algorithm>

namespace {

using namespace corvane::lab;
using ::testing::ElementsAre;

const std::string kEvening = "from = 2026-06-17\nto = 2026-06-17\nzone = \"Europe/Berlin\"\n"
                             "[[programme]]\nlevel = 3\nfrom = \"06:00\"\nto = \"08:00\"\n";

Scenario scenario(const std::string &more = "") {
    return parseScenario(kEvening + more, "scenario.toml");
}

std::string fault(const std::string &kind, const std::string &start, const std::string &more = "") {
    return "[[fault]]\nkind = \"" + kind + "\"\ndate = 2026-06-17\nstart = \"" + start + "\"\n" +
           more;
}

RunResult run(const Scenario &scenario, bool withProgramme = true, std::uint64_t seed = 1) {
    return runScenario(scenario, {.seed = seed, .withProgramme = withProgramme});
}

std::vector<std::string> texts(const RunResult &run, NoteKind kind) {
    std::vector<std::string> all;
    for (const Note &note : run.notes)
        if (note.kind == kind)
            all.push_back(note.text);
    return all;
}

double meanWatt(const RunResult &run, std::size_t begin, std::size_t end) {
    double sum = 0;
    for (std::size_t minute = begin; minute < end; ++minute)
        sum += run.minutes.at(minute).watt;
    return sum / static_cast<double>(end - begin);
}

TEST(ScenarioRun, OrdersCommandsConfirmsAndEndsAnEvent) {
    const Scenario day = scenario();
    const RunResult result = run(day);
    const PlannedEvent event = planEvents(day).at(0);
    ASSERT_EQ(result.minutes.size(), 1440U);
    const EventFate &fate = result.fates.at(0);
    EXPECT_EQ(fate.attempts, 1);
    EXPECT_EQ(fate.acceptedMs, event.orderMs);
    EXPECT_GE(fate.commandedMs, event.startMs);
    EXPECT_LE(fate.commandedMs, event.startMs + 1'000);
    EXPECT_LE(fate.confirmedMs, event.startMs + 5'000);
    EXPECT_GE(fate.endedMs, event.endMs);
    EXPECT_LE(fate.endedMs, event.endMs + 2'000);
    EXPECT_EQ(result.minutes.at(7 * 60).level, 3);
    EXPECT_EQ(result.minutes.at(9 * 60).level, 0);
    EXPECT_EQ(result.lives, 1);
}

TEST(ScenarioRun, IsWatchedByTheJudge) {
    EXPECT_GT(run(scenario()).judgedSteps, 86'400U); // once a second and more
}

/* The wrong command stands for a service that has gone wrong. */
TEST(ScenarioRun, InWhichARuleIsBrokenEndsWithItsNameAndMoment) {
    const auto say = [](double) {
        fakes::settings::set("memory/refrigerator/TxMessage", std::string("DANCE"));
    };
    try {
        (void)runScenario(scenario(), {.seed = 1, .onProgress = say});
        FAIL() << "nothing was broken";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(),
                     "a rule is broken at 2026-06-17 04:00:00: every Micom text is in "
                     "the vocabulary: \"DANCE\" is not");
    }
}

TEST(ScenarioRun, OfTheSameSeedIsTheSame) {
    RunResult first = run(scenario());
    RunResult second = run(scenario());
    first.realSec = second.realSec = 0;
    EXPECT_EQ(toBytes(first), toBytes(second));
}

TEST(ScenarioRun, WithoutTheProgrammeIsEqualUntilTheFirstEvent) {
    const RunResult with = run(scenario());
    const RunResult without = run(scenario(), false);
    for (std::size_t minute = 0; minute < 6 * 60; ++minute)
        ASSERT_EQ(with.minutes[minute].watt, without.minutes[minute].watt) << minute;
    EXPECT_LT(meanWatt(with, 360, 480), meanWatt(without, 360, 480));
    EXPECT_TRUE(without.fates.empty());
}

TEST(ScenarioRun, PostsTheEnergyThatWasUsed) {
    const RunResult result = run(scenario());
    const double usedWh = meanWatt(result, 0, 1440) * 24;
    EXPECT_NEAR(static_cast<double>(result.postedCounts) / 100, usedWh, usedWh * 0.01);
}

TEST(ScenarioRun, AKilledServiceGoesOnWithItsEvent) {
    const RunResult result = run(scenario(fault("kill", "07:00")));
    EXPECT_EQ(result.lives, 2);
    EXPECT_EQ(result.minutes.size(), 1440U);
    EXPECT_EQ(result.minutes.at(7 * 60 + 30).level, 3);
    EXPECT_EQ(result.minutes.at(9 * 60).level, 0);
}

TEST(ScenarioRun, APowerCutTakesTheMicomAlongAndTheLevelIsCommandedAgain) {
    const RunResult result = run(scenario(fault("power-cut", "07:00")));
    EXPECT_EQ(result.lives, 2);
    const auto commands = texts(result, NoteKind::Command);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "SET_SMARTGRID_LEVEL3"), 2);
    EXPECT_EQ(result.minutes.at(7 * 60 + 5).level, 3);
    EXPECT_EQ(result.minutes.at(9 * 60).level, 0);
    EXPECT_THAT(texts(result, NoteKind::Fault), ElementsAre("power-cut"));
}

TEST(ScenarioRun, ACleanRestartLeavesNothingBehind) {
    EXPECT_EQ(run(scenario(fault("restart", "07:00"))).lives, 2);
}

TEST(ScenarioRun, AnOrderThatIsNotDeliveredIsTriedAgain) {
    const RunResult result = run(scenario(fault("wifi-lost", "05:00", "duration = \"00:45\"\n")));
    EXPECT_GT(result.fates.at(0).attempts, 10);
    EXPECT_EQ(result.refusals, result.fates.at(0).attempts - 1);
    EXPECT_NE(result.fates.at(0).confirmedMs, 0);
}

TEST(ScenarioRun, ASilentMicomConfirmsNothing) {
    const RunResult result =
        run(scenario(fault("micom-silent", "05:55", "duration = \"03:00\"\n")));
    EXPECT_NE(result.fates.at(0).commandedMs, 0);
    EXPECT_EQ(result.fates.at(0).confirmedMs, 0);
}

TEST(ScenarioRun, AnOverrideLetsTheRefrigeratorCoolDuringTheEvent) {
    const RunResult result = run(scenario(fault("override", "06:30", "duration = \"01:00\"\n")));
    EXPECT_FALSE(result.minutes.at(6 * 60 + 20).override);
    EXPECT_TRUE(result.minutes.at(7 * 60).override);
    EXPECT_FALSE(result.minutes.at(7 * 60 + 45).override);
}

TEST(ScenarioRun, EveryFaultLetsTheRunGoOn) {
    std::string faults;
    for (const char *kind : {"micom-slow", "micom-drops", "micom-wrong-echo", "metering-refuses",
                             "metering-hangs", "database-busy", "disk-full", "io-error"})
        faults += fault(kind, "05:20", "duration = \"00:20\"\n");
    faults += fault("micom-restart", "05:45") +
              fault("clock-wrong", "03:00", "duration = \"01:00\"\noffset-sec = -86400\n");
    const RunResult result = run(scenario(faults));
    EXPECT_EQ(result.minutes.size(), 1440U);
    EXPECT_EQ(texts(result, NoteKind::Fault).size(), 2 * 9 + 1U);
    EXPECT_EQ(result.minutes.at(9 * 60).level, 0);
}

TEST(ScenarioRun, DefrostDelayComesBackAfterAnEvent) {
    const RunResult result = run(scenario("[appliance]\ndefrost-delay = true\n"));
    const auto said = texts(result, NoteKind::Notification);
    EXPECT_EQ(std::count(said.begin(), said.end(), "SendDelayDefrostNotify(true)"), 2);
    // The service's summer season holds defrosts from 15:00 to 19:00.
    EXPECT_FALSE(result.minutes.at(14 * 60).defrostHeld);
    EXPECT_TRUE(result.minutes.at(16 * 60).defrostHeld);
}

TEST(ScenarioRun, ReservationsOfTheScenarioAreMade) {
    const RunResult result =
        run(scenario("[[reservation]]\nfirst-day = \"06-01\"\nlast-day = \"06-30\"\n"
                     "start = \"10:00\"\nperiod = \"01:00\"\n[appliance]\ndefrost-delay = true\n"));
    EXPECT_TRUE(result.minutes.at(10 * 60 + 30).defrostHeld);
    EXPECT_FALSE(result.minutes.at(16 * 60).defrostHeld);
}

TEST(ScenarioRun, AReturnThatIsNotSpreadBeginsAtOnce) {
    const Scenario day = scenario();
    const RunResult atOnce = runScenario(day, {.seed = 1, .spreadReturn = false});
    EXPECT_GT(meanWatt(atOnce, 8 * 60 + 2, 8 * 60 + 12),
              meanWatt(run(day), 8 * 60 + 2, 8 * 60 + 12));
}

} // namespace
