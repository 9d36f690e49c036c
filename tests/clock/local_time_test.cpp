/*
 * Local times as they are typed. Expected moments come from the zones' own rules, written as UTC.
 */
#include "virtual_clock.h"

#include <gmock/gmock.h>

namespace {

using corvane::clock::parseLocalTime;
using corvane::clock::useZone;
using testing::HasSubstr;

class LocalTime : public testing::Test {
protected:
    static void SetUpTestSuite() { EXPECT_EQ(useZone("Europe/Berlin"), ""); }

    void TearDown() override { EXPECT_EQ(useZone("Europe/Berlin"), ""); }

    static std::time_t utc(int year, int month, int day, int hour, int minute, int second = 0) {
        std::tm fields{};
        fields.tm_year = year - 1900;
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        fields.tm_hour = hour;
        fields.tm_min = minute;
        fields.tm_sec = second;
        return timegm(&fields);
    }

    static std::time_t parsed(const std::string &text) {
        std::time_t moment = -1;
        EXPECT_EQ(parseLocalTime(text, moment), "") << text;
        return moment;
    }

    static std::string refusal(const std::string &text) {
        std::time_t moment = -1;
        const std::string error = parseLocalTime(text, moment);
        EXPECT_EQ(moment, -1) << "touched by " << text;
        return error;
    }
};

TEST_F(LocalTime, IsReadInTheZoneWithItsSummerTime) {
    EXPECT_EQ(parsed("2026-07-31T14:50"), utc(2026, 7, 31, 12, 50));
    EXPECT_EQ(parsed("2026-01-31T14:50:07"), utc(2026, 1, 31, 13, 50, 7));
}

TEST_F(LocalTime, FollowsAChangeOfTheZone) {
    ASSERT_EQ(useZone("Australia/Lord_Howe"), "");
    EXPECT_EQ(parsed("2026-01-31T14:50"), utc(2026, 1, 31, 3, 50));
    EXPECT_EQ(parsed("2026-07-31T14:50"), utc(2026, 7, 31, 4, 20));
}

TEST_F(LocalTime, ThatTheClockChangeLeavesOutIsRefused) {
    EXPECT_THAT(refusal("2026-03-29T02:00"), HasSubstr("does not exist"));
    EXPECT_THAT(refusal("2026-03-29T02:59:59"), HasSubstr("does not exist"));
    EXPECT_EQ(parsed("2026-03-29T01:59:59"), utc(2026, 3, 29, 0, 59, 59));
    EXPECT_EQ(parsed("2026-03-29T03:00"), utc(2026, 3, 29, 1, 0));
}

TEST_F(LocalTime, ThatTheClockChangeBringsTwiceIsRefused) {
    EXPECT_THAT(refusal("2026-10-25T02:00"), HasSubstr("comes twice"));
    EXPECT_THAT(refusal("2026-10-25T02:59:59"), HasSubstr("comes twice"));
    EXPECT_EQ(parsed("2026-10-25T01:59:59"), utc(2026, 10, 24, 23, 59, 59));
    EXPECT_EQ(parsed("2026-10-25T03:00"), utc(2026, 10, 25, 2, 0));
}

TEST_F(LocalTime, OfADayThatTheZoneSkippedIsRefused) {
    ASSERT_EQ(useZone("Pacific/Apia"), "");
    EXPECT_THAT(refusal("2011-12-30T12:00"), HasSubstr("does not exist"));
}

TEST_F(LocalTime, OfALeapDayIsReadOnlyInALeapYear) {
    EXPECT_EQ(parsed("2028-02-29T00:00"), utc(2028, 2, 28, 23, 0));
    EXPECT_THAT(refusal("2026-02-29T00:00"), HasSubstr("is no local time"));
}

TEST_F(LocalTime, InAnotherFormIsRefusedAndQuoted) {
    for (const char *text :
         {"", "2026-07-31", "2026-07-31 14:50", "2026-7-31T14:50", "2026-07-31T24:00",
          "2026-07-31T14:60", "2026-13-31T14:50", "2026-07-32T14:50", "2026-07-31T14:50Z",
          "2026-07-31T14:50:60", "1969-12-31T14:50", "2200-01-01T00:00", "-026-07-31T14:50"})
        EXPECT_THAT(refusal(text), HasSubstr("\"" + std::string(text) + "\" is no local time"));
    EXPECT_THAT(refusal("a\nb"), HasSubstr(R"("a\u000ab")"));
}

TEST_F(LocalTime, NeedsAZoneOfTheDatabase) {
    for (const char *zone : {"", "Europe/Nowhere", "../etc/passwd", "/etc/passwd", "Europe/"})
        EXPECT_THAT(useZone(zone), HasSubstr("is no zone")) << zone;
    EXPECT_EQ(parsed("2026-07-31T14:50"), utc(2026, 7, 31, 12, 50)) << "the zone has changed";
}

} // namespace
