/* From samples to minutes. */
#include "minute_meter.h"

#include <gmock/gmock.h>

namespace corvane::appliance {
namespace {

constexpr TimeMs kMinute = 60'000;
constexpr TimeMs kFirst = 1'785'499'200'000;

class Meter : public testing::Test {
protected:
    /* Samples each stepMs, at a constant power; the rows that come. */
    std::vector<HistoryRow> live(TimeMs from, TimeMs to, TimeMs stepMs, double watt,
                                 double fridge = 4) {
        std::vector<HistoryRow> rows;
        for (TimeMs at = from; at <= to; at += stepMs) {
            RefrigeratorState state;
            state.at = at;
            state.powerWatt = watt;
            state.energyWh = energyWh += at > from ? watt * static_cast<double>(stepMs) / 3.6e6 : 0;
            state.fridgeCelsius = fridge;
            state.compressor.capacity = 0.5;
            if (const auto row = meter.add(state, level, false, window))
                rows.push_back(*row);
        }
        return rows;
    }

    MinuteMeter meter;
    double energyWh = 100;
    int level = 0;
    bool window = false;
};

TEST_F(Meter, FullMinutesBecomeRowsWithTheirMeans) {
    const auto rows = live(kFirst, kFirst + 3 * kMinute + 100, 100, 60);
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].atSec, kFirst / 1000);
    EXPECT_EQ(rows[1].atSec, kFirst / 1000 + 60);
    EXPECT_NEAR(rows[1].powerWatt, 60, 1e-6);
    EXPECT_NEAR(rows[1].energyWh, 1, 1e-6);
    EXPECT_NEAR(rows[1].counterWh, 102, 1e-6);
    EXPECT_NEAR(rows[1].fridgeCelsius, 4, 1e-9);
    EXPECT_NEAR(rows[1].compressor, 0.5, 1e-9);
}

TEST_F(Meter, StepOverTheFullMinuteIsShared) {
    live(kFirst, kFirst + 54'000, 6000, 60);
    energyWh += 60 * 12.0 / 3600;
    RefrigeratorState state;
    state.at = kFirst + 66'000;
    state.powerWatt = 60;
    state.energyWh = energyWh;
    const auto row = meter.add(state, 0, false, false);
    ASSERT_TRUE(row.has_value());
    EXPECT_NEAR(row->energyWh, 1, 1e-6);
}

TEST_F(Meter, MinuteThatWasHardlySeenGivesNoRow) {
    EXPECT_EQ(live(kFirst + 40'000, kFirst + kMinute + 1000, 1000, 60).size(), 0U);
    EXPECT_EQ(live(kFirst + 4 * kMinute, kFirst + 5 * kMinute + 1000, 1000, 60).size(), 1U);
}

TEST_F(Meter, ClockThatWasSetLosesTheMinuteBegun) {
    live(kFirst, kFirst + 50'000, 1000, 60);
    EXPECT_EQ(live(kFirst - 10 * kMinute, kFirst - 9 * kMinute + 1000, 1000, 60).size(), 1U);
}

TEST_F(Meter, MomentsOfALevelAndAWindowMarkTheirMinute) {
    live(kFirst, kFirst + 20'000, 1000, 60);
    level = 3;
    window = true;
    live(kFirst + 21'000, kFirst + 22'000, 1000, 60);
    level = 1;
    window = false;
    const auto rows = live(kFirst + 23'000, kFirst + kMinute + 1000, 1000, 60);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].level, 3);
    EXPECT_TRUE(rows[0].windowActive);
}

} // namespace
} // namespace corvane::appliance
