/* The defrost cycle by itself, then in the refrigerator, where holds come from orders and levels.
 */
#include "defrost.h"

#include <gtest/gtest.h>

#include "virtual_days.h"

namespace corvane::appliance {
namespace {

constexpr double kHourSec = 3600;
const double kWarmestCelsius = Parameters().defrostWarmestFoodCelsius + 0.01;

struct DefrostCycle : testing::Test {
    Parameters parameters;
    Defrost defrost{parameters};

    /* Compressor time with the doors shut, controlled every ten seconds. */
    void run(double hours, bool held = false, bool inhibited = false) {
        for (int step = 0; step < static_cast<int>(hours * 360); ++step) {
            defrost.pass(10, !defrost.active(), false);
            defrost.control(held, inhibited);
        }
    }
};

TEST_F(DefrostCycle, IsDueAfter14HoursOfCompressorTimeWithDoorsShut) {
    run(13.9);
    EXPECT_FALSE(defrost.heaterOn());
    EXPECT_NEAR(defrost.leftSec(), 0.1 * kHourSec, 1);
    run(0.11);
    EXPECT_TRUE(defrost.heaterOn());
}

TEST_F(DefrostCycle, IsDueAfter10HoursWhenDoorsWereOpenMuch) {
    defrost.pass(3600, false, true);
    run(9.9);
    EXPECT_FALSE(defrost.heaterOn());
    run(0.11);
    EXPECT_TRUE(defrost.heaterOn());
}

TEST_F(DefrostCycle, TimeWithoutCompressorDoesNotCount) {
    defrost.pass(100 * kHourSec, false, false);
    defrost.control(false, false);
    EXPECT_NEAR(defrost.leftSec(), 14 * kHourSec, 1);
    EXPECT_FALSE(defrost.active());
}

TEST_F(DefrostCycle, HeatsAboutTwentyMinutesThenDripsThenCountsAnew) {
    run(13.99);
    const auto step = [this] {
        defrost.pass(10, !defrost.active(), false);
        defrost.control(false, false);
    };
    while (!defrost.heaterOn()) {
        step();
    }
    int heatingSec = 0;
    while (defrost.heaterOn()) {
        step();
        heatingSec += 10;
    }
    EXPECT_NEAR(heatingSec, 20 * 60, 130);
    EXPECT_EQ(defrost.phase(), Defrost::Phase::Dripping);
    EXPECT_EQ(defrost.cycles(), 1);
    run(parameters.defrostDripSec / kHourSec + 0.01);
    EXPECT_EQ(defrost.phase(), Defrost::Phase::Counting);
    EXPECT_NEAR(defrost.leftSec(), 14 * kHourSec, 60);
}

TEST_F(DefrostCycle, IsLongerWithMoreFrost) {
    Defrost frosted(parameters);
    frosted.pass(14 * kHourSec, true, true);
    frosted.control(false, false);
    defrost.pass(14 * kHourSec, true, false);
    defrost.control(false, false);
    EXPECT_GT(frosted.phaseLeftSec(), defrost.phaseLeftSec() + 100);
}

TEST_F(DefrostCycle, WaitsWhileHeldAndRunsOnceAfterwards) {
    run(19.9, true);
    EXPECT_TRUE(defrost.due());
    EXPECT_FALSE(defrost.heaterOn());
    run(12);
    EXPECT_EQ(defrost.cycles(), 1);
}

TEST_F(DefrostCycle, SafetyLimitEndsAHold) {
    run(19.99, true);
    EXPECT_FALSE(defrost.heaterOn());
    run(0.02, true);
    EXPECT_TRUE(defrost.heaterOn());
    run(12, true);
    EXPECT_EQ(defrost.cycles(), 1); // and the next one is held again
    EXPECT_FALSE(defrost.active());
}

TEST_F(DefrostCycle, DoesNotStartWhileInhibited) {
    run(25, true, true);
    EXPECT_EQ(defrost.cycles(), 0);
    EXPECT_FALSE(defrost.active());
    EXPECT_NEAR(defrost.overdueSec(), 5 * kHourSec, 20);
}

TEST_F(DefrostCycle, AnInterruptedCycleIsDueAgainAsAWhole) {
    run(14.2);
    ASSERT_TRUE(defrost.heaterOn());
    defrost.interrupt();
    EXPECT_FALSE(defrost.active());
    EXPECT_TRUE(defrost.due());
    defrost.control(false, false);
    EXPECT_NEAR(defrost.phaseLeftSec(), parameters.defrostShortestSec, 1);
    EXPECT_EQ(defrost.cycles(), 0);
}

// --- In the refrigerator

/* A refrigerator whose next defrost is due within an hour of compressor time. */
Refrigerator almostDue(std::uint64_t seed = 1) {
    Refrigerator refrigerator(seed, kBegin);
    while (refrigerator.defrost().active() || refrigerator.defrost().leftSec() > 3600) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    return refrigerator;
}

/* Whether the heater is on at any time within the next hours. */
bool heatsWithin(Refrigerator &refrigerator, double hours) {
    bool heated = false;
    live(refrigerator, refrigerator.at() + afterHours(hours) - kBegin,
         [&] { heated = heated || refrigerator.defrost().heaterOn(); });
    return heated;
}

TEST(DefrostInRefrigerator, ComesEvery10To14CompressorHoursAndTakes200WattFor20Minutes) {
    Refrigerator refrigerator(1, kBegin);
    int cycles = 0;
    double compressorSec = 0;
    double heaterSec = 0;
    double leastHeaterWatt = 1e9;
    live(refrigerator, afterHours(60 * 24), [&] {
        if (refrigerator.compressorOn()) {
            compressorSec += 10;
        }
        if (refrigerator.defrost().heaterOn()) {
            ASSERT_FALSE(refrigerator.compressorOn());
            heaterSec += 10;
            leastHeaterWatt = std::min(leastHeaterWatt, refrigerator.powerWatt());
        }
        if (refrigerator.defrost().cycles() > cycles) {
            ASSERT_EQ(refrigerator.defrost().cycles(), ++cycles);
            if (cycles > 1) { // the first is not whole
                EXPECT_GE(compressorSec, 10 * kHourSec - 60);
                EXPECT_LE(compressorSec,
                          14 * kHourSec + 2 * kHourSec); // freezer may have to recover
            }
            EXPECT_NEAR(heaterSec, 20 * 60, 130);
            compressorSec = 0;
            heaterSec = 0;
        }
    });
    EXPECT_GT(cycles, 60);
    EXPECT_GE(leastHeaterWatt, 200);
    EXPECT_LE(leastHeaterWatt, 215);
}

TEST(DefrostInRefrigerator, IsHeldByOrderAndRunsOnceWhenTheHoldEnds) {
    Refrigerator free = almostDue();
    ASSERT_TRUE(heatsWithin(free, 6)); // it would have run without the hold

    Refrigerator held = almostDue();
    const int before = held.defrost().cycles();
    held.setDefrostHold(true, held.at());
    EXPECT_FALSE(heatsWithin(held, 6));
    EXPECT_TRUE(held.state().defrost.held);
    EXPECT_TRUE(held.state().defrost.due);
    held.setDefrostHold(false, held.at());
    EXPECT_TRUE(heatsWithin(held, 0.1));
    EXPECT_FALSE(held.state().defrost.held);
    heatsWithin(held, 9);
    EXPECT_EQ(held.defrost().cycles(), before + 1);
}

TEST(DefrostInRefrigerator, HoldThatLastsTooLongIsEndedByTheSafetyLimit) {
    Refrigerator refrigerator = almostDue();
    refrigerator.setDefrostHold(true, refrigerator.at());
    double compressorSec = refrigerator.defrost().memory().compressorSec;
    while (!refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
        compressorSec += refrigerator.compressorOn() ? 10 : 0;
        ASSERT_LT(compressorSec, 20.5 * kHourSec);
    }
    EXPECT_GE(compressorSec, 20 * kHourSec - 60);
    EXPECT_TRUE(refrigerator.state().defrost.held);
}

TEST(DefrostInRefrigerator, IsHeldByEveryLevelAndRunsOnceAfterIt) {
    for (int level = 1; level <= kHighestLevel; ++level) {
        Refrigerator refrigerator = almostDue();
        const int before = refrigerator.defrost().cycles();
        refrigerator.setLevel(level, refrigerator.at());
        EXPECT_FALSE(heatsWithin(refrigerator, 4)) << level;
        EXPECT_TRUE(refrigerator.state().defrost.held) << level;
        refrigerator.setLevel(0, refrigerator.at());
        EXPECT_TRUE(heatsWithin(refrigerator, 6)) << level;
        heatsWithin(refrigerator, 4);
        EXPECT_EQ(refrigerator.defrost().cycles(), before + 1) << level;
    }
}

TEST(DefrostInRefrigerator, LevelIsSetAsideForACycleThatIsOverdue) {
    Parameters hot; // hours of the compressor add up
    hot.ambientMeanCelsius = 32;
    Refrigerator refrigerator(1, kBegin, hot);
    refrigerator.setLevel(3, kBegin);
    while (!refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
        ASSERT_LT(refrigerator.at(), afterHours(48));
    }
    EXPECT_GE(refrigerator.defrost().overdueSec(), 0);
    EXPECT_LT(refrigerator.defrost().overdueSec(), 3 * kHourSec); // the freezer got cold by then
    EXPECT_LE(refrigerator.temperatures().freezerFood, kWarmestCelsius);
    EXPECT_TRUE(refrigerator.state().foodLimitActive);
}

TEST(DefrostInRefrigerator, HoldTellsSinceWhen) {
    Refrigerator refrigerator(1, kBegin);
    EXPECT_FALSE(refrigerator.state().defrost.heldSinceAt);
    refrigerator.setDefrostHold(true, afterHours(3));
    refrigerator.setDefrostHold(true, afterHours(4)); // told again, as the service does
    refrigerator.advance(afterHours(5));
    EXPECT_EQ(refrigerator.state().defrost.heldSinceAt, afterHours(3));
    refrigerator.setDefrostHold(false, afterHours(6));
    EXPECT_FALSE(refrigerator.state().defrost.heldSinceAt);
}

TEST(DefrostInRefrigerator, IsFinishedUnderADelayAndCutShortByAReduction) {
    for (int level = 1; level <= kHighestLevel; ++level) {
        Refrigerator refrigerator = almostDue();
        while (!refrigerator.defrost().heaterOn()) {
            refrigerator.advance(refrigerator.at() + kLookMs);
        }
        refrigerator.setLevel(level, refrigerator.at());
        EXPECT_EQ(refrigerator.defrost().heaterOn(), level == 1) << level;
        EXPECT_EQ(refrigerator.powerWatt() > 200, level == 1) << level;
    }
}

TEST(DefrostInRefrigerator, OverrideLetsADueCycleRunThatALevelHeldButNotOneHeldByOrder) {
    Refrigerator refrigerator = almostDue();
    refrigerator.setLevel(1, refrigerator.at());
    ASSERT_FALSE(heatsWithin(refrigerator, 4));
    ASSERT_TRUE(refrigerator.defrost().due());
    Refrigerator ordered = refrigerator;
    ordered.setDefrostHold(true, ordered.at());
    ordered.setOverride(true, ordered.at());
    EXPECT_FALSE(heatsWithin(ordered, 1));
    refrigerator.setOverride(true, refrigerator.at());
    EXPECT_TRUE(heatsWithin(refrigerator, 1));
}

TEST(DefrostInRefrigerator, WaitsUntilAWarmFreezerHasRecovered) {
    Refrigerator refrigerator = almostDue();
    refrigerator.setLevel(4, refrigerator.at());
    refrigerator.advance(refrigerator.at() + afterHours(4) - kBegin);
    refrigerator.setOverride(true, refrigerator.at());
    ASSERT_GT(refrigerator.temperatures().freezerFood, kWarmestCelsius);
    while (!refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    EXPECT_LE(refrigerator.temperatures().freezerFood, kWarmestCelsius);
}

} // namespace
} // namespace corvane::appliance
