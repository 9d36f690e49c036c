/* The history: what is written is read back, gathered, bounded, and survives its program. */
#include "history.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

namespace corvane::appliance {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kNow = 1'785'499'200; // 2026-07-31T12:00:00Z

HistoryRow minuteAt(std::int64_t atSec, double watt = 60) {
    return {.atSec = atSec,
            .powerWatt = watt,
            .peakWatt = watt + 5,
            .energyWh = watt / 60,
            .counterWh = static_cast<double>(atSec - kNow) / 60,
            .fridgeCelsius = 4,
            .freezerCelsius = -18,
            .ambientCelsius = 22,
            .compressor = 0.5};
}

TraceEntry entry(std::int64_t id, const std::string &source, const std::string &text) {
    return {id, kNow * 1000 + id, source, "in", text, std::nullopt};
}

std::vector<TraceEntry> traceOf(const History &history, const TraceFilter &filter) {
    std::vector<TraceEntry> found;
    history.trace(filter, [&](const TraceEntry &each) { found.push_back(each); });
    return found;
}

class HistoryTest : public testing::Test {
protected:
    std::string path() const { return folder_.file("history.db"); }

    void addEvent(History &history, std::int64_t id, std::int64_t fromSec, std::int64_t toSec,
                  bool clockSetBack = false) {
        EventRecord record;
        record.id = id;
        record.plan = {2, fromSec * 1000, toSec * 1000};
        record.orderedBy = "page";
        record.storedAtMs = fromSec * 1000;
        record.endedAtMs = toSec * 1000;
        record.endedBy = "schedule";
        record.clockSetBack = clockSetBack;
        history.saveRecord(record);
    }

    TempFolder folder_;
};

TEST_F(HistoryTest, MinutesAreReadBackAndGatheredIntoHours) {
    History history(path(), kNow * 1000);
    for (int minute = 0; minute < 60; ++minute)
        history.addMinute(minuteAt(kNow + minute * 60, minute < 30 ? 40 : 80));
    const auto minutes = history.rows(kNow, kNow + kHour, 60);
    ASSERT_THAT(minutes, SizeIs(60));
    EXPECT_EQ(minutes[0].powerWatt, 40);
    EXPECT_EQ(minutes[0].freezerCelsius, -18);
    const auto hours = history.rows(kNow, kNow + kHour, 3600);
    ASSERT_THAT(hours, SizeIs(1));
    EXPECT_EQ(hours[0].atSec, kNow);
    EXPECT_NEAR(hours[0].powerWatt, 60, 1e-9);
    EXPECT_EQ(hours[0].peakWatt, 85);
    EXPECT_NEAR(hours[0].energyWh, 60, 1e-9);
    EXPECT_NEAR(hours[0].compressor, 0.5, 1e-9);
}

TEST_F(HistoryTest, AnotherProgramFindsWhatTheFirstHasWritten) {
    {
        History history(path(), kNow * 1000);
        history.addMinute(minuteAt(kNow));
        history.addTrace(entry(3, "micom", "heard"));
        history.saveText("models", "text");
        addEvent(history, 5, kNow - 100, kNow);
    }
    const History history(path(), (kNow + 60) * 1000);
    EXPECT_THAT(history.rows(0, kNow + 60, 60), SizeIs(1));
    EXPECT_EQ(history.lastTraceId(), 3);
    EXPECT_EQ(history.lastRecordId(), 5);
    EXPECT_EQ(history.text("models"), "text");
    EXPECT_EQ(history.text("else"), std::nullopt);
    EXPECT_THAT(history.records(10), SizeIs(1));
}

TEST_F(HistoryTest, RowsFromAfterNowAreDroppedAtTheStart) {
    {
        History history(path(), kNow * 1000);
        history.addMinute(minuteAt(kNow - 60));
        history.addMinute(minuteAt(kNow + kDay));
    }
    const History history(path(), kNow * 1000);
    EXPECT_THAT(history.rows(0, kNow + 2 * kDay, 60), SizeIs(1));
}

TEST_F(HistoryTest, OldRowsAndEntriesAreDropped) {
    History history(path(), kNow * 1000);
    history.addMinute(minuteAt(kNow - (History::kMinuteDays + 1) * kDay));
    history.addTrace(entry(1, "micom", "old"));
    history.addTrace(entry(History::kTraceEntries + 1, "micom", "new"));
    history.addMinute(minuteAt(kNow));
    EXPECT_THAT(history.rows(0, kNow + 60, 60), SizeIs(1));
    const auto trace = traceOf(history, {});
    ASSERT_THAT(trace, SizeIs(1));
    EXPECT_EQ(trace[0].text, "new");
}

TEST_F(HistoryTest, TraceIsFilteredNewestLast) {
    History history(path(), kNow * 1000);
    history.addTrace(entry(1, "micom", "heard SET_SMARTGRID_LEVEL3"));
    history.addTrace(entry(2, "page", "opened the fridge door"));
    history.addTrace(entry(3, "micom", "applied level 3"));
    const auto ids = [&](const TraceFilter &filter) {
        std::vector<std::int64_t> found;
        for (const TraceEntry &each : traceOf(history, filter))
            found.push_back(each.id);
        return found;
    };
    EXPECT_THAT(ids({}), ElementsAre(1, 2, 3));
    EXPECT_THAT(ids({.limit = 2}), ElementsAre(2, 3));
    EXPECT_THAT(ids({.limit = 1, .beforeId = 3}), ElementsAre(2));
    EXPECT_THAT(ids({.source = "micom"}), ElementsAre(1, 3));
    EXPECT_THAT(ids({.text = "LEVEL"}), ElementsAre(1, 3));
    EXPECT_THAT(ids({.text = "' OR 1=1 --"}), ElementsAre());
}

TEST_F(HistoryTest, RecordIsReplacedByItsNewerStateAndNewestComeFirst) {
    History history(path(), kNow * 1000);
    addEvent(history, 1, kNow - 500, kNow - 400);
    addEvent(history, 2, kNow - 300, kNow - 200);
    addEvent(history, 1, kNow - 500, kNow - 350);
    const auto records = history.records(10);
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].id, 2);
    EXPECT_EQ(records[1].plan.endMs, (kNow - 350) * 1000);
}

TEST_F(HistoryTest, BaselineIsTheMeanOfTheSameHoursOfDaysWithoutAnEvent) {
    History history(path(), kNow * 1000);
    for (int day = 1; day <= 4; ++day)
        for (int minute = 0; minute < 60; ++minute)
            history.addMinute(minuteAt(kNow - day * kDay + minute * 60, 10.0 * day));
    addEvent(history, 1, kNow - 2 * kDay + 600, kNow - 2 * kDay + 1200);
    // That day has been lived anew since, without this one.
    addEvent(history, 2, kNow - 3 * kDay + 600, kNow - 3 * kDay + 1200, true);
    history.flush();
    const Baseline found = history.baseline(kNow * 1000, (kNow + kHour) * 1000);
    EXPECT_EQ(found.days, 3);
    EXPECT_NEAR(*found.averageWatt, (10.0 + 30 + 40) / 3, 1e-9);
    EXPECT_NEAR(*found.peakWatt, (15.0 + 35 + 45) / 3, 1e-9);
}

TEST_F(HistoryTest, BaselineNeedsMostOfADaysMinutes) {
    History history(path(), kNow * 1000);
    for (int minute = 0; minute < 50; ++minute)
        history.addMinute(minuteAt(kNow - kDay + minute * 60));
    history.flush();
    EXPECT_EQ(history.baseline(kNow * 1000, (kNow + kHour) * 1000).days, 0);
    EXPECT_EQ(history.baseline(kNow * 1000, (kNow + kHour) * 1000).averageWatt, std::nullopt);
    EXPECT_EQ(history.baseline(kNow * 1000, (kNow + 8) * 1000).days, 1); // shorter than a minute
}

TEST_F(HistoryTest, BaselineKeepsToTheLocalHourWhenClocksChange) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    const std::int64_t afterChange = 1'792'926'000; // 2026-10-25T12:00 in Berlin, winter time
    {
        History history(path(), afterChange * 1000);
        for (int minute = 0; minute < 60; ++minute)
            history.addMinute(minuteAt(afterChange - kDay - kHour + minute * 60));
        history.flush();
        EXPECT_EQ(history.baseline(afterChange * 1000, (afterChange + kHour) * 1000).days, 1);
    }
    unsetenv("TZ");
    tzset();
}

TEST_F(HistoryTest, FileThatIsNoHistoryIsRefusedWithAReason) {
    std::ofstream(path()) << std::string(4096, 'x');
    try {
        const History history(path(), kNow * 1000);
        FAIL() << "it was taken";
    } catch (const HistoryError &error) {
        EXPECT_THAT(error.what(), testing::HasSubstr(path()));
    }
}

TEST_F(HistoryTest, FailedWriteIsToldAndMends) {
    History history(path(), kNow * 1000);
    history.addTrace(entry(1, "micom", "one"));
    history.flush();
    EXPECT_FALSE(history.failing());
    testing::internal::CaptureStderr();
    history.addTrace(entry(1, "micom", "the same id"));
    history.flush();
    EXPECT_TRUE(history.failing());
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("is not written"));
    history.addTrace(entry(2, "micom", "two"));
    history.flush();
    EXPECT_FALSE(history.failing());
}

} // namespace
} // namespace corvane::appliance
