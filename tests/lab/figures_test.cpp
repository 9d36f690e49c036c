/*
 * The report's numbers, against runs that can be computed by hand.
 */
#include "made_up_runs.h"

#include <report.h>

#include <gmock/gmock.h>

#include <cmath>

namespace {

using namespace corvane::lab;
using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Figures, SavingIsTheDifferenceOfTheTwoRuns) {
    const Figures figures = figuresOf(madeUpRuns());
    EXPECT_DOUBLE_EQ(figures.days, 2);
    EXPECT_NEAR(figures.withoutKwh, 4.8, 1e-9);
    EXPECT_NEAR(figures.withKwh, 4.8 - 4 * 0.060 + 2 * 0.060, 1e-9);
    EXPECT_NEAR(figures.savedKwh(), 0.12, 1e-9);
    EXPECT_NEAR(figures.savedPercent(), 2.5, 1e-9);
}

TEST(Figures, EventHoursAreComparedWithTheSameHoursWithout) {
    const Figures figures = figuresOf(madeUpRuns());
    EXPECT_DOUBLE_EQ(figures.eventHours, 4);
    EXPECT_NEAR(figures.reducedWatt(), 60, 1e-6);
    EXPECT_NEAR(figures.reducedPercent(), 60, 1e-6);
    EXPECT_NEAR(figures.reducedKwh, 0.24, 1e-9);
}

TEST(Figures, WhatComesBackIsLookedForInTheHoursAfter) {
    const Figures figures = figuresOf(madeUpRuns());
    EXPECT_DOUBLE_EQ(figures.afterHours, 6 + 4); // the second day ends four hours after
    EXPECT_NEAR(figures.cameBackKwh, 0.12, 1e-9);
    EXPECT_NEAR(figures.cameBackPercent(), 50, 1e-6);
}

TEST(Figures, SavedIsLessInEventHoursMinusWhatCameBackMinusWhatDiffersElsewhere) {
    Runs runs = madeUpRuns();
    for (std::size_t minute = 100; minute < 160; ++minute)
        runs.with.minutes[minute].watt = 130;
    const Figures figures = figuresOf(runs);
    EXPECT_NEAR(figures.laterKwh, 0.03, 1e-9);
    EXPECT_NEAR(figures.savedKwh(), 0.09, 1e-9);
    EXPECT_NEAR(figures.reducedKwh - figures.cameBackKwh - figures.laterKwh, figures.savedKwh(),
                1e-9);
}

TEST(Figures, PeakOfTheReturnIsSetAgainstTheSteadyMean) {
    const Figures figures = figuresOf(madeUpRuns());
    EXPECT_NEAR(figures.returnPeakWatt, 160, 1e-6);
    EXPECT_NEAR(figures.returnPeakWithoutWatt, 100, 1e-6);
    EXPECT_NEAR(figures.returnSteadyWatt, 100, 1e-6);
    EXPECT_FALSE(figures.returnPeakNoSpreadWatt);
}

TEST(Figures, ReturnIsThatOfTheEventsThatHaveSixHoursOfTheirOwn) {
    EXPECT_EQ(figuresOf(madeUpRuns()).returnEvents, 1); // the second day ends four hours after
    Runs runs = madeUpRuns();
    runs.events.erase(runs.events.begin());
    const Figures figures = figuresOf(runs);
    EXPECT_EQ(figures.returnEvents, 0);
    EXPECT_EQ(figures.returnPeakWatt, 0);
}

TEST(Figures, PeakIsTheHighestQuarterOfAnHourAndNotAMinute) {
    Runs runs = madeUpRuns();
    runs.with.minutes[300].watt = 1'600; // alone among 160s it would be (1600 + 14 * 100) / 15
    EXPECT_NEAR(figuresOf(runs).peakWithWatt, 200, 1e-6);
}

TEST(Figures, WarmestFoodIsTheWarmestHour) {
    Runs runs = madeUpRuns();
    runs.with.minutes[10].fridgeFood = 9; // one minute is no hour
    const Figures figures = figuresOf(runs);
    EXPECT_NEAR(figures.fridgeWith, 4, 1e-5);
    EXPECT_NEAR(figures.fridgeWithout, 3, 1e-5);
    EXPECT_NEAR(figures.freezerWith, -17, 1e-5);
}

TEST(Figures, WarmestFoodOfAnEventIsItsWarmestHourToo) {
    Runs runs = madeUpRuns();
    runs.with.minutes[19 * 60].fridgeFood = 9; // one minute of the first event
    EXPECT_NEAR(figuresOf(runs).events[0].fridgeFood, 3.1, 1e-5);
    EXPECT_NEAR(figuresOf(runs).fridgeWith, 4, 1e-5);
}

TEST(Figures, DefrostsAreCountedByTheirBegin) {
    Runs runs = madeUpRuns();
    for (const std::size_t begin : {100U, 700U})
        for (std::size_t minute = begin; minute < begin + 30; ++minute)
            runs.with.minutes[minute].defrostHeating = true;
    for (std::size_t minute = 0; minute < 90; ++minute)
        runs.with.minutes[minute].defrostHeld = true;
    const Figures figures = figuresOf(runs);
    EXPECT_EQ(figures.defrostsWith, 2);
    EXPECT_EQ(figures.defrostsWithout, 0);
    EXPECT_DOUBLE_EQ(figures.heldHoursWith, 1.5);
}

TEST(Figures, EventsThatOverlapCountTheirHoursOnce) {
    Runs runs = madeUpRuns("[[programme]]\nlevel = 1\nfrom = \"19:00\"\nto = \"20:00\"\n");
    runs.with.fates.resize(runs.events.size());
    EXPECT_DOUBLE_EQ(figuresOf(runs).eventHours, 4);
    EXPECT_NEAR(figuresOf(runs).reducedKwh, 0.24, 1e-9);
}

TEST(Figures, EachEventHasItsOwn) {
    const Figures figures = figuresOf(madeUpRuns());
    ASSERT_EQ(figures.events.size(), 2U);
    EXPECT_NEAR(figures.events[0].withoutWatt - figures.events[0].withWatt, 60, 1e-6);
    EXPECT_NEAR(figures.events[0].cameBackKwh, 0.06, 1e-9);
    EXPECT_NEAR(figures.events[0].fridgeFood, 3, 1e-5);
    EXPECT_NEAR(figures.events[1].fridgeFood, 4, 1e-5);
}

TEST(Figures, OutcomeTellsWhatBecameOfAnOrder) {
    Runs runs = madeUpRuns();
    EventFate &fate = runs.with.fates[0];
    const auto outcome = [&] { return figuresOf(runs).events[0].outcome; };
    EXPECT_EQ(outcome(), "confirmed");
    fate.endedMs = runs.events[0].endMs - 1'000; // an order is in whole seconds
    EXPECT_EQ(outcome(), "confirmed");
    fate.endedMs = runs.events[0].endMs - 61'000;
    EXPECT_EQ(outcome(), "confirmed, ended early");
    EXPECT_EQ(answer(runs, figuresOf(runs)).back(),
              "2 of 2 ordered events were confirmed by the appliance, 1 ended early.");
    fate.endedMs = 0;
    EXPECT_EQ(outcome(), "confirmed, end not told");
    fate.replacedMs = runs.events[0].startMs + 1;
    EXPECT_EQ(outcome(), "confirmed, then replaced");
    fate.confirmedMs = 0;
    EXPECT_EQ(outcome(), "never confirmed");
    fate.commandedMs = 0;
    EXPECT_EQ(outcome(), "replaced before it began");
    fate.replacedMs = 0;
    EXPECT_EQ(outcome(), "never commanded");
    fate.acceptedMs = 0;
    EXPECT_EQ(outcome(), "refused");
}

TEST(DayCurve, IsTheMeanOverTheDaysWithAnEvent) {
    Runs runs = madeUpRuns();
    for (std::size_t minute = 0; minute < 10; ++minute)
        runs.with.minutes[minute].watt = 300; // on one of the two days
    const DayCurve curve = averageEventDay(runs);
    EXPECT_EQ(curve.days, 2);
    ASSERT_EQ(curve.with.size(), 144U);
    EXPECT_NEAR(curve.with[0], 200, 1e-6);
    EXPECT_NEAR(curve.with[18 * 6], 40, 1e-6);
    EXPECT_NEAR(curve.without[18 * 6], 100, 1e-6);
    EXPECT_FALSE(curve.inEvent[18 * 6 - 1]);
    EXPECT_TRUE(curve.inEvent[18 * 6]);
    EXPECT_FALSE(curve.inEvent[20 * 6]);
}

TEST(DayCurve, LeavesOutDaysWithoutAnEvent) {
    Runs runs = madeUpRuns();
    runs.events.erase(runs.events.begin());
    EXPECT_EQ(averageEventDay(runs).days, 1);
}

TEST(DayRows, HaveTheHoursThatTheirDayHas) {
    const Scenario scenario = parseScenario(
        "from = 2026-03-28\nto = 2026-03-30\nzone = \"Europe/Berlin\"\n", "clocks forward");
    RunResult run;
    run.beginMs = scenario.beginMs();
    run.minutes.assign(static_cast<std::size_t>((scenario.endMs() - scenario.beginMs()) / 60'000),
                       {.watt = 100});
    const std::vector<DayRow> days = dayRows(run);
    ASSERT_EQ(days.size(), 3U);
    EXPECT_NEAR(days[0].kWh, 2.4, 1e-9);
    EXPECT_NEAR(days[1].kWh, 2.3, 1e-9);
    EXPECT_TRUE(std::isnan(days[1].hourWatt[2]));
    EXPECT_NEAR(days[1].hourWatt[3], 100, 1e-6);
}

TEST(DayRows, WarmestFoodIsThatOfTheFigures) {
    Runs runs = madeUpRuns();
    for (std::size_t minute = 1440 - 30; minute < 1440 + 30; ++minute)
        runs.with.minutes[minute].fridgeFood = 5; // an hour that is no hour of the clock
    const std::vector<DayRow> days = dayRows(runs.with);
    EXPECT_NEAR(days[0].fridgeFood, 4, 1e-5); // half of it at 5 degrees, half at 3
    EXPECT_NEAR(days[1].fridgeFood, 5, 1e-5);
    EXPECT_NEAR(figuresOf(runs).fridgeWith, 5, 1e-5);
}

TEST(HourRows, SumToTheEnergyOfTheRun) {
    const Runs runs = madeUpRuns();
    double wh = 0;
    for (const HourRow &row : hourRows(runs))
        wh += row.withWh;
    EXPECT_NEAR(wh / 1000, figuresOf(runs).withKwh, 1e-9);
    EXPECT_EQ(hourRows(runs)[18].level, 3);
    EXPECT_EQ(hourRows(runs)[17].level, 0);
}

TEST(Expectations, ThatAreMetSayNothing) {
    const Runs runs = madeUpRuns("[expect]\nenergy-below-kwh = 4.7\nsaved-at-least-kwh = 0.1\n"
                                 "reduced-at-least-watt = 59\nfridge-food-below-celsius = 4.1\n"
                                 "freezer-food-below-celsius = -16.9\n"
                                 "every-event-confirmed = true\n"
                                 "energy-reported-within-percent = 0.1\n");
    EXPECT_THAT(unmet(runs, figuresOf(runs)), ElementsAre());
}

TEST(Expectations, ThatAreNotMetSayByHowMuch) {
    Runs runs = madeUpRuns("[expect]\nenergy-below-kwh = 4.6\nsaved-at-least-kwh = 0.2\n"
                           "reduced-at-least-watt = 61\nfridge-food-below-celsius = 3.5\n"
                           "freezer-food-below-celsius = -17.5\nevery-event-confirmed = true\n"
                           "energy-reported-within-percent = 1\n");
    runs.confirmedEvents = 1;
    runs.with.postedCounts = 0;
    EXPECT_THAT(
        unmet(runs, figuresOf(runs)),
        ElementsAre("the energy, in kWh, is 4.68; expected below 4.60",
                    "the energy saved, in kWh, is 0.12; expected at least 0.20",
                    "the reduction in event hours, in W, is 60.0; expected at least 61.0",
                    "the fridge's warmest food, in °C, is 4.0; expected below 3.5",
                    "the freezer's warmest food, in °C, is -17.0; expected below -17.5",
                    "what was reported, in % off what was used, is 100.00; expected at most 1.00",
                    "1 of 2 events were confirmed; expected all"));
}

TEST(Answer, SaysWhatWasSavedReducedAndCameBack) {
    const Runs runs = madeUpRuns();
    EXPECT_THAT(
        answer(runs, figuresOf(runs)),
        ElementsAre("The 2 events saved 0.12 kWh of 4.80 kWh that the refrigerator uses without "
                    "the programme (2.5 %).",
                    "In the 4 hours of events the refrigerator drew 40 W on average instead of 100 "
                    "W: 60 W or 0.060 kW (60 %) less, 0.24 kWh in all.",
                    "In the 6 hours after an event, or until the next one, 0.12 kWh came back "
                    "(50 %).",
                    "The sum: 0.24 kWh less in event hours − 0.12 kWh that came back = 0.12 kWh "
                    "saved.",
                    "After the one event that no other follows the highest quarter of an hour was "
                    "160 W; without the programme the same hours have 100 W at most and 100 W on "
                    "average.",
                    "The food's warmest hour (highest mean of 60 minutes) was 4.0 °C in the fridge "
                    "(without the programme 3.0 °C) and -17.0 °C in the freezer (-18.0 °C).",
                    "2 of 2 ordered events were confirmed by the appliance."));
}

TEST(Answer, TellsASumInWhichNothingCameBack) {
    Runs runs = madeUpRuns();
    for (std::size_t i = 0; i < runs.with.minutes.size(); ++i)
        if (runs.with.minutes[i].watt == 160)
            runs.with.minutes[i].watt = 90;
    runs.with.minutes[0].watt = 400;
    const auto sentences = answer(runs, figuresOf(runs));
    EXPECT_EQ(sentences[2], "In the 6 hours after an event, or until the next one, nothing came "
                            "back; another 0.02 kWh were saved.");
    EXPECT_EQ(sentences[3], "The sum: 0.24 kWh less in event hours + 0.02 kWh less in the hours "
                            "after − 0.01 kWh more in all other hours = 0.25 kWh saved.");
}

TEST(SavingSum, AddsUpAsItIsShown) {
    Runs runs = madeUpRuns();
    for (int step = 0; step < 200; ++step) {
        runs.with.minutes[static_cast<std::size_t>(step * 14)].watt += 37; // anywhere in both days
        const Figures figures = figuresOf(runs);
        const SavingSum sum = savingSum(figures);
        EXPECT_NEAR(sum.less - sum.cameBack - sum.later, sum.saved, 1e-9);
        EXPECT_NEAR(sum.less, figures.reducedKwh, 0.00501);
        EXPECT_NEAR(sum.cameBack, figures.cameBackKwh, 0.00501);
        EXPECT_NEAR(sum.saved, figures.savedKwh(), 0.00501);
        EXPECT_NEAR(sum.later, figures.laterKwh, 0.01501);
    }
}

TEST(Answer, OfAProgrammeThatCostsMoreSaysSo) {
    Runs runs = madeUpRuns();
    for (Minute &minute : runs.with.minutes)
        minute.watt += 20;
    EXPECT_THAT(answer(runs, figuresOf(runs)).front(), HasSubstr("cost 0.84 kWh more"));
}

TEST(Answer, WithoutEventsTellsTheConsumption) {
    Runs runs = madeUpRuns();
    runs.events.clear();
    runs.with = runs.without;
    EXPECT_EQ(answer(runs, figuresOf(runs)).front(),
              "Without any event the refrigerator used 4.80 kWh in 2 days, 876.0 kWh a year.");
}

} // namespace
