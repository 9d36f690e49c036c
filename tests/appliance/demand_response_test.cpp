/*
 * What the levels do, compared with the same refrigerator in the same days without them; the
 * override; and how normal operation comes back.
 */
#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "refrigerator.h"
#include "virtual_days.h"

namespace corvane::appliance {
namespace {

/* The same refrigerator twice at a time, once with the level just ordered. */
struct Pair {
    Refrigerator normal;
    Refrigerator reduced;

    Pair(const Refrigerator &refrigerator, int level)
        : normal(refrigerator), reduced(refrigerator) {
        reduced.setLevel(level, reduced.at());
    }
    Pair(std::uint64_t seed, double startHours, int level) : Pair(lived(seed, startHours), level) {}

    static Refrigerator lived(std::uint64_t seed, double hours) {
        Refrigerator refrigerator(seed, kBegin);
        refrigerator.advance(afterHours(hours));
        return refrigerator;
    }

    /* The share of energy saved over a time from the order on. */
    double savedOver(double hours) {
        const TimeMs end = normal.at() + afterHours(hours) - kBegin;
        return 1 - energyUntil(reduced, end) / energyUntil(normal, end);
    }
};

/* What a level saves over a time: for 25 seeds, each at several times of the day. */
template <typename Check>
void forManyEvents(int level, double hours, Check check) {
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
        Refrigerator refrigerator(seed, kBegin);
        for (const double start : {25.3, 28.4, 31.1, 36.7, 42.2, 45.9}) {
            refrigerator.advance(afterHours(start));
            SCOPED_TRACE("level " + std::to_string(level) + ", seed " + std::to_string(seed) +
                         " at hour " + std::to_string(start));
            check(Pair(refrigerator, level).savedOver(hours));
        }
    }
}

/* The fridge's set-point under a level. */
double fridgeSetCelsius(std::size_t level) {
    const Parameters p;
    return p.fridgeSetCelsius + p.levels.at(level).fridgeWarmerKelvin;
}

// --- Goals

TEST(DemandResponseGoal, DelaySavesAtLeast13PercentOfTheEnergyOver4Hours) {
    forManyEvents(1, 4, [](double saved) { EXPECT_GE(saved, 0.13); });
}

TEST(DemandResponseGoal, StrongLevelsHalveThePowerOver10Minutes) {
    for (const int level : {3, 4}) {
        forManyEvents(level, 1.0 / 6, [](double saved) { EXPECT_GE(saved, 0.5); });
    }
}

TEST(DemandResponseGoal, StrongLevelsAfterWeakOnesHalveThePowerToo) {
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
        for (const int weak : {1, 2}) {
            Pair pair(seed, 30, weak);
            pair.normal.advance(afterHours(31));
            pair.reduced.advance(afterHours(31));
            pair.reduced.setLevel(3, afterHours(31));
            EXPECT_GE(pair.savedOver(1.0 / 6), 0.5) << "seed " << seed << ", from level " << weak;
        }
    }
}

TEST(DemandResponseGoal, EachLevelSavesMoreThanTheOneBelow) {
    double below = 0;
    for (int level = 1; level <= kHighestLevel; ++level) {
        double sum = 0;
        int events = 0;
        forManyEvents(level, 2, [&](double saved) {
            sum += saved;
            ++events;
        });
        EXPECT_GT(sum / events, below + 0.03) << level;
        below = sum / events;
    }
    EXPECT_GT(below, 0.8);
}

// --- Levels

TEST(DemandResponseLevel, DelayHoldsDefrostIceMakerAndAntiSweatHeaterButNotCooling) {
    int heatedWithout = 0;
    int iceWithout = 0;
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        Pair pair(seed, 28, 1);
        while (pair.reduced.defrost().active()) { // one that runs may end
            pair.reduced.advance(pair.reduced.at() + kLookMs);
        }
        live(pair.reduced, afterHours(36), [&pair] {
            const RefrigeratorState state = pair.reduced.state();
            ASSERT_FALSE(state.defrost.heaterOn);
            ASSERT_FALSE(state.iceMakerOn);
            ASSERT_FALSE(state.antiSweatOn);
            ASSERT_EQ(state.fridgeSetCelsius, Parameters().fridgeSetCelsius);
            ASSERT_EQ(state.freezerSetCelsius, Parameters().freezerSetCelsius);
            ASSERT_EQ(state.mode, Mode::Delay);
            ASSERT_LT(state.powerWatt, 130);
        });
        live(pair.normal, afterHours(36), [&] {
            heatedWithout += pair.normal.defrost().heaterOn() ? 1 : 0;
            iceWithout += pair.normal.state().iceMakerOn ? 1 : 0;
            ASSERT_TRUE(pair.normal.state().antiSweatOn);
        });
    }
    EXPECT_GT(heatedWithout, 0);
    EXPECT_GT(iceWithout, 0);
}

TEST(DemandResponseLevel, ModerateAndStrongSetBackTheSetPointsAndTheCapacity) {
    for (const int level : {2, 3}) {
        const Parameters p;
        const LevelParameters &expected = p.levels.at(static_cast<std::size_t>(level));
        Pair pair(1, 30, level);
        const RefrigeratorState state = pair.reduced.state();
        EXPECT_NEAR(state.fridgeSetCelsius, p.fridgeSetCelsius + expected.fridgeWarmerKelvin, 1e-9);
        EXPECT_NEAR(state.freezerSetCelsius, p.freezerSetCelsius + expected.freezerWarmerKelvin,
                    1e-9);
        EXPECT_EQ(state.mode, level == 2 ? Mode::Moderate : Mode::Strong);
        pair.reduced.setDoor(Compartment::Freezer, true, pair.reduced.at()); // asks for much
        pair.normal.setDoor(Compartment::Freezer, true, pair.normal.at());
        double capacity = 0;
        double capacityWithout = 0;
        live(pair.reduced, afterHours(30.5), [&] {
            if (!pair.reduced.state().foodLimitActive) {
                capacity = std::max(capacity, pair.reduced.compressorCapacity());
            }
        });
        live(pair.normal, afterHours(30.5), [&] {
            capacityWithout = std::max(capacityWithout, pair.normal.compressorCapacity());
        });
        EXPECT_NEAR(capacity, expected.capacityLimit, 1e-9) << level;
        EXPECT_GT(capacityWithout, 0.9);
    }
}

TEST(DemandResponseLevel, StrongBeginsWithTheCompressorOff) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Pair pair(seed, 30, 3);
        pair.reduced.advance(afterHours(30) + 60'000); // its minimum on time at the most
        live(pair.reduced, afterHours(30) + 890'000,
             [&pair] { ASSERT_FALSE(pair.reduced.compressorOn()); });
    }
}

TEST(DemandResponseLevel, OffLeavesOnlyTheElectronicsUntilFoodIsNearItsLimit) {
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        Pair pair(seed, 30, 4);
        pair.reduced.advance(afterHours(30) + 180'000);
        while (!pair.reduced.state().foodLimitActive) {
            pair.reduced.advance(pair.reduced.at() + kLookMs);
            ASSERT_FALSE(pair.reduced.compressorOn() && !pair.reduced.state().foodLimitActive);
            ASSERT_TRUE(pair.reduced.state().foodLimitActive || pair.reduced.powerWatt() < 5.1);
        }
        const double hours = static_cast<double>(pair.reduced.at() - kBegin) / 3.6e6 - 30;
        EXPECT_GT(hours, 1.5);
        EXPECT_LT(hours, 8);
        EXPECT_EQ(pair.reduced.mode(), Mode::Off);
        EXPECT_TRUE(pair.reduced.compressorOn());
        EXPECT_EQ(pair.reduced.state().compressor.reason, "keeps food below its limit");
        EXPECT_EQ(pair.reduced.state().fridgeSetCelsius, Parameters().fridgeSetCelsius);
        while (pair.reduced.state().foodLimitActive) { // and then it is off again
            pair.reduced.advance(pair.reduced.at() + kLookMs);
        }
        pair.reduced.advance(pair.reduced.at() + 180'000);
        EXPECT_FALSE(pair.reduced.compressorOn());
    }
}

TEST(DemandResponseLevel, FoodPastItsLimitIsCooledWithAllThereIs) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(4, afterHours(1));
    refrigerator.setDoor(Compartment::Freezer, true, afterHours(1));
    while (refrigerator.temperatures().freezerFood < -14.9) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    EXPECT_GT(refrigerator.compressorCapacity(), 0.9);
}

TEST(DemandResponseLevel, FoodStaysWithinItsLimitsUnderADayOfAnyLevel) {
    for (int level = 1; level <= kHighestLevel; ++level) {
        for (const double ambient : {22.0, 32.0}) {
            for (std::uint64_t seed = 1; seed <= 6; ++seed) {
                Parameters parameters;
                parameters.ambientMeanCelsius = ambient;
                Refrigerator refrigerator(seed, kBegin, parameters);
                refrigerator.setLevel(level, afterHours(4.0 * static_cast<double>(seed)));
                const TimeMs end = refrigerator.at() + 23 * 3'600'000;
                double fridge = 0;
                double freezer = 0;
                int looks = 0;
                live(refrigerator, end, [&] {
                    fridge += refrigerator.temperatures().fridgeFood;
                    freezer += refrigerator.temperatures().freezerFood;
                    ++looks;
                });
                EXPECT_LE(fridge / looks, 5) << level << " at " << ambient;
                EXPECT_LE(freezer / looks, -15) << level << " at " << ambient;
            }
        }
    }
}

TEST(DemandResponseLevel, OneThatDoesNotExistChangesNothing) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(2, afterHours(1));
    for (const int level : {-1, 5, 1'000'000}) {
        refrigerator.setLevel(level, afterHours(2));
        EXPECT_EQ(refrigerator.level(), 2);
        EXPECT_EQ(refrigerator.at(), afterHours(1));
    }
}

// --- Override

TEST(DemandResponseOverride, CoolsNormallyAtOnce) {
    for (int level = 1; level <= kHighestLevel; ++level) {
        Refrigerator refrigerator(1, kBegin);
        refrigerator.setLevel(level, afterHours(30));
        refrigerator.setOverride(true, afterHours(31));
        const RefrigeratorState state = refrigerator.state();
        EXPECT_EQ(state.mode, Mode::Override);
        EXPECT_EQ(refrigerator.level(), level);
        EXPECT_EQ(state.fridgeSetCelsius, Parameters().fridgeSetCelsius);
        EXPECT_EQ(state.freezerSetCelsius, Parameters().freezerSetCelsius);
        EXPECT_TRUE(state.antiSweatOn);
        EXPECT_TRUE(level < 3 || state.compressor.on) << level; // off for an hour before
    }
}

TEST(DemandResponseOverride, WaitsForTheCompressorsMinimumOffTimeAndNoLonger) {
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    refrigerator.setLevel(4, refrigerator.at() + 200'000);
    ASSERT_FALSE(refrigerator.compressorOn());
    const TimeMs off = refrigerator.at();
    refrigerator.setOverride(true, off + 20'000);
    liveUntilCompressorTurns(refrigerator, true);
    EXPECT_NEAR(static_cast<double>(refrigerator.at() - off), 240'000, 10'000);
}

TEST(DemandResponseOverride, WhenItEndsTheLevelIsInForceAgain) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, afterHours(30));
    refrigerator.setOverride(true, afterHours(31));
    refrigerator.setOverride(false, afterHours(32));
    EXPECT_EQ(refrigerator.mode(), Mode::Strong);
    EXPECT_NEAR(refrigerator.state().fridgeSetCelsius, fridgeSetCelsius(3), 1e-9);
}

TEST(DemandResponseOverride, LevelThatEndsUnderItNeedsNoReturn) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, afterHours(30));
    refrigerator.setOverride(true, afterHours(31));
    refrigerator.setLevel(0, afterHours(32));
    EXPECT_EQ(refrigerator.mode(), Mode::Normal);
    EXPECT_FALSE(refrigerator.state().defrost.held);
}

TEST(DemandResponseOverride, DefrostThatItHasLetRunIsCutShortWhenItEnds) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, kBegin);
    refrigerator.setOverride(true, kBegin);
    while (!refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    refrigerator.setOverride(false, refrigerator.at());
    EXPECT_FALSE(refrigerator.defrost().heaterOn());
    EXPECT_TRUE(refrigerator.defrost().due());
}

TEST(DemandResponseOverride, EndsAReturn) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, afterHours(30));
    refrigerator.setLevel(0, afterHours(34));
    ASSERT_EQ(refrigerator.mode(), Mode::Returning);
    refrigerator.setOverride(true, afterHours(34) + 1000);
    EXPECT_EQ(refrigerator.mode(), Mode::Normal);
    EXPECT_EQ(refrigerator.state().fridgeSetCelsius, Parameters().fridgeSetCelsius);
}

// --- Return

constexpr std::array kReturnLevels = {1, 3, 4};

/* For each level the highest mean power of 100 refrigerators in a minute, after all have ended a
 * 4-hour event at the same moment. */
std::array<double, 3> fleetPeaksAfterEvent(const Parameters &parameters) {
    std::array<std::vector<double>, 3> meanWatt;
    meanWatt.fill(std::vector<double>(240, 0));
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        Refrigerator before(seed, kBegin, parameters);
        before.advance(afterHours(17));
        for (std::size_t place = 0; place < kReturnLevels.size(); ++place) {
            Refrigerator refrigerator = before;
            refrigerator.setLevel(kReturnLevels.at(place), afterHours(17));
            refrigerator.setLevel(0, afterHours(21));
            for (std::size_t minute = 0; minute < 240; ++minute) {
                refrigerator.advance(afterHours(21) + static_cast<TimeMs>(minute) * 60'000);
                meanWatt.at(place).at(minute) += refrigerator.powerWatt() / 100;
            }
        }
    }
    std::array<double, 3> peaks{};
    for (std::size_t place = 0; place < peaks.size(); ++place) {
        peaks.at(place) = *std::max_element(meanWatt.at(place).begin(), meanWatt.at(place).end());
    }
    return peaks;
}

TEST(DemandResponseReturn, OfAFleetDoesNotPeak) {
    Parameters atOnce;
    atOnce.returnDelayLongestSec = 0;
    atOnce.returnRampLongestSec = 0;
    atOnce.returnExtrasLongestSec = 0;
    const auto spread = fleetPeaksAfterEvent(Parameters());
    const auto together = fleetPeaksAfterEvent(atOnce);
    constexpr double kUsualWatt = 38; // the mean at 22 degrees
    for (std::size_t place = 0; place < kReturnLevels.size(); ++place) {
        EXPECT_LT(spread.at(place), 2 * kUsualWatt) << kReturnLevels.at(place);
        EXPECT_GT(together.at(place), 1.5 * spread.at(place)) << kReturnLevels.at(place);
    }
}

TEST(DemandResponseReturn, DelayIsDrawnForEachRefrigeratorBetween0And15Minutes) {
    std::vector<double> delays;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        Refrigerator refrigerator(seed, kBegin);
        refrigerator.setLevel(3, afterHours(17));
        refrigerator.setLevel(0, afterHours(21));
        while (!refrigerator.state().antiSweatOn) { // comes back when the delay is over
            refrigerator.advance(refrigerator.at() + kLookMs);
        }
        delays.push_back(static_cast<double>(refrigerator.at() - afterHours(21)) / 1000);
    }
    std::sort(delays.begin(), delays.end());
    EXPECT_LE(delays.back(), 910);
    EXPECT_GT(delays.back(), 800);
    EXPECT_LT(delays.front(), 100);
    EXPECT_NEAR(delays[50], 450, 120);
}

TEST(DemandResponseReturn, DelayIsDrawnAnewForEachEvent) {
    Refrigerator refrigerator(1, kBegin);
    std::set<double> delays;
    for (int event = 0; event < 5; ++event) {
        refrigerator.setLevel(2, afterHours(event * 6));
        refrigerator.setLevel(0, afterHours(event * 6 + 4));
        delays.insert(refrigerator.memory().returnDelaySec);
    }
    EXPECT_EQ(delays.size(), 5U);
}

TEST(DemandResponseReturn, CapacityComesBackBitByBit) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(2, afterHours(30));
    refrigerator.setLevel(0, afterHours(34));
    refrigerator.setDoor(Compartment::Freezer, true, afterHours(34)); // asks for much
    double highest = 0;
    const auto highestUntil = [&](double hours) {
        live(refrigerator, afterHours(hours), [&] {
            if (!refrigerator.state().foodLimitActive) {
                highest = std::max(highest, refrigerator.compressorCapacity());
            }
        });
        return highest;
    };
    EXPECT_GT(highestUntil(34.4), 0.5);
    EXPECT_LT(highestUntil(34.4), 0.75);
    EXPECT_GT(highestUntil(35.5), 0.9);
}

TEST(DemandResponseReturn, IsARampToNormal) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, afterHours(30));
    refrigerator.setLevel(0, afterHours(34));
    EXPECT_EQ(refrigerator.mode(), Mode::Returning);
    EXPECT_NEAR(refrigerator.state().fridgeSetCelsius, fridgeSetCelsius(3), 1e-9);
    double last = refrigerator.state().fridgeSetCelsius;
    double steepest = 0;
    while (refrigerator.mode() == Mode::Returning) {
        refrigerator.advance(refrigerator.at() + kLookMs);
        const double set = refrigerator.state().fridgeSetCelsius;
        ASSERT_LE(set, last);
        steepest = std::max(steepest, last - set);
        last = set;
        ASSERT_LT(refrigerator.at(), afterHours(34) + 4'600'000);
    }
    EXPECT_LT(steepest, 0.01);
    EXPECT_EQ(last, Parameters().fridgeSetCelsius);
    EXPECT_EQ(refrigerator.mode(), Mode::Normal);
}

TEST(DemandResponseReturn, OfAShortEventIsShort) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Refrigerator refrigerator(seed, kBegin);
        refrigerator.setLevel(3, afterHours(20)); // a long one before changes nothing
        refrigerator.setLevel(0, afterHours(24));
        refrigerator.setLevel(3, afterHours(30));
        refrigerator.setLevel(0, afterHours(30) + 120'000);
        EXPECT_EQ(refrigerator.mode(), Mode::Returning);
        refrigerator.advance(afterHours(30) + 120'000 + 190'000); // half its length and its length
        EXPECT_EQ(refrigerator.mode(), Mode::Normal) << seed;
    }
}

TEST(DemandResponseReturn, CycleThatWasCutShortGoesOn) {
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    refrigerator.setLevel(3, refrigerator.at() + 300'000);
    ASSERT_FALSE(refrigerator.compressorOn());
    const TimeMs ordered = refrigerator.at();
    refrigerator.setLevel(0, ordered + 120'000);
    liveUntilCompressorTurns(refrigerator, true);
    EXPECT_LE(refrigerator.at() - ordered, 120'000 + 190'000);
}

TEST(DemandResponseReturn, NextEventEndsIt) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(3, afterHours(30));
    refrigerator.setLevel(0, afterHours(34));
    refrigerator.setLevel(2, afterHours(34) + 60'000);
    EXPECT_EQ(refrigerator.mode(), Mode::Moderate);
    EXPECT_NEAR(refrigerator.state().fridgeSetCelsius, fridgeSetCelsius(2), 1e-9);
}

TEST(DemandResponseMode, HasTheNamesOfThePage) {
    EXPECT_STREQ(modeName(Mode::Normal), "normal");
    EXPECT_STREQ(modeName(Mode::Delay), "delay");
    EXPECT_STREQ(modeName(Mode::Moderate), "moderate");
    EXPECT_STREQ(modeName(Mode::Strong), "strong");
    EXPECT_STREQ(modeName(Mode::Off), "off");
    EXPECT_STREQ(modeName(Mode::Override), "override");
    EXPECT_STREQ(modeName(Mode::Returning), "returning");
}

} // namespace
} // namespace corvane::appliance
