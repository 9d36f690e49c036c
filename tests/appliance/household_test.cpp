/* The household's days: plausible, equal for equal seeds, and kept apart by door. */
#include "household.h"

#include <algorithm>
#include <array>

#include <gtest/gtest.h>

namespace corvane::appliance {
namespace {

constexpr std::int64_t kDay = 20'605; // 2026-06-01, a Monday
constexpr TimeMs kHourMs = 3'600'000;

bool same(const DoorOpening &a, const DoorOpening &b) {
    return a.startMs == b.startMs && a.endMs == b.endMs && a.compartment == b.compartment &&
           a.goodsJoule == b.goodsJoule && a.takesIce == b.takesIce;
}

TEST(Household, DayIsTheSameForTheSameSeedAndDifferentOtherwise) {
    const auto day = Household(7).plan(kDay);
    const auto again = Household(7).plan(kDay);
    EXPECT_TRUE(std::equal(day.begin(), day.end(), again.begin(), again.end(), same));
    for (const auto &other : {Household(8).plan(kDay), Household(7).plan(kDay + 1)}) {
        EXPECT_FALSE(std::equal(day.begin(), day.end(), other.begin(), other.end(), same));
    }
}

TEST(Household, OpeningsOfADoorAreInOrderApartAndWithinTheDay) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        for (std::int64_t day = kDay; day < kDay + 50; ++day) {
            std::array<TimeMs, 2> free = {0, 0};
            TimeMs last = 0;
            for (const DoorOpening &opening : Household(seed).plan(day)) {
                TimeMs &doorFree = free.at(static_cast<std::size_t>(opening.compartment));
                ASSERT_GE(opening.startMs, last);
                ASSERT_GE(opening.startMs, doorFree);
                ASSERT_GT(opening.endMs, opening.startMs);
                ASSERT_LT(opening.endMs, kMsPerDay);
                last = opening.startMs;
                doorFree = opening.endMs;
            }
        }
    }
}

TEST(Household, OpensDoorsMostlyAtMealTimesAndHardlyAtNight) {
    int fridge = 0;
    int freezer = 0;
    int night = 0;
    int evening = 0;
    constexpr int kDays = 200;
    for (int day = 0; day < kDays; ++day) {
        for (const DoorOpening &opening : Household(3).plan(kDay + day)) {
            ++(opening.compartment == Compartment::Fridge ? fridge : freezer);
            night += opening.startMs >= kHourMs && opening.startMs < 4 * kHourMs ? 1 : 0;
            evening += opening.startMs >= 17 * kHourMs && opening.startMs < 20 * kHourMs ? 1 : 0;
        }
    }
    EXPECT_NEAR(fridge / kDays, 30, 3);
    EXPECT_NEAR(freezer / kDays, 6, 1);
    EXPECT_LT(night, kDays / 10);
    EXPECT_GT(evening, 6 * kDays);
}

TEST(Household, ShopsTwiceAWeekAndTakesIceMostDays) {
    int shoppingDays = 0;
    int iceDays = 0;
    for (int day = 0; day < 70; ++day) {
        double goods = 0;
        int ice = 0;
        for (const DoorOpening &opening : Household(3).plan(kDay + day)) {
            goods += opening.goodsJoule;
            ice += opening.takesIce ? 1 : 0;
            EXPECT_TRUE(opening.goodsJoule == 0 || opening.compartment == Compartment::Fridge);
        }
        shoppingDays += goods > 0 ? 1 : 0;
        iceDays += ice > 0 ? 1 : 0;
    }
    EXPECT_EQ(shoppingDays, 20);
    EXPECT_GT(iceDays, 60);
}

TEST(Household, WeeksGoOnBefore1970) {
    int shopping = 0;
    for (std::int64_t day = -70; day < 0; ++day) {
        for (const DoorOpening &opening : Household(3).plan(day)) {
            shopping += opening.goodsJoule > 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(shopping, 2 * 20);
    EXPECT_GT(Household(1).plan(-1).size(), 20U);
    EXPECT_GT(Household(1).plan(-1'000'000'000).size(), 20U);
}

// --- One door's times

DoorTimes doorWithTwoOpenings(TimeMs at) {
    DoorTimes door;
    door.begin({{.startMs = 100, .endMs = 200}, {.startMs = 300, .endMs = 400}}, at);
    return door;
}

TEST(DoorTimes, OpensAtTheStartAndIsShutAtTheEnd) {
    DoorTimes door = doorWithTwoOpenings(0);
    EXPECT_FALSE(door.isOpen());
    EXPECT_EQ(door.nextChange(), 100);
    const DoorOpening *opening = door.reach(100);
    ASSERT_NE(opening, nullptr);
    EXPECT_EQ(opening->endMs, 200);
    EXPECT_TRUE(door.isOpen());
    EXPECT_EQ(door.nextChange(), 200);
    EXPECT_EQ(door.reach(150), nullptr);
    EXPECT_TRUE(door.isOpen());
    EXPECT_EQ(door.reach(200), nullptr);
    EXPECT_FALSE(door.isOpen());
    EXPECT_EQ(door.nextChange(), 300);
}

TEST(DoorTimes, BeginsInTheMiddleOfADay) {
    const DoorTimes door = doorWithTwoOpenings(350);
    EXPECT_TRUE(door.isOpen());
    EXPECT_EQ(door.nextChange(), 400);
}

TEST(DoorTimes, NothingHappensAfterTheLast) {
    DoorTimes door = doorWithTwoOpenings(0);
    EXPECT_EQ(door.reach(1000), nullptr);
    EXPECT_FALSE(door.isOpen());
    EXPECT_EQ(door.nextChange(), DoorTimes::kNever);
}

} // namespace
} // namespace corvane::appliance
