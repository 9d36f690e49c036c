/*
 * Placing a programme's events on the calendar, on days on which clocks are changed too.
 */
#include <scenario.h>

#include <gmock/gmock.h>

namespace {

using namespace corvane::lab;
using ::testing::ElementsAre;

std::vector<PlannedEvent> plan(const std::string &period, const std::string &programme) {
    return planEvents(parseScenario(period + "[[programme]]\nlevel = 2\n" + programme, "file"));
}

std::vector<std::string> starts(const std::vector<PlannedEvent> &events) {
    std::vector<std::string> texts;
    for (const PlannedEvent &event : events)
        texts.push_back(utcText(event.startMs));
    return texts;
}

const std::string kAugust = "from = 2026-08-01\nto = 2026-08-31\nzone = \"Europe/Berlin\"\n";
const std::string kEvening = "from = \"18:00\"\nto = \"21:00\"\n";

TEST(CalendarRules, WeekdaysLeaveOutSaturdayAndSunday) {
    const auto events = plan(kAugust, kEvening + "every = \"weekday\"\n");
    EXPECT_EQ(events.size(), 21U);
    for (const PlannedEvent &event : events)
        EXPECT_LT(weekdayOf(localTimeOf(event.startMs).date), 5);
}

TEST(CalendarRules, LimitTakesTheFirst) {
    const auto events = plan(kAugust, kEvening + "every = \"weekday\"\nlimit = 20\n");
    EXPECT_EQ(events.size(), 20U);
    EXPECT_EQ(utcText(events.front().startMs), "2026-08-03T16:00:00Z");
    EXPECT_EQ(utcText(events.back().startMs), "2026-08-28T16:00:00Z");
}

TEST(CalendarRules, MonthsAndWeekdaysMustBothHold) {
    const auto events = plan("from = 2026-01-01\nto = 2026-12-31\n",
                             kEvening + "months = [\"feb\"]\nweekdays = [\"sun\"]\n");
    EXPECT_THAT(starts(events), ElementsAre("2026-02-01T18:00:00Z", "2026-02-08T18:00:00Z",
                                            "2026-02-15T18:00:00Z", "2026-02-22T18:00:00Z"));
}

TEST(CalendarRules, ChosenDatesAreTheOnlyOnes) {
    const auto events = plan(kAugust, kEvening + "dates = [2026-08-31, 2026-08-01]\n");
    EXPECT_THAT(starts(events), ElementsAre("2026-08-01T16:00:00Z", "2026-08-31T16:00:00Z"));
}

TEST(CalendarRules, AnEndBeforeTheStartIsOnTheNextDay) {
    const auto events = plan(kAugust, "from = \"22:00\"\nto = \"02:00\"\ndates = [2026-08-03]\n");
    EXPECT_EQ(events.at(0).endMs - events.at(0).startMs, 4 * kHourMs);
}

TEST(CalendarRules, SameLocalTimeIsAnotherMomentAfterTheClocksHaveChanged) {
    const auto events =
        plan("from = 2026-03-28\nto = 2026-03-29\nzone = \"Europe/Berlin\"\n", kEvening);
    EXPECT_THAT(starts(events), ElementsAre("2026-03-28T17:00:00Z", "2026-03-29T16:00:00Z"));
}

TEST(CalendarRules, HoursThatAreLeftOutShortenAnEventFromTo) {
    const auto events = plan("from = 2026-03-29\nto = 2026-03-29\nzone = \"Europe/Berlin\"\n",
                             "from = \"01:00\"\nto = \"04:00\"\n");
    EXPECT_EQ(events.at(0).endMs - events.at(0).startMs, 2 * kHourMs);
}

TEST(CalendarRules, HoursThatComeTwiceLengthenAnEventFromTo) {
    const auto events = plan("from = 2026-10-25\nto = 2026-10-25\nzone = \"Europe/Berlin\"\n",
                             "from = \"01:00\"\nto = \"04:00\"\n");
    EXPECT_EQ(events.at(0).endMs - events.at(0).startMs, 4 * kHourMs);
}

TEST(CalendarRules, ALengthIsALengthOnEveryDay) {
    const auto events = plan("from = 2026-10-25\nto = 2026-10-25\nzone = \"Europe/Berlin\"\n",
                             "start = \"01:00\"\nduration = \"03:00\"\n");
    EXPECT_EQ(events.at(0).endMs - events.at(0).startMs, 3 * kHourMs);
}

TEST(CalendarRules, OfATimeThatComesTwiceTheFirstIsMeant) {
    const auto events = plan("from = 2026-10-25\nto = 2026-10-25\nzone = \"Europe/Berlin\"\n",
                             "start = \"02:30\"\nduration = \"01:00\"\n");
    EXPECT_THAT(starts(events), ElementsAre("2026-10-25T00:30:00Z"));
}

TEST(CalendarRules, ATimeThatDoesNotExistIsMovedForwardByTheGap) {
    const auto events = plan("from = 2026-03-29\nto = 2026-03-29\nzone = \"Europe/Berlin\"\n",
                             "start = \"02:30\"\nduration = \"01:00\"\n");
    EXPECT_THAT(starts(events), ElementsAre("2026-03-29T01:30:00Z")); // 03:30 on the wall
}

TEST(CalendarRules, HalfHourChangesOfTheSouthernHemisphereAreFollowed) {
    const auto events = plan("from = 2026-04-04\nto = 2026-04-06\nzone = "
                             "\"Australia/Lord_Howe\"\n",
                             "start = \"12:00\"\nduration = \"01:00\"\n");
    EXPECT_THAT(starts(events), ElementsAre("2026-04-04T01:00:00Z", "2026-04-05T01:30:00Z",
                                            "2026-04-06T01:30:00Z"));
}

TEST(CalendarRules, ALeapDayIsADay) {
    EXPECT_EQ(plan("from = 2028-02-28\nto = 2028-03-01\n", kEvening).size(), 3U);
    EXPECT_EQ(plan("from = 2027-02-28\nto = 2027-03-01\n", kEvening).size(), 2U);
}

TEST(CalendarRules, TheScenarioEndsAtMidnightOfALongDay) {
    const Scenario day =
        parseScenario("from = 2026-10-25\nto = 2026-10-25\nzone = \"Europe/Berlin\"\n", "file");
    EXPECT_EQ(day.endMs() - day.beginMs(), 25 * kHourMs);
}

TEST(Orders, AreGivenHalfAnHourBefore) {
    const auto events = plan(kAugust, kEvening + "limit = 1\n");
    EXPECT_EQ(events.at(0).startMs - events.at(0).orderMs, 30 * kMinuteMs);
}

TEST(Orders, WaitUntilTheEventBeforeIsOver) {
    const auto events = plan(
        kAugust, "starts = [\"10:00\", \"11:10\"]\nduration = \"01:00\"\ndates = [2026-08-03]\n");
    EXPECT_EQ(events.at(1).orderMs, events.at(0).endMs + kMinuteMs);
}

TEST(Orders, OfEventsThatOverlapDoNotWait) {
    const auto events = plan(
        kAugust, "starts = [\"10:00\", \"10:45\"]\nduration = \"01:00\"\ndates = [2026-08-03]\n");
    EXPECT_EQ(events.at(1).startMs - events.at(1).orderMs, 30 * kMinuteMs);
}

/* At 23:45 UTC, 00:05 of 23 hours would be taken for today, which still runs. */
TEST(Orders, ThatTheServiceWouldPlaceOnTheDayBeforeWaitForTheUtcDay) {
    const auto events = plan("from = 2026-08-03\nto = 2026-08-05\n",
                             "start = \"00:05\"\nduration = \"23:50\"\ndates = [2026-08-04]\n");
    EXPECT_EQ(utcText(events.at(0).orderMs), "2026-08-04T00:00:00Z");
}

TEST(Orders, AreNeverGivenBeforeTheScenarioBegins) {
    const auto events =
        plan("from = 2026-08-03\nto = 2026-08-03\n", "start = \"00:10\"\nduration = \"01:00\"\n");
    EXPECT_EQ(utcText(events.at(0).orderMs), "2026-08-03T00:01:00Z");
}

} // namespace
