/* Texts of times: what is accepted, and how they are shown. */
#include "calendar.h"

#include "time_zone.h"

#include <gtest/gtest.h>

namespace corvane::client {
namespace {

TEST(Calendar, TimeOfDayRunsFromMidnightToTheLastSecond) {
    EXPECT_EQ(parseTimeOfDay("00:00:00"), 0);
    EXPECT_EQ(parseTimeOfDay("14:05:09"), 14 * 3600 + 5 * 60 + 9);
    EXPECT_EQ(parseTimeOfDay("23:59:59"), 86399);
}

TEST(Calendar, TimeOfDayOfAnotherFormOrRangeIsNone) {
    for (const char *text :
         {"", "1:00:00", "24:00:00", "12:60:00", "12:00:60", "12-00-00", "12:00:0", "12:00:000",
          "-1:00:00", "12:00:0x", "12 00:00", "12:00", "12:0000"})
        EXPECT_FALSE(parseTimeOfDay(text)) << text;
}

TEST(Calendar, SecondsMayBeLeftOutWhereMinutesAreAllowed) {
    EXPECT_EQ(parseTimeOfDay("17:30", true), 17 * 3600 + 30 * 60);
    EXPECT_EQ(parseTimeOfDay("17:30:15", true), 17 * 3600 + 30 * 60 + 15);
    EXPECT_FALSE(parseTimeOfDay("17:3", true));
    EXPECT_FALSE(parseTimeOfDay("17.30", true));
}

TEST(Calendar, ClockTextHasTwoDigitsEach) {
    EXPECT_EQ(clockText(0), "00:00:00");
    EXPECT_EQ(clockText(3661), "01:01:01");
    EXPECT_EQ(clockText(86399), "23:59:59");
}

TEST(Calendar, MonthDayIsADayThatSomeYearHas) {
    ASSERT_TRUE(parseMonthDay("02-29"));
    EXPECT_EQ(parseMonthDay("02-29")->month, 2);
    EXPECT_EQ(parseMonthDay("02-29")->day, 29);
    EXPECT_TRUE(parseMonthDay("12-31"));
    for (const char *text :
         {"", "02-30", "04-31", "13-01", "00-10", "10-00", "1-1", "01/01", "01-011"})
        EXPECT_FALSE(parseMonthDay(text)) << text;
}

TEST(Calendar, UtcMomentIsReadWithAndWithoutZAndFraction) {
    EXPECT_EQ(parseUtc("1970-01-02T00:00:01"), 86401);
    EXPECT_EQ(parseUtc("1970-01-02T00:00:01Z"), 86401);
    EXPECT_EQ(parseUtc("1970-01-02T00:00:01.250Z"), 86401);
    EXPECT_FALSE(parseUtc("1970-01-02"));
    EXPECT_FALSE(parseUtc("1970-01-02T00:00:01+01:00"));
    EXPECT_FALSE(parseUtc("yesterday"));
}

TEST(Calendar, LocalTimeFollowsTheZone) {
    const TimeZone zone("Asia/Seoul");
    EXPECT_EQ(formatUtc(0, "%F %T"), "1970-01-01 00:00:00");
    EXPECT_EQ(formatLocal(0, "%F %T"), "1970-01-01 09:00:00");
}

TEST(Calendar, LengthShowsTheTwoLargestUnits) {
    EXPECT_EQ(lengthText(0), "0 s");
    EXPECT_EQ(lengthText(59), "59 s");
    EXPECT_EQ(lengthText(60), "1 min");
    EXPECT_EQ(lengthText(61), "1 min 1 s");
    EXPECT_EQ(lengthText(3600), "1 h");
    EXPECT_EQ(lengthText(16259), "4 h 30 min");
}

} // namespace
} // namespace corvane::client
