/* The ledger: what it concludes from what the appliance sees; and the forms of a record. */
#include "event_record.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace corvane::appliance {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr TimeMs kStart = 1'785'500'000'000;
constexpr TimeMs kMinute = 60'000;
const PlannedEvent kEvent{3, kStart, kStart + 10 * kMinute};

/* A ledger that has seen an empty table, an hour before the event. */
class Ledger : public testing::Test {
protected:
    Ledger() {
        ledger.stored(std::nullopt, kStart - 60 * kMinute);
        live(kStart - 60 * kMinute, kStart, 60);
    }

    /* The refrigerator draws so much, and is looked at every second. */
    void live(TimeMs from, TimeMs to, double watt) {
        for (TimeMs at = from; at <= to; at += 1000) {
            counterWh += at > from ? watt / 3600 : 0;
            ledger.sample(at, watt, counterWh);
        }
    }

    EventRecord last() {
        const auto changed = ledger.takeChanged();
        EXPECT_FALSE(changed.empty());
        return changed.empty() ? EventRecord{} : changed.back();
    }

    EventLedger ledger{7, std::nullopt};
    double counterWh = 0;
};

TEST_F(Ledger, OrderFromHereIsThePagesAndOtherwiseTheRemoteSides) {
    ledger.ordered(3, kStart - 500);
    ledger.stored(kEvent, kStart);
    EXPECT_EQ(last().orderedBy, "page");
    EXPECT_EQ(ledger.open()->orderedAtMs, kStart - 500);
    EXPECT_EQ(ledger.open()->id, 7);
    ledger.stored(PlannedEvent{2, kStart, kStart + kMinute}, kStart + 1000);
    EXPECT_EQ(last().orderedBy, "remote");
    EXPECT_EQ(ledger.open()->id, 8);
    EXPECT_EQ(ledger.lastOrder()->by, "remote");
}

TEST_F(Ledger, OrderThatWasRefusedIsNobodys) {
    ledger.ordered(3, kStart - 500);
    ledger.refused();
    ledger.stored(kEvent, kStart);
    EXPECT_EQ(last().orderedBy, "remote");
}

TEST_F(Ledger, EachStageIsTakenOnceAndOnlyForTheEventsLevel) {
    ledger.stored(kEvent, kStart);
    ledger.commanded(0, kStart + 100);
    ledger.commanded(3, kStart + 200);
    ledger.commanded(3, kStart + 9000);
    ledger.confirmed(2, kStart + 300);
    ledger.confirmed(3, kStart + 400);
    ledger.reported(3, kStart + 1400);
    const EventRecord record = last();
    EXPECT_EQ(record.commandedAtMs, kStart + 200);
    EXPECT_EQ(record.confirmedAtMs, kStart + 400);
    EXPECT_EQ(record.reportedAtMs, kStart + 1400);
}

TEST_F(Ledger, StageThatIsSeenBeforeTheStoringIsTheEventsUnlessItIsOlderOrOfAnotherLevel) {
    ledger.commanded(3, kStart - 1000); // of an event that was never seen in the table
    ledger.confirmed(3, kStart + 300);
    ledger.reported(2, kStart + 400);
    ledger.stored(kEvent, kStart + 500);
    EventRecord record = last();
    EXPECT_EQ(record.commandedAtMs, std::nullopt);
    EXPECT_EQ(record.confirmedAtMs, kStart + 300);
    EXPECT_EQ(record.reportedAtMs, std::nullopt);

    ledger.commanded(2, kStart + 1000);
    ledger.confirmed(2, kStart + 1100);
    ledger.commanded(0, kStart + 1200); // that was over before anybody saw it
    ledger.stored(PlannedEvent{2, kStart + 900, kEvent.endMs}, kStart + 1300);
    record = last();
    EXPECT_EQ(record.commandedAtMs, std::nullopt);
    EXPECT_EQ(record.confirmedAtMs, std::nullopt);
}

TEST_F(Ledger, StageOfATimeThatTheClockHasGoneBackOverIsNotTheEvents) {
    ledger.confirmed(3, kStart + 5000);
    ledger.stored(kEvent, kStart + 500);
    EXPECT_EQ(last().confirmedAtMs, std::nullopt);
}

TEST_F(Ledger, EndIsToldByItsCause) {
    ledger.stored(kEvent, kStart);
    ledger.stored(std::nullopt, kEvent.endMs + 800);
    EXPECT_EQ(last().endedBy, "schedule");
    ledger.stored(kEvent, kStart);
    ledger.stored(std::nullopt, kStart + kMinute);
    EXPECT_EQ(last().endedBy, "cancel");
    EXPECT_EQ(ledger.lastOrder()->level, 0);
    EXPECT_EQ(ledger.lastOrder()->by, "remote");
    ledger.stored(kEvent, kStart);
    ledger.stored(PlannedEvent{1, kStart, kStart + kMinute}, kStart + kMinute);
    EXPECT_EQ(ledger.takeChanged().front().endedBy, "replaced");
    ledger.micomRestarted(kStart + kMinute);
    ledger.stored(std::nullopt, kStart + kMinute + 4000);
    EXPECT_EQ(last().endedBy, "schedule"); // it was over anyway
}

TEST_F(Ledger, RestartOfTheMicomEndsAnEventThatIsNotOver) {
    ledger.stored(kEvent, kStart);
    ledger.micomRestarted(kStart + kMinute);
    ledger.stored(std::nullopt, kStart + kMinute + 4000);
    EXPECT_EQ(last().endedBy, "restart");
    ledger.stored(kEvent, kStart);
    ledger.stored(std::nullopt, kStart + 5 * kMinute);
    EXPECT_EQ(last().endedBy, "cancel"); // the restart is long past
}

TEST_F(Ledger, CancelFromHereIsOneAlsoWhenTheNextOrderIsQuick) {
    ledger.ordered(3, kStart);
    ledger.stored(kEvent, kStart);
    ledger.ordered(0, kStart + kMinute);
    ledger.ordered(2, kStart + kMinute + 5);
    ledger.stored(PlannedEvent{2, kStart, kStart + kMinute * 2}, kStart + kMinute + 10);
    const auto changed = ledger.takeChanged();
    ASSERT_EQ(changed.size(), 2U);
    EXPECT_EQ(changed[0].endedBy, "cancel");
    EXPECT_EQ(changed[1].orderedBy, "page");
}

TEST_F(Ledger, EnergiesAreOverSpansOfTheEventsOwnLength) {
    ledger.stored(kEvent, kStart);
    live(kStart, kEvent.endMs, 30);
    ledger.stored(std::nullopt, kEvent.endMs + 500);
    EventRecord record = last();
    EXPECT_NEAR(*record.energyBeforeWh, 10, 0.05);
    EXPECT_NEAR(*record.energyDuringWh, 5, 0.05);
    EXPECT_NEAR(*record.averageWatt, 30, 0.3);
    EXPECT_EQ(record.peakWatt, 30);
    EXPECT_EQ(record.energyAfterWh, std::nullopt);
    live(kEvent.endMs + 1000, kEvent.endMs + 11 * kMinute, 90);
    record = last();
    EXPECT_NEAR(*record.energyAfterWh, 15, 0.2);
}

TEST_F(Ledger, CancelledEventIsMeasuredForAsLongAsItLasted) {
    ledger.stored(kEvent, kStart);
    live(kStart, kStart + 2 * kMinute, 30);
    ledger.stored(std::nullopt, kStart + 2 * kMinute);
    const EventRecord record = last();
    EXPECT_NEAR(*record.energyBeforeWh, 2, 0.05);
    EXPECT_NEAR(*record.energyDuringWh, 1, 0.05);
}

TEST_F(Ledger, EventStoredAfterItsStartCountsFromItsStoring) {
    ledger.stored(PlannedEvent{3, kStart - 30 * kMinute, kEvent.endMs}, kStart);
    EXPECT_EQ(ledger.open()->beganMs(), kStart);
}

TEST_F(Ledger, EventThatNeverBeganHasNoFigures) {
    ledger.stored(PlannedEvent{3, kStart + 60 * kMinute, kStart + 70 * kMinute}, kStart);
    ledger.stored(std::nullopt, kStart + kMinute);
    EXPECT_EQ(last().energyDuringWh, std::nullopt);
    EXPECT_TRUE(ledger.takeEnded().empty());
}

TEST_F(Ledger, BaselineArrivesAlsoWhenTheTimeAfterIsAlreadyOver) {
    ledger.stored(kEvent, kStart);
    live(kStart, kEvent.endMs, 30);
    ledger.stored(std::nullopt, kEvent.endMs);
    live(kEvent.endMs + 1000, kEvent.endMs + 20 * kMinute, 60);
    ASSERT_EQ(ledger.takeEnded().size(), 1U);
    ledger.baseline(7, 50, 80, 4);
    const EventRecord record = last();
    EXPECT_EQ(record.baselineAverageWatt, 50);
    EXPECT_EQ(record.baselineDays, 4);
    EXPECT_NE(record.energyAfterWh, std::nullopt);
}

TEST_F(Ledger, OverridesAndHeldDefrostsCountWhileTheEventRuns) {
    ledger.overridden(true, "remote", kStart - kMinute);
    ledger.defrostHeld(kStart - kMinute);
    ledger.stored(kEvent, kStart);
    ledger.overridden(true, "display", kStart + kMinute);
    ledger.overridden(false, "remote", kStart + 2 * kMinute);
    ledger.defrostHeld(kStart + kMinute);
    const EventRecord record = last();
    ASSERT_EQ(record.overrides.size(), 2U);
    EXPECT_EQ(record.overrides[0].by, "display");
    EXPECT_EQ(record.defrostsHeld, 1);
}

TEST(LedgerAfterRestart, SettlesWhatHadEndedBefore) {
    EventRecord ended;
    ended.id = 4;
    ended.plan = kEvent;
    ended.storedAtMs = kStart;
    ended.endedAtMs = kEvent.endMs;
    ended.energyDuringWh = 5;
    EventLedger ledger(5, std::nullopt);
    ledger.resume(ended);
    EXPECT_EQ(ledger.takeEnded().size(), 1U); // its baseline is to be looked up
    for (TimeMs at = kEvent.endMs; at <= kEvent.endMs + 10 * kMinute; at += kMinute)
        ledger.sample(at, 60, static_cast<double>((at - kEvent.endMs) / kMinute));
    const auto changed = ledger.takeChanged();
    ASSERT_EQ(changed.size(), 1U);
    EXPECT_NEAR(changed[0].energyAfterWh.value_or(0), 10, 0.001);
}

TEST(LedgerAfterRestart, GoesOnWithTheSameEventAndEndsAnother) {
    EventRecord open;
    open.id = 4;
    open.plan = kEvent;
    EventLedger same(5, open);
    same.stored(kEvent, kStart + kMinute);
    EXPECT_EQ(same.open()->id, 4);
    EventLedger gone(5, open);
    gone.stored(std::nullopt, kStart + kMinute);
    EXPECT_EQ(gone.takeChanged().front().endedBy, "restart");
}

TEST(Trail, UnknownSpansHaveNoEnergy) {
    EnergyTrail trail;
    EXPECT_EQ(trail.between(0, 1), std::nullopt);
    trail.add(kStart, 100);
    trail.add(kStart + kMinute, 101);
    EXPECT_NEAR(*trail.between(kStart, kStart + kMinute / 2), 0.5, 1e-9);
    EXPECT_EQ(trail.between(kStart - 1, kStart + 1), std::nullopt);
    EXPECT_EQ(trail.between(kStart, kStart + kMinute + 1), std::nullopt);
    trail.add(kStart + 20 * kMinute, 130); // nobody looked for a long time
    EXPECT_EQ(trail.between(kStart, kStart + 10 * kMinute), std::nullopt);
    trail.add(kStart, 0); // the clock went back
    EXPECT_EQ(trail.between(kStart, kStart + kMinute), std::nullopt);
}

TEST(Trail, KeepsTwoDaysAndNoMore) {
    EnergyTrail trail;
    const TimeMs day = 24 * 60 * kMinute;
    for (TimeMs at = 0; at <= 3 * day; at += 10'000)
        trail.add(kStart + at, static_cast<double>(at) / 3'600'000);
    EXPECT_NEAR(*trail.between(kStart + day, kStart + 3 * day), 48, 1e-6);
    EXPECT_EQ(trail.between(kStart, kStart + kMinute), std::nullopt);
}

TEST(Record, JsonIsReadBackAsItWas) {
    EventRecord record;
    record.id = 9;
    record.plan = kEvent;
    record.orderedAtMs = kStart - 1;
    record.orderedBy = "page";
    record.storedAtMs = kStart + 1;
    record.endedAtMs = kStart + 7;
    record.endedBy = "cancel";
    record.overrides = {{true, kStart + 3, "display"}};
    record.energyDuringWh = 1.25;
    record.baselineDays = 3;
    record.clockSetBack = true;
    const auto json = recordJson(record);
    EXPECT_EQ(recordJson(recordFromJson(json)), json);
    EXPECT_FALSE(json["open"].get<bool>());
    EXPECT_TRUE(json["confirmedAt"].is_null());
    EXPECT_EQ(json["startAt"], 1'785'500'000.0);
    EXPECT_THROW(static_cast<void>(recordFromJson(nlohmann::json::object())),
                 nlohmann::json::exception);
}

TEST(Record, FromBeforeTheMarkOfASetBackClockIsStillRead) {
    auto json = recordJson({});
    json.erase("clockSetBack");
    EXPECT_FALSE(recordFromJson(json).clockSetBack);
}

TEST(Record, CsvHasALineOfNamesAndUtcMoments) {
    EventRecord record;
    record.id = 9;
    record.plan = kEvent;
    record.orderedBy = "page";
    record.storedAtMs = kStart;
    const std::string csv = recordsCsv({record});
    EXPECT_THAT(csv, testing::StartsWith("id,level,orderedAt,"));
    EXPECT_THAT(csv, HasSubstr("\r\n9,3,,page,2026-07-31T12:13:20.000Z,"));
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 2);
}

TEST(Record, CsvTellsEachOverrideWithItsTimeAndWho) {
    EventRecord record;
    record.plan = kEvent;
    record.overrides = {{true, kStart, "display"}, {false, kStart + 1500, "remote"}};
    EXPECT_THAT(recordsCsv({record}), HasSubstr(",on 2026-07-31T12:13:20.000Z by display; "
                                                "off 2026-07-31T12:13:21.500Z by remote,"));
}

} // namespace
} // namespace corvane::appliance
