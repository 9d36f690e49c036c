/* The display board: its readings each second, and its button. */
#include "display_board.h"

#include <gtest/gtest.h>

#include "virtual_days.h"

namespace corvane::appliance {
namespace {

struct DisplayBoardTest : testing::Test {
    Refrigerator refrigerator{1, kBegin};
    DisplayBoard board{refrigerator};

    DisplayBoardTest() { refrigerator.setHouseholdPresent(false); }
};

TEST_F(DisplayBoardTest, ReadsEachSecondOnce) {
    int readings = 0;
    for (TimeMs at = kBegin; at < afterSec(100); at += 130) {
        readings += board.advance(at) ? 1 : 0;
    }
    EXPECT_EQ(readings, 100);
}

TEST_F(DisplayBoardTest, OneCountIsTenMilliwatts) {
    refrigerator.advance(afterSec(120)); // dark
    const auto dark = board.advance(afterSec(120));
    ASSERT_TRUE(dark);
    EXPECT_STREQ(dark->key, "memory/board/power");
    EXPECT_EQ(dark->value, 140);
    EXPECT_EQ(dark->at, afterSec(120));
    refrigerator.lightDisplay(afterSec(120.5));
    const auto lit = board.advance(afterSec(121));
    ASSERT_TRUE(lit);
    EXPECT_EQ(lit->value, 380);
}

TEST_F(DisplayBoardTest, ReadingsAddUpToItsShareOfTheEnergy) {
    refrigerator.setHouseholdPresent(true);
    double counts = 0;
    for (int second = 1; second <= 6 * 3600; ++second) {
        counts += board.advance(afterSec(second)).value().value;
    }
    const double ownWh = refrigerator.energyWh() - refrigerator.micomEnergyWh();
    EXPECT_NEAR(counts / 3600 / 100, ownWh, 0.02 * ownWh);
}

TEST_F(DisplayBoardTest, LongGapGivesOneReading) {
    EXPECT_TRUE(board.advance(kBegin));
    EXPECT_TRUE(board.advance(afterHours(5)));
    EXPECT_FALSE(board.advance(afterHours(5) + 999));
    EXPECT_EQ(refrigerator.at(), afterHours(5));
    EXPECT_TRUE(board.advance(afterHours(5) + 1000));
    EXPECT_EQ(board.nextAt(), afterHours(5) + 2000);
}

TEST_F(DisplayBoardTest, ClockSetBackStopsNothing) {
    EXPECT_TRUE(board.advance(afterHours(5)));
    EXPECT_TRUE(board.advance(afterHours(1)));
    EXPECT_FALSE(board.advance(afterHours(1) + 500));
    EXPECT_TRUE(board.advance(afterHours(1) + 1000));
}

TEST_F(DisplayBoardTest, ButtonTellsTheOverrideAndLightsTheDisplay) {
    refrigerator.advance(afterSec(120));
    const SettingsWrite on = board.pressOverride(true, afterSec(121));
    EXPECT_STREQ(on.key, "db/corvane/dr/micom_override");
    EXPECT_EQ(on.value, 1);
    EXPECT_EQ(on.at, afterSec(121));
    EXPECT_EQ(board.reading(), 380);
    EXPECT_FALSE(refrigerator.override()); // the service decides, and commands the Micom
    EXPECT_EQ(board.pressOverride(false, afterSec(122)).value, 0);
}

} // namespace
} // namespace corvane::appliance
