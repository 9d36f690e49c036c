/*
 * The refrigerator without demand response: energy, temperatures, compressor, ice, doors and
 * kitchen; and what holds for every run: equal seeds give equal lives, however it is watched,
 * and no step of the clock does harm.
 */
#include "refrigerator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "random.h"
#include "virtual_days.h"

namespace corvane::appliance {
namespace {

Parameters kitchenOf(double celsius) {
    Parameters parameters;
    parameters.ambientMeanCelsius = celsius;
    return parameters;
}

/* Everything that can be told apart in two lives. */
void expectEqual(const Refrigerator &a, const Refrigerator &b) {
    const RefrigeratorMemory left = a.memory();
    const RefrigeratorMemory right = b.memory();
    EXPECT_EQ(left.at, right.at);
    EXPECT_EQ(left.energyWh, right.energyWh);
    EXPECT_EQ(left.displayEnergyWh, right.displayEnergyWh);
    EXPECT_EQ(left.temperatures.fridgeAir, right.temperatures.fridgeAir);
    EXPECT_EQ(left.temperatures.fridgeFood, right.temperatures.fridgeFood);
    EXPECT_EQ(left.temperatures.freezerAir, right.temperatures.freezerAir);
    EXPECT_EQ(left.temperatures.freezerFood, right.temperatures.freezerFood);
    EXPECT_EQ(left.temperatures.evaporator, right.temperatures.evaporator);
    EXPECT_EQ(left.compressorPhaseSec, right.compressorPhaseSec);
    EXPECT_EQ(left.defrost.compressorSec, right.defrost.compressorSec);
    EXPECT_EQ(left.iceStageLeftSec, right.iceStageLeftSec);
    EXPECT_EQ(a.powerWatt(), b.powerWatt());
}

// --- Energy

TEST(RefrigeratorEnergy, YearAt22DegreesTakes300To400Kwh) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        Refrigerator refrigerator(seed, kBegin);
        for (int day = 1; day <= 365; ++day) {
            refrigerator.advance(afterHours(day * 24));
        }
        EXPECT_GE(refrigerator.energyWh(), 300'000) << seed;
        EXPECT_LE(refrigerator.energyWh(), 400'000) << seed;
    }
}

TEST(RefrigeratorEnergy, WarmerKitchenTakesMoreAsItDoesInTests) {
    std::array<double, 3> wattAt{};
    for (std::size_t place = 0; place < wattAt.size(); ++place) {
        Refrigerator refrigerator(1, kBegin, kitchenOf(std::array{16, 22, 32}.at(place)));
        refrigerator.advance(afterHours(30 * 24));
        wattAt.at(place) = refrigerator.energyWh() / (30 * 24);
    }
    // Measured appliances take 2 to 4 % more for each degree.
    EXPECT_NEAR(wattAt[1] / wattAt[0], 1 + 6 * 0.035, 0.06);
    EXPECT_NEAR(wattAt[2] / wattAt[1], 1 + 10 * 0.035, 0.1);
}

TEST(RefrigeratorEnergy, IsThePowerShownOverTime) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setHouseholdPresent(false); // whose doors end steps between the looks
    double wattSec = 0;
    double displayWattSec = 0;
    double lastWatt = refrigerator.powerWatt();
    double lastDisplayWatt = refrigerator.displayWatt();
    live(refrigerator, afterHours(48), [&] {
        wattSec += lastWatt * 10;
        displayWattSec += lastDisplayWatt * 10;
        lastWatt = refrigerator.powerWatt();
        lastDisplayWatt = refrigerator.displayWatt();
    });
    EXPECT_NEAR(refrigerator.energyWh(), wattSec / 3600, 1e-6);
    EXPECT_NEAR(refrigerator.energyWh() - refrigerator.micomEnergyWh(), displayWattSec / 3600,
                1e-6);
}

TEST(RefrigeratorEnergy, HouseholdCostsSome) {
    Refrigerator lively(1, kBegin);
    Refrigerator lonely(1, kBegin);
    lonely.setHouseholdPresent(false);
    const double livelyWh = energyUntil(lively, afterHours(14 * 24));
    const double lonelyWh = energyUntil(lonely, afterHours(14 * 24));
    EXPECT_GT(livelyWh, 1.05 * lonelyWh);
    EXPECT_LT(livelyWh, 1.4 * lonelyWh);
}

TEST(RefrigeratorEnergy, StateAddsUp) {
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    const RefrigeratorState state = refrigerator.state();
    EXPECT_EQ(state.at, refrigerator.at());
    EXPECT_NEAR(state.powerWatt, refrigerator.powerWatt(), 1e-9);
    const Parameters p;
    EXPECT_TRUE(state.compressor.on && state.fanOn && state.antiSweatOn);
    EXPECT_NEAR(state.powerWatt,
                state.compressor.watt + p.fanWatt + p.antiSweatWatt + p.mainBoardWatt +
                    state.displayWatt,
                1e-9);
    EXPECT_GE(state.compressor.capacity, p.smallestCapacity);
}

// --- Temperatures

TEST(RefrigeratorTemperatures, FoodStaysBelowItsLimitsWithoutAFault) {
    for (const double ambient : {16.0, 22.0, 32.0}) {
        Refrigerator refrigerator(5, kBegin, kitchenOf(ambient));
        double fridge = -99;
        double freezer = -99;
        live(refrigerator, afterHours(60 * 24), [&] {
            fridge = std::max(fridge, refrigerator.temperatures().fridgeFood);
            freezer = std::max(freezer, refrigerator.temperatures().freezerFood);
        });
        EXPECT_LE(fridge, 5) << ambient;
        EXPECT_GE(fridge, 3) << ambient;
        EXPECT_LE(freezer, -15) << ambient;
    }
}

TEST(RefrigeratorTemperatures, AirSwingsAroundTheSetPoints) {
    Refrigerator refrigerator(1, kBegin);
    double fridge = 0;
    double freezer = 0;
    double fridgeLowest = 99;
    int looks = 0;
    live(refrigerator, afterHours(14 * 24), [&] {
        fridge += refrigerator.temperatures().fridgeAir;
        freezer += refrigerator.temperatures().freezerAir;
        fridgeLowest = std::min(fridgeLowest, refrigerator.temperatures().fridgeAir);
        ++looks;
    });
    const Parameters p;
    EXPECT_NEAR(fridge / looks, p.fridgeSetCelsius, 0.4);
    EXPECT_NEAR(freezer / looks, p.freezerSetCelsius, 0.5);
    EXPECT_GT(fridgeLowest, 1); // salad does not freeze
}

TEST(RefrigeratorTemperatures, DoorLeftOpenSpoilsFoodAndIsRecoveredFrom) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setDoor(Compartment::Fridge, true, afterHours(1));
    EXPECT_TRUE(refrigerator.state().doors.fridgeOpen);
    EXPECT_FALSE(refrigerator.state().doors.freezerOpen);
    refrigerator.advance(afterHours(7));
    EXPECT_GT(refrigerator.temperatures().fridgeFood, 5);
    EXPECT_FALSE(refrigerator.state().foodLimitActive); // there is no level to set aside
    refrigerator.setDoor(Compartment::Fridge, false, afterHours(7));
    refrigerator.advance(afterHours(31));
    EXPECT_LT(refrigerator.temperatures().fridgeFood, 5);
}

TEST(RefrigeratorDoors, ClosedByHandWhileTheHouseholdHasItOpenStaysClosed) {
    Refrigerator refrigerator(1, kBegin);
    TimeMs now = kBegin;
    while (!refrigerator.state().doors.fridgeOpen) {
        refrigerator.advance(now += 1000);
    }
    refrigerator.setDoor(Compartment::Fridge, false, now);
    EXPECT_FALSE(refrigerator.state().doors.fridgeOpen);
    refrigerator.advance(now + 1000); // no opening is as short as that
    EXPECT_FALSE(refrigerator.state().doors.fridgeOpen);
    int opened = 0;
    bool was = false;
    live(refrigerator, afterHours(24), [&] {
        const bool is = refrigerator.state().doors.fridgeOpen;
        opened += is && !was ? 1 : 0;
        was = is;
    });
    EXPECT_GT(opened, 20) << "the household goes on";
}

TEST(RefrigeratorTemperatures, ShoppingBringsHeatThatIsCooledAway) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.advance(afterHours(2 * 24 + 17)); // Wednesday
    EXPECT_NEAR(refrigerator.memory().goodsJoule, 0, 1);
    refrigerator.advance(afterHours(2 * 24 + 19.1));
    EXPECT_GT(refrigerator.memory().goodsJoule, 10'000);
    refrigerator.advance(afterHours(3 * 24 + 19));
    EXPECT_NEAR(refrigerator.memory().goodsJoule, 0, 1);
}

TEST(RefrigeratorTemperatures, FreezerDoorLeftOpenRunsTheCompressorHard) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setDoor(Compartment::Freezer, true, afterHours(1));
    refrigerator.advance(afterHours(3));
    EXPECT_TRUE(refrigerator.state().doors.freezerOpen);
    EXPECT_GT(refrigerator.temperatures().freezerAir, -12);
    EXPECT_GT(refrigerator.compressorCapacity(), 0.9);
    EXPECT_GT(refrigerator.powerWatt(), 90);
}

// --- Compressor

TEST(RefrigeratorCompressor, KeepsItsMinimumTimesWhateverIsOrdered) {
    const Parameters p;
    Random random(1, Draw::Garbage);
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    bool on = true;
    TimeMs since = refrigerator.at();
    int turns = 0;
    double shortestOn = 1e9;
    double shortestOff = 1e9;
    live(refrigerator, afterHours(60 * 24), [&] {
        const TimeMs now = refrigerator.at();
        if (random.whole(0, 30) == 0) {
            switch (random.whole(0, 3)) {
            case 0:
                refrigerator.setLevel(random.whole(0, 4), now);
                break;
            case 1:
                refrigerator.setOverride(random.whole(0, 1) == 1, now);
                break;
            case 2:
                refrigerator.setDoor(Compartment::Freezer, random.whole(0, 9) == 0, now);
                break;
            default:
                refrigerator.setDefrostHold(random.whole(0, 1) == 1, now);
            }
        }
        if (refrigerator.compressorOn() != on) {
            double &shortest = on ? shortestOn : shortestOff;
            shortest = std::min(shortest, static_cast<double>(now - since) / 1000);
            on = !on;
            since = now;
            ++turns;
        }
        ASSERT_TRUE(on ? refrigerator.compressorCapacity() >= p.smallestCapacity &&
                             refrigerator.compressorCapacity() <= 1
                       : refrigerator.compressorCapacity() == 0);
    });
    EXPECT_GT(turns, 2000);
    EXPECT_NEAR(shortestOn, p.minimumOnSec, 10); // the limit is met, and was needed
    EXPECT_GE(shortestOn, p.minimumOnSec);
    EXPECT_NEAR(shortestOff, p.minimumOffSec, 10);
    EXPECT_GE(shortestOff, p.minimumOffSec);
}

TEST(RefrigeratorCompressor, StartsAsOftenAsInAHouse) {
    Refrigerator refrigerator(1, kBegin);
    int starts = 0;
    double onSec = 0;
    bool was = refrigerator.compressorOn();
    live(refrigerator, afterHours(10 * 24), [&] {
        starts += refrigerator.compressorOn() && !was ? 1 : 0;
        was = refrigerator.compressorOn();
        onSec += was ? 10 : 0;
    });
    EXPECT_GT(starts, 10 * 15);
    EXPECT_LT(starts, 10 * 40);
    EXPECT_NEAR(onSec / (10 * 86400), 0.65, 0.15);
}

TEST(RefrigeratorCompressor, TellsWhyItWaits) {
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    EXPECT_EQ(refrigerator.state().compressor.reason, std::nullopt);
    refrigerator.setLevel(4, refrigerator.at() + 50'000);
    EXPECT_EQ(refrigerator.state().compressor.reason, "minimum on time, 0:10 left");
    liveUntilCompressorTurns(refrigerator, false);
    EXPECT_EQ(refrigerator.state().compressor.reason, "off by the level");
    refrigerator.setOverride(true, refrigerator.at() + 30'000);
    EXPECT_EQ(refrigerator.state().compressor.reason, "minimum off time, 3:30 left");
    while (!refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    EXPECT_EQ(refrigerator.state().compressor.reason.value_or("").substr(0, 9), "defrost, ");
    while (refrigerator.defrost().heaterOn()) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    EXPECT_EQ(refrigerator.state().compressor.reason, "melt water drains, 5:00 left");
}

TEST(RefrigeratorCompressor, RestartOfTheControlSwitchesItOffForItsMinimumTime) {
    Refrigerator refrigerator(1, kBegin);
    liveUntilCompressorTurns(refrigerator, true);
    refrigerator.setLevel(1, refrigerator.at());
    refrigerator.setOverride(true, refrigerator.at());
    refrigerator.setDefrostHold(true, refrigerator.at());
    refrigerator.restartControl(refrigerator.at());
    EXPECT_FALSE(refrigerator.compressorOn());
    EXPECT_EQ(refrigerator.level(), 0);
    EXPECT_FALSE(refrigerator.override());
    EXPECT_FALSE(refrigerator.state().defrost.held);
    EXPECT_EQ(refrigerator.mode(), Mode::Normal);
    live(refrigerator, refrigerator.at() + 230'000,
         [&] { ASSERT_FALSE(refrigerator.compressorOn()); });
}

// --- Ice and display

TEST(RefrigeratorIce, IsMadeWhenTakenAndTheHarvestIsSeenInThePower) {
    Refrigerator refrigerator(1, kBegin);
    int frozenSec = 0;
    int harvests = 0;
    bool was = false;
    live(refrigerator, afterHours(10 * 24), [&] {
        const bool harvesting =
            refrigerator.memory().iceStage == static_cast<int>(IceStage::Harvesting);
        frozenSec +=
            refrigerator.memory().iceStage == static_cast<int>(IceStage::Freezing) ? 10 : 0;
        harvests += harvesting && !was ? 1 : 0;
        was = harvesting;
        ASSERT_TRUE(!harvesting || refrigerator.powerWatt() > 120);
        ASSERT_LE(refrigerator.memory().iceWanted, 6);
    });
    EXPECT_GT(harvests, 20);
    EXPECT_LT(harvests, 80);
    EXPECT_NEAR(frozenSec / harvests, 4800, 300);
}

TEST(RefrigeratorIce, HarvestStopsForALevelAndIsMadeUpAfterIt) {
    Refrigerator refrigerator(1, kBegin);
    while (refrigerator.memory().iceStage != static_cast<int>(IceStage::Harvesting)) {
        refrigerator.advance(refrigerator.at() + kLookMs);
    }
    const int wanted = refrigerator.memory().iceWanted;
    refrigerator.setLevel(1, refrigerator.at());
    EXPECT_LT(refrigerator.powerWatt(), 100);
    EXPECT_EQ(refrigerator.memory().iceStage, static_cast<int>(IceStage::Frozen));
    EXPECT_EQ(refrigerator.memory().iceWanted, wanted);
    refrigerator.setOverride(true, refrigerator.at() + 60'000);
    EXPECT_GT(refrigerator.powerWatt(), 120);
}

TEST(RefrigeratorIce, NoMoreIsOwedThanTheBinHolds) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setLevel(1, kBegin);
    refrigerator.advance(afterHours(4 * 24));
    EXPECT_EQ(refrigerator.memory().iceWanted, Parameters().iceBinBatches);
}

TEST(RefrigeratorDisplay, IsLitForAMinuteByATouchOrADoor) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setHouseholdPresent(false);
    refrigerator.advance(afterSec(120));
    EXPECT_NEAR(refrigerator.displayWatt(), 1.4, 1e-9);
    refrigerator.lightDisplay(afterSec(125));
    EXPECT_NEAR(refrigerator.displayWatt(), 3.8, 1e-9);
    refrigerator.advance(afterSec(180));
    EXPECT_NEAR(refrigerator.displayWatt(), 3.8, 1e-9);
    refrigerator.advance(afterSec(190));
    EXPECT_NEAR(refrigerator.displayWatt(), 1.4, 1e-9);
    refrigerator.setDoor(Compartment::Fridge, true, afterSec(200));
    EXPECT_NEAR(refrigerator.displayWatt(), 3.8, 1e-9);
}

// --- Kitchen and local time

TEST(RefrigeratorKitchen, IsWarmestInTheAfternoonOfLocalTime) {
    for (const int offsetHours : {-8, 0, 9}) {
        Refrigerator refrigerator(1, kBegin);
        refrigerator.setUtcOffsetSec(offsetHours * 3600);
        double warmest = -99;
        double coldest = 99;
        TimeMs warmestAt = 0;
        live(refrigerator, afterHours(24), [&] {
            const double celsius = refrigerator.state().ambientCelsius;
            coldest = std::min(coldest, celsius);
            if (celsius > warmest) {
                warmest = celsius;
                warmestAt = refrigerator.at();
            }
        });
        const double localHour =
            std::fmod(static_cast<double>(warmestAt - kBegin) / 3.6e6 + offsetHours + 24, 24);
        EXPECT_NEAR(localHour, 17, 1.5) << offsetHours;
        EXPECT_NEAR(warmest - coldest, 3, 1) << offsetHours;
    }
}

TEST(RefrigeratorKitchen, HouseholdFollowsLocalTime) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setUtcOffsetSec(9 * 3600);
    int localNight = 0;
    int localEvening = 0;
    for (int day = 0; day < 20; ++day) {
        const double midnight = 24 * day + 15; // 00:00 at +09:00
        const auto opened = [&refrigerator](double from, double to) {
            int changes = 0;
            bool was = false;
            refrigerator.advance(afterHours(from));
            live(refrigerator, afterHours(to), [&] {
                const RefrigeratorState state = refrigerator.state();
                const bool open = state.doors.fridgeOpen || state.doors.freezerOpen;
                changes += open && !was ? 1 : 0;
                was = open;
            });
            return changes;
        };
        localNight += opened(midnight + 1, midnight + 4);
        localEvening += opened(midnight + 17, midnight + 20);
    }
    EXPECT_GT(localEvening, 50);
    EXPECT_LT(localNight, 10);
}

TEST(RefrigeratorKitchen, AmbientCanBeChangedFromOutside) {
    Refrigerator refrigerator(1, kBegin);
    const double before = refrigerator.state().ambientCelsius;
    refrigerator.setAmbientMeanCelsius(30);
    EXPECT_NEAR(refrigerator.state().ambientCelsius, before + 8, 1e-9);
}

// --- One life

TEST(RefrigeratorLife, IsTheSameForTheSameSeedAndDifferentOtherwise) {
    Refrigerator one(42, kBegin);
    Refrigerator same(42, kBegin);
    Refrigerator other(43, kBegin);
    for (Refrigerator *refrigerator : {&one, &same, &other}) {
        refrigerator->setLevel(3, afterHours(5));
        refrigerator->setLevel(0, afterHours(7));
        refrigerator->advance(afterHours(72));
    }
    expectEqual(one, same);
    EXPECT_NE(one.energyWh(), other.energyWh());
}

TEST(RefrigeratorLife, DoesNotDependOnHowOftenItIsAdvanced) {
    Refrigerator once(1, kBegin);
    Refrigerator often(1, kBegin);
    Refrigerator oddly(1, kBegin);
    const auto order = [](Refrigerator &refrigerator, double hours) {
        refrigerator.setLevel(hours < 20 ? 3 : 0, afterSec(hours * 3600 + 3.217));
    };
    Random random(1, Draw::Garbage);
    for (TimeMs at = kBegin; at < afterHours(18); at += 1000) {
        often.advance(at);
    }
    for (TimeMs at = kBegin; at < afterHours(18); at += random.whole(1, 3'000'000)) {
        oddly.advance(at);
    }
    for (Refrigerator *refrigerator : {&once, &often, &oddly}) {
        order(*refrigerator, 18);
        order(*refrigerator, 22);
    }
    for (TimeMs at = often.at(); at < afterHours(48); at += 1700) {
        often.advance(at);
    }
    for (Refrigerator *refrigerator : {&once, &often, &oddly}) {
        refrigerator->advance(afterHours(48));
    }
    expectEqual(once, often);
    expectEqual(once, oddly);
}

TEST(RefrigeratorLife, BeginsSettledAndAtDifferentPlacesOfTheCycle) {
    int on = 0;
    int defrostSoon = 0;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        const Refrigerator refrigerator(seed, kBegin);
        defrostSoon += refrigerator.defrost().leftSec() < 4 * 3600 ? 1 : 0;
        on += refrigerator.compressorOn() ? 1 : 0;
        EXPECT_EQ(refrigerator.at(), kBegin);
        EXPECT_EQ(refrigerator.energyWh(), 0);
        EXPECT_NEAR(refrigerator.temperatures().freezerFood, -18.2, 1);
        EXPECT_NEAR(refrigerator.temperatures().fridgeFood, 3.4, 0.6);
    }
    EXPECT_GT(on, 40);
    EXPECT_LT(on, 90);
    EXPECT_GT(defrostSoon, 20);
    EXPECT_LT(defrostSoon, 60);
}

// --- Steps of the clock

TEST(RefrigeratorClock, SetBackOnlyMovesTheTime) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.advance(afterHours(10));
    const RefrigeratorMemory before = refrigerator.memory();
    refrigerator.advance(afterHours(2));
    const RefrigeratorMemory after = refrigerator.memory();
    EXPECT_EQ(after.at, afterHours(2));
    EXPECT_EQ(after.energyWh, before.energyWh);
    EXPECT_EQ(after.temperatures.freezerAir, before.temperatures.freezerAir);
    EXPECT_EQ(after.compressorPhaseSec, before.compressorPhaseSec);
    refrigerator.advance(afterHours(12));
    EXPECT_NEAR(refrigerator.energyWh() - before.energyWh, 380, 120); // ten hours' worth
}

TEST(RefrigeratorClock, HugeJumpsAreTakenForASetClock) {
    for (const TimeMs jump : {TimeMs{0}, -kBegin, kBegin * 100, kBegin + kLongestGapMs + 1000}) {
        Refrigerator refrigerator(1, kBegin);
        const double freezer = refrigerator.temperatures().freezerAir;
        refrigerator.advance(jump);
        EXPECT_EQ(refrigerator.at(), jump);
        EXPECT_EQ(refrigerator.energyWh(), 0);
        EXPECT_EQ(refrigerator.temperatures().freezerAir, freezer);
        refrigerator.advance(jump + 3'600'000);
        EXPECT_NEAR(refrigerator.energyWh(), 38, 30);
    }
}

TEST(RefrigeratorClock, MonthWithoutAnAdvanceIsLivedThrough) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.advance(kBegin + kLongestGapMs);
    EXPECT_NEAR(refrigerator.energyWh() / 31, 925, 90);
}

TEST(RefrigeratorClock, OrderFromBeforeTheTimeReachedActsNow) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.advance(afterHours(1));
    const double energyWh = refrigerator.energyWh();
    refrigerator.setLevel(2, afterHours(1) - 700);
    EXPECT_EQ(refrigerator.at(), afterHours(1));
    EXPECT_EQ(refrigerator.energyWh(), energyWh);
    EXPECT_EQ(refrigerator.level(), 2);
}

TEST(RefrigeratorClock, OrderBetweenTwoStepsActsAtItsOwnTime) {
    Refrigerator refrigerator(1, kBegin);
    refrigerator.setHouseholdPresent(false);
    const double watt = refrigerator.powerWatt();
    refrigerator.lightDisplay(afterSec(3.5));
    EXPECT_EQ(refrigerator.at(), afterSec(3.5));
    EXPECT_NEAR(refrigerator.energyWh(), watt * 3.5 / 3600, 1e-9);
}

} // namespace
} // namespace corvane::appliance
