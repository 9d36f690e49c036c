/*
 * Whole runs: a run is a function of its seed, whatever befalls it.
 */
#include "runs.h"

#include <gmock/gmock.h>

namespace {

using corvane::lab::Result;
using corvane::lab::Setup;

Result run(std::uint64_t seed, double days, bool hasWeather) {
    Setup setup;
    setup.seed = seed;
    setup.days = days;
    setup.hasWeather = hasWeather;
    return corvane::lab::runOnce(setup);
}

TEST(LabRun, SameSeedGivesTheSameTrace) {
    const Result first = run(10, 0.3, true);
    const Result again = run(10, 0.3, true);
    EXPECT_EQ(first.hash, again.hash);
    EXPECT_EQ(first.steps, again.steps);
    EXPECT_NE(first.hash, run(11, 0.3, true).hash);
}

TEST(LabRun, WithoutWeatherNoRuleIsBroken) {
    const Result result = run(1, 0.3, false);
    EXPECT_FALSE(result.isBroken) << result.report;
    EXPECT_EQ(result.lives, 1);
    EXPECT_GE(result.virtualSec, 0.3 * 86'400);
}

TEST(LabRun, BoardThatIsSuspendedMissesNothingThatIsDue) {
    corvane::lab::Setup setup;
    setup.seed = 1; // its weather suspends, and has neither requests nor hanging transfers
    setup.days = 1;
    const Result suspended = corvane::lab::runOnce(setup);
    EXPECT_FALSE(suspended.isBroken) << suspended.report;
    EXPECT_GE(suspended.virtualSec, 86'400);
    EXPECT_GT(suspended.suspendedSec, 0.5 * 86'400);
    setup.staysAwake = true;
    const Result awake = corvane::lab::runOnce(setup);
    EXPECT_EQ(awake.suspendedSec, 0);
    EXPECT_GT(awake.steps, 2 * suspended.steps);
}

} // namespace
