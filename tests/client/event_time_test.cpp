/* Where an ordered event comes to lie. */
#include "event_time.h"

#include "calendar.h"

#include <gtest/gtest.h>

namespace corvane::client {
namespace {

const std::time_t kTenOClock = parseUtc("2026-03-15T10:00:00").value();

TEST(EventTime, WithoutStartItBeginsNow) {
    const EventTime time = placeEvent(std::nullopt, 3600, kTenOClock);
    EXPECT_EQ(time.start, kTenOClock);
    EXPECT_EQ(time.end, kTenOClock + 3600);
    EXPECT_FALSE(time.isWaiting(kTenOClock));
    EXPECT_FALSE(time.isOver(kTenOClock));
}

TEST(EventTime, StartLaterTodayWaits) {
    const EventTime time = placeEvent(14 * 3600, 3600, kTenOClock);
    EXPECT_EQ(time.start, parseUtc("2026-03-15T14:00:00"));
    EXPECT_TRUE(time.isWaiting(kTenOClock));
}

TEST(EventTime, EventWhoseIntervalHasPassedIsMovedToTomorrow) {
    EXPECT_EQ(placeEvent(8 * 3600, 3600, kTenOClock).start, parseUtc("2026-03-16T08:00:00"));
}

TEST(EventTime, EventWhoseIntervalContainsNowStaysToday) {
    EXPECT_EQ(placeEvent(8 * 3600, 3 * 3600, kTenOClock).start, parseUtc("2026-03-15T08:00:00"));
}

TEST(EventTime, EventThatEndsThisVerySecondStaysToday) {
    EXPECT_EQ(placeEvent(9 * 3600, 3600, kTenOClock).start, parseUtc("2026-03-15T09:00:00"));
}

TEST(EventTime, ItIsOverOnlyAfterItsEnd) {
    const EventTime time{100, 200};
    EXPECT_TRUE(time.isWaiting(99));
    EXPECT_FALSE(time.isWaiting(100));
    EXPECT_FALSE(time.isOver(200));
    EXPECT_TRUE(time.isOver(201));
}

} // namespace
} // namespace corvane::client
