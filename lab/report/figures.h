/*
 * What a pair of runs says: the programme's effect is the difference between the same seed with
 * and without it. Everything the report, the summary and the comparison tell is computed here.
 */
#ifndef CORVANE_LAB_FIGURES_H
#define CORVANE_LAB_FIGURES_H

#include <run_result.h>

#include <optional>
#include <string>
#include <vector>

namespace corvane::lab {

/* How long after an event what it has put off is looked for. */
inline constexpr int kAfterMinutes = 6 * 60;

/* The runs of one scenario. For a fleet each minute's watts are the sum over all appliances, its
 * temperatures the warmest one's, and the fates those of the first seed. */
struct Runs {
    Scenario scenario;
    std::vector<PlannedEvent> events;
    RunResult with, without;
    std::optional<RunResult> noSpread; // with the programme, all appliances returning at once
    int appliances = 1;
    std::int64_t plannedEvents = 0, confirmedEvents = 0, refusedEvents = 0; // of all appliances
};

struct EventFigures {
    double withWatt = 0, withoutWatt = 0;   // means of the event's minutes
    double cameBackKwh = 0;                 // after its end, until the next event or kAfterMinutes
    double fridgeFood = 0, freezerFood = 0; // warmest hour until then, degrees Celsius
    std::string outcome;                    // "confirmed", "refused", "replaced" …
};

/* Energy in kWh, power in W, temperatures in degrees Celsius; of all appliances together. */
struct Figures {
    double days = 0;
    double withKwh = 0, withoutKwh = 0;
    double eventHours = 0;                          // in which an event was planned
    double eventWithWatt = 0, eventWithoutWatt = 0; // means of these hours
    double reducedKwh = 0;                          // in these hours
    double afterHours = 0;
    double cameBackKwh = 0; // more than without in the hours after
    double laterKwh = 0;    // more than without in all other hours
    // Of the average event, in the hours after its end: the highest quarter of an hour with the
    // programme and without, and the mean without, against which a return is measured. Only events
    // that no other follows within these hours; without any of them all is 0.
    int returnEvents = 0;
    double returnPeakWatt = 0, returnPeakWithoutWatt = 0, returnSteadyWatt = 0;
    std::optional<double> returnPeakNoSpreadWatt;
    // The highest quarter of an hour of the whole period.
    double peakWithWatt = 0, peakWithoutWatt = 0;
    // The highest mean temperature of sixty minutes in a row.
    double fridgeWith = 0, fridgeWithout = 0, freezerWith = 0, freezerWithout = 0;
    // Of one appliance, 0 for a fleet: defrosts that began, and how long they were held back.
    int defrostsWith = 0, defrostsWithout = 0;
    double heldHoursWith = 0, heldHoursWithout = 0;
    double reportedKwh = 0; // posted to the metering service, with the programme
    std::vector<EventFigures> events;

    /* reducedKwh - cameBackKwh - laterKwh. */
    [[nodiscard]] double savedKwh() const { return withoutKwh - withKwh; }
    [[nodiscard]] double savedPercent() const { return share(savedKwh(), withoutKwh); }
    [[nodiscard]] double reducedWatt() const { return eventWithoutWatt - eventWithWatt; }
    [[nodiscard]] double reducedPercent() const { return share(reducedWatt(), eventWithoutWatt); }
    [[nodiscard]] double cameBackPercent() const { return share(cameBackKwh, reducedKwh); }

private:
    static double share(double part, double whole) { return whole > 0 ? 100 * part / whole : 0; }
};

[[nodiscard]] Figures figuresOf(const Runs &runs);

/* The average local day of those on which an event begins (of all, without events): mean watts of
 * each `binMinutes`. Bins that the days do not have (clocks changed) are 0 only if none has them.
 */
struct DayCurve {
    int binMinutes = 10;
    int days = 0;
    std::vector<double> with, without, noSpread; // noSpread is empty without such a run
    std::vector<bool> inEvent;                   // on most of these days
};
[[nodiscard]] DayCurve averageEventDay(const Runs &runs);

/* One row a local day: mean watts of its 24 hours (NaN for an hour that it has not), and the
 * food's warmest hour of those that end on it. */
struct DayRow {
    Date date;
    std::vector<double> hourWatt;
    double kWh = 0;
    double fridgeFood = 0, freezerFood = 0;
};
[[nodiscard]] std::vector<DayRow> dayRows(const RunResult &run);

/* Hours in a row, for hours.csv. The run begins at a full hour. */
struct HourRow {
    std::int64_t beginMs = 0;
    double withWh = 0, withoutWh = 0;
    int level = 0; // the highest in force
    double fridgeFood = 0, freezerFood = 0, fridgeFoodWithout = 0, freezerFoodWithout = 0; // means
    int defrostHeldMinutes = 0, defrostHeatingMinutes = 0;
};
[[nodiscard]] std::vector<HourRow> hourRows(const Runs &runs);

/* One line for each expectation of the scenario that the figures do not meet. */
[[nodiscard]] std::vector<std::string> unmet(const Runs &runs, const Figures &figures);

} // namespace corvane::lab

#endif
