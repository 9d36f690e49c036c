/* Seasons and daily windows, in local time. */
#include "reservation_window.h"

#include "time_zone.h"

#include <gtest/gtest.h>

namespace corvane::client {
namespace {

const Reservation kSummer{"0", "Summer Season", "0000-05-01T15:00:00", "0000-10-31T00:00:00",
                          "04:00:00"};
const Reservation kWinter{"1", "Winter Season", "0000-11-01T06:00:00", "0000-04-30T00:00:00",
                          "04:00:00"};

class ReservationWindow : public testing::TestWithParam<const char *> {
protected:
    TimeZone zone_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Zones, ReservationWindow,
                         testing::Values("UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"),
                         [](const auto &parameter) {
                             std::string name = parameter.param;
                             std::erase_if(name, [](char c) { return std::isalpha(c) == 0; });
                             return name;
                         });

TEST_P(ReservationWindow, SeasonHoldsFromItsFirstMidnightToItsLastSecond) {
    EXPECT_FALSE(seasonHolds(kSummer, local("2026-04-30T23:59:59")));
    EXPECT_TRUE(seasonHolds(kSummer, local("2026-05-01T00:00:00")));
    EXPECT_TRUE(seasonHolds(kSummer, local("2026-10-31T23:59:59")));
    EXPECT_FALSE(seasonHolds(kSummer, local("2026-11-01T00:00:00")));
}

TEST_P(ReservationWindow, SeasonThatWrapsTheYearHoldsOnBothSides) {
    EXPECT_FALSE(seasonHolds(kWinter, local("2026-10-31T23:59:59")));
    EXPECT_TRUE(seasonHolds(kWinter, local("2026-11-01T00:00:00")));
    EXPECT_TRUE(seasonHolds(kWinter, local("2026-12-31T23:59:59")));
    EXPECT_TRUE(seasonHolds(kWinter, local("2027-01-01T00:00:00")));
    EXPECT_TRUE(seasonHolds(kWinter, local("2027-04-30T23:59:59")));
    EXPECT_FALSE(seasonHolds(kWinter, local("2027-05-01T00:00:00")));
}

TEST_P(ReservationWindow, SeasonLastsUntilTheWindowOfItsLastDayHasEnded) {
    const Reservation late{"2", "", "0000-06-01T23:00:00", "0000-06-10T00:00:00", "02:00:00"};
    EXPECT_TRUE(seasonHolds(late, local("2026-06-11T01:00:00")));
    EXPECT_FALSE(seasonHolds(late, local("2026-06-11T01:00:01")));
}

TEST_P(ReservationWindow, LeapDayIsAFirstDayInALeapYear) {
    const Reservation leap{"2", "", "0000-02-29T10:00:00", "0000-03-10T00:00:00", "01:00:00"};
    EXPECT_FALSE(seasonHolds(leap, local("2028-02-28T23:59:59")));
    EXPECT_TRUE(seasonHolds(leap, local("2028-02-29T00:00:00")));
}

TEST_P(ReservationWindow, HighestIdWhoseSeasonHoldsIsCurrent) {
    const Reservation june{"2", "", "0000-06-01T10:00:00", "0000-06-30T00:00:00", "01:00:00"};
    const Reservation day{"3", "", "0000-06-05T10:00:00", "0000-06-05T00:00:00", "01:00:00"};
    const std::vector<Reservation> all{kSummer, kWinter, june, day};
    EXPECT_EQ(currentReservation(all, local("2026-06-05T12:00:00")), "3");
    EXPECT_EQ(currentReservation(all, local("2026-06-06T12:00:00")), "2");
    EXPECT_EQ(currentReservation(all, local("2026-07-01T12:00:00")), "0");
    EXPECT_EQ(currentReservation(all, local("2026-01-01T12:00:00")), "1");
}

TEST_P(ReservationWindow, NoneIsCurrentWhenNoSeasonHolds) {
    EXPECT_FALSE(currentReservation({kSummer}, local("2026-01-01T12:00:00")));
    EXPECT_FALSE(currentReservation({}, local("2026-01-01T12:00:00")));
}

TEST_P(ReservationWindow, WindowIsThatOfTheMomentsOwnDay) {
    const auto window = windowOfDay(kWinter, local("2026-01-15T23:00:00"));
    ASSERT_TRUE(window);
    EXPECT_EQ(window->start, local("2026-01-15T06:00:00"));
    EXPECT_EQ(window->end, local("2026-01-15T10:00:00"));
}

TEST_P(ReservationWindow, WindowPastMidnightBelongsToTheDayOfItsStart) {
    const Reservation late{"2", "", "0000-06-01T23:00:00", "0000-06-30T00:00:00", "02:00:00"};
    const auto evening = windowOfDay(late, local("2026-06-10T23:30:00"));
    ASSERT_TRUE(evening);
    EXPECT_EQ(evening->end, local("2026-06-11T01:00:00"));
    const auto afterMidnight = windowOfDay(late, local("2026-06-11T00:30:00"));
    ASSERT_TRUE(afterMidnight);
    EXPECT_EQ(afterMidnight->start, local("2026-06-11T23:00:00"));
}

TEST_P(ReservationWindow, FieldsThatCannotBeReadAreNeverCurrent) {
    for (const Reservation &broken :
         {Reservation{"2", "", "", "", ""},
          Reservation{"2", "", "0000-06-01T10:00:00", "0000-06-30T00:00:00", "1 h"},
          Reservation{"2", "", "0000-06-01", "0000-06-30T00:00:00", "01:00:00"},
          Reservation{"2", "", "0000-06-31T10:00:00", "0000-06-30T00:00:00", "01:00:00"}}) {
        EXPECT_FALSE(seasonHolds(broken, local("2026-06-10T10:30:00"))) << broken.startTime;
        EXPECT_FALSE(currentReservation({broken}, local("2026-06-10T10:30:00")));
    }
}

TEST(ReservationWindowOnDaylightSavingDays, WindowKeepsItsLength) {
    const TimeZone zone("Europe/Berlin");
    const Reservation night{"2", "", "0000-01-01T01:00:00", "0000-12-31T00:00:00", "04:00:00"};
    const auto spring = windowOfDay(night, local("2026-03-29T12:00:00"));
    ASSERT_TRUE(spring);
    EXPECT_EQ(spring->end - spring->start, 4 * 3600);
    EXPECT_EQ(spring->end, local("2026-03-29T06:00:00"));
}

} // namespace
} // namespace corvane::client
