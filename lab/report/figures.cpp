/*
 * Sums over minutes. A run's minutes are numbered from its begin; events are turned into ranges of
 * them once.
 */
#include "figures.h"

#include "numbers.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace corvane::lab {
namespace {

constexpr double kMinutesPerHour = 60;
constexpr std::size_t kQuarter = 15;
constexpr std::size_t kHour = 60;

double kWhOf(const RunResult &run) {
    double wattMinutes = 0;
    for (const Minute &minute : run.minutes)
        wattMinutes += minute.watt;
    return wattMinutes / kMinutesPerHour / 1000;
}

/* The minutes from begin to end, cut to those that the run has. */
struct Range {
    std::size_t begin, end;
    [[nodiscard]] bool isEmpty() const { return begin >= end; }
    [[nodiscard]] double count() const { return static_cast<double>(end - begin); }
};

Range rangeOf(const RunResult &run, std::int64_t beginMs, std::int64_t endMs) {
    const auto place = [&](std::int64_t ms) {
        const std::int64_t minute = (ms - run.beginMs) / kMinuteMs;
        return static_cast<std::size_t>(
            std::clamp<std::int64_t>(minute, 0, static_cast<std::int64_t>(run.minutes.size())));
    };
    return {place(beginMs), place(endMs)};
}

double meanWatt(const RunResult &run, const Range &range) {
    double sum = 0;
    for (std::size_t i = range.begin; i < range.end; ++i)
        sum += run.minutes[i].watt;
    return range.isEmpty() ? 0 : sum / range.count();
}

/* The highest mean of `span` minutes in a row. */
template <class Watt>
double highestMean(std::size_t count, std::size_t span, Watt watt) {
    double highest = 0;
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += watt(i);
        if (i >= span)
            sum -= watt(i - span);
        if (i + 1 >= span)
            highest = std::max(highest, sum / static_cast<double>(span));
    }
    return highest;
}

double peakWatt(const RunResult &run) {
    return highestMean(run.minutes.size(), kQuarter,
                       [&](std::size_t i) { return static_cast<double>(run.minutes[i].watt); });
}

/* The highest mean of an hour in a row, of a temperature; of a shorter range its mean. */
double warmest(const RunResult &run, const Range &range, float Minute::*food) {
    const std::size_t span = std::min<std::size_t>(kHour, range.end - range.begin);
    double highest = -std::numeric_limits<double>::infinity();
    double sum = 0;
    for (std::size_t i = range.begin; i < range.end; ++i) {
        sum += run.minutes[i].*food;
        if (i >= range.begin + span)
            sum -= run.minutes[i - span].*food;
        if (i + 1 >= range.begin + span)
            highest = std::max(highest, sum / static_cast<double>(span));
    }
    return highest;
}

double warmest(const RunResult &run, float Minute::*food) {
    return warmest(run, {0, run.minutes.size()}, food);
}

int defrosts(const RunResult &run) {
    int count = 0;
    for (std::size_t i = 1; i < run.minutes.size(); ++i)
        count += run.minutes[i].defrostHeating && !run.minutes[i - 1].defrostHeating ? 1 : 0;
    return count;
}

double heldHours(const RunResult &run) {
    return static_cast<double>(std::count_if(run.minutes.begin(), run.minutes.end(),
                                             [](const Minute &m) { return m.defrostHeld; })) /
           kMinutesPerHour;
}

/* The minutes after an event, until kAfterMinutes later or the next one's begin. */
Range after(const Runs &runs, std::size_t index) {
    const std::int64_t endMs = runs.events[index].endMs;
    std::int64_t untilMs = endMs + kAfterMinutes * kMinuteMs;
    for (const PlannedEvent &other : runs.events)
        if (other.endMs > endMs)
            untilMs = std::min(untilMs, std::max(other.startMs, endMs));
    return rangeOf(runs.with, endMs, untilMs);
}

/* The hours after each event that no other follows within them. */
std::vector<Range> undisturbedReturns(const Runs &runs) {
    std::vector<Range> returns;
    for (std::size_t i = 0; i < runs.events.size(); ++i) {
        const Range range = after(runs, i);
        if (range.end - range.begin == kAfterMinutes)
            returns.push_back(range);
    }
    return returns;
}

/* Minute by minute after an event's end, at least one of them. */
std::vector<double> averageReturn(const std::vector<Range> &returns, const RunResult &run) {
    std::vector<double> watt(kAfterMinutes, 0);
    for (const Range &range : returns)
        for (std::size_t minute = 0; minute < watt.size(); ++minute)
            watt[minute] += run.minutes[range.begin + minute].watt;
    for (double &value : watt)
        value /= static_cast<double>(returns.size());
    return watt;
}

double highestQuarter(const std::vector<double> &watt) {
    return highestMean(watt.size(), kQuarter, [&](std::size_t i) { return watt[i]; });
}

std::string outcomeOf(const EventFate &fate, const PlannedEvent &event) {
    if (fate.acceptedMs == 0)
        return "refused";
    if (fate.commandedMs == 0)
        return fate.replacedMs != 0 ? "replaced before it began" : "never commanded";
    if (fate.confirmedMs == 0)
        return "never confirmed";
    if (fate.replacedMs != 0)
        return "confirmed, then replaced";
    if (fate.endedMs == 0)
        return "confirmed, end not told";
    if (fate.endedMs < event.endMs - kMinuteMs) // orders are in whole seconds
        return "confirmed, ended early";
    return "confirmed";
}

EventFigures eventFigures(const Runs &runs, std::size_t index) {
    const PlannedEvent &event = runs.events[index];
    const Range range = rangeOf(runs.with, event.startMs, event.endMs);
    const Range later = after(runs, index);
    EventFigures figures;
    figures.withWatt = meanWatt(runs.with, range);
    figures.withoutWatt = meanWatt(runs.without, range);
    figures.cameBackKwh = later.isEmpty()
                              ? 0
                              : (meanWatt(runs.with, later) - meanWatt(runs.without, later)) *
                                    later.count() / kMinutesPerHour / 1000;
    const Range followed{range.begin, std::max(range.end, later.end)};
    figures.fridgeFood = warmest(runs.with, followed, &Minute::fridgeFood);
    figures.freezerFood = warmest(runs.with, followed, &Minute::freezerFood);
    figures.outcome = outcomeOf(runs.with.fates.at(index), event);
    return figures;
}

/* Sums over the minutes in and after events, each counted once however many events share it. */
void addEventHours(const Runs &runs, Figures &figures) {
    const std::size_t count = runs.with.minutes.size();
    std::vector<bool> inEvent(count, false);
    for (const PlannedEvent &event : runs.events) {
        const Range range = rangeOf(runs.with, event.startMs, event.endMs);
        std::fill(inEvent.begin() + static_cast<std::ptrdiff_t>(range.begin),
                  inEvent.begin() + static_cast<std::ptrdiff_t>(range.end), true);
    }
    double withSum = 0;
    double withoutSum = 0;
    double moreAfter = 0;
    double moreLater = 0;
    double eventMinutes = 0;
    double afterMinutes = 0;
    int sinceEvent = kAfterMinutes;
    for (std::size_t i = 0; i < count; ++i) {
        const double with = runs.with.minutes[i].watt;
        const double without = runs.without.minutes[i].watt;
        if (inEvent[i]) {
            sinceEvent = 0;
            withSum += with;
            withoutSum += without;
            ++eventMinutes;
        } else if (sinceEvent < kAfterMinutes) {
            ++sinceEvent;
            moreAfter += with - without;
            ++afterMinutes;
        } else {
            moreLater += with - without;
        }
    }
    figures.eventHours = eventMinutes / kMinutesPerHour;
    figures.afterHours = afterMinutes / kMinutesPerHour;
    figures.eventWithWatt = withSum / std::max(eventMinutes, 1.0);
    figures.eventWithoutWatt = withoutSum / std::max(eventMinutes, 1.0);
    figures.reducedKwh = (withoutSum - withSum) / kMinutesPerHour / 1000;
    figures.cameBackKwh = moreAfter / kMinutesPerHour / 1000;
    figures.laterKwh = moreLater / kMinutesPerHour / 1000;
}

void addReturn(const Runs &runs, Figures &figures) {
    const std::vector<Range> returns = undisturbedReturns(runs);
    figures.returnEvents = static_cast<int>(returns.size());
    if (returns.empty())
        return;
    const std::vector<double> steady = averageReturn(returns, runs.without);
    figures.returnPeakWatt = highestQuarter(averageReturn(returns, runs.with));
    figures.returnPeakWithoutWatt = highestQuarter(steady);
    for (const double watt : steady)
        figures.returnSteadyWatt += watt / static_cast<double>(steady.size());
    if (runs.noSpread)
        figures.returnPeakNoSpreadWatt = highestQuarter(averageReturn(returns, *runs.noSpread));
}

} // namespace

Figures figuresOf(const Runs &runs) {
    Figures figures;
    figures.days = static_cast<double>(runs.with.minutes.size()) / 1440;
    figures.withKwh = kWhOf(runs.with);
    figures.withoutKwh = kWhOf(runs.without);
    addEventHours(runs, figures);
    addReturn(runs, figures);
    figures.peakWithWatt = peakWatt(runs.with);
    figures.peakWithoutWatt = peakWatt(runs.without);
    figures.fridgeWith = warmest(runs.with, &Minute::fridgeFood);
    figures.fridgeWithout = warmest(runs.without, &Minute::fridgeFood);
    figures.freezerWith = warmest(runs.with, &Minute::freezerFood);
    figures.freezerWithout = warmest(runs.without, &Minute::freezerFood);
    if (runs.appliances == 1) {
        figures.defrostsWith = defrosts(runs.with);
        figures.defrostsWithout = defrosts(runs.without);
        figures.heldHoursWith = heldHours(runs.with);
        figures.heldHoursWithout = heldHours(runs.without);
    }
    figures.reportedKwh = static_cast<double>(runs.with.postedCounts) / 100 / 1000;
    for (std::size_t i = 0; i < runs.events.size(); ++i)
        figures.events.push_back(eventFigures(runs, i));
    return figures;
}

DayCurve averageEventDay(const Runs &runs) {
    DayCurve curve;
    const auto bins = static_cast<std::size_t>(1440 / curve.binMinutes);
    std::vector<Date> days;
    for (const PlannedEvent &event : runs.events)
        days.push_back(localTimeOf(event.startMs).date);
    std::sort(days.begin(), days.end());
    days.erase(std::unique(days.begin(), days.end()), days.end());
    const bool takesAll = days.empty();

    std::vector<double> count(bins, 0);
    std::vector<double> eventCount(bins, 0);
    curve.with.assign(bins, 0);
    curve.without.assign(bins, 0);
    if (runs.noSpread)
        curve.noSpread.assign(bins, 0);
    LocalTime local;
    for (std::size_t i = 0; i < runs.with.minutes.size(); ++i) {
        const std::int64_t ms = runs.with.beginMs + static_cast<std::int64_t>(i) * kMinuteMs;
        if (ms % (15 * kMinuteMs) == 0 || i == 0) // offsets change on quarter hours
            local = localTimeOf(ms);
        else
            local.secondOfDay += 60;
        if (!takesAll && !std::binary_search(days.begin(), days.end(), local.date))
            continue;
        const auto bin = static_cast<std::size_t>(local.secondOfDay / 60 / curve.binMinutes);
        ++count[bin];
        curve.with[bin] += runs.with.minutes[i].watt;
        curve.without[bin] += runs.without.minutes[i].watt;
        if (runs.noSpread)
            curve.noSpread[bin] += runs.noSpread->minutes[i].watt;
        for (const PlannedEvent &event : runs.events)
            if (event.startMs <= ms && ms < event.endMs) {
                ++eventCount[bin];
                break;
            }
    }
    for (std::size_t bin = 0; bin < bins; ++bin) {
        for (std::vector<double> *watts : {&curve.with, &curve.without, &curve.noSpread})
            if (!watts->empty())
                (*watts)[bin] /= std::max(count[bin], 1.0);
        curve.inEvent.push_back(eventCount[bin] * 2 > count[bin]);
    }
    curve.days = static_cast<int>(days.size());
    if (takesAll)
        curve.days =
            static_cast<int>(std::lround(static_cast<double>(runs.with.minutes.size()) / 1440));
    return curve;
}

std::vector<DayRow> dayRows(const RunResult &run) {
    std::vector<DayRow> rows;
    std::vector<double> minutesOfHour;
    constexpr double kNone = -std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i + 60 <= run.minutes.size(); i += 60) {
        const LocalTime local = localTimeOf(run.beginMs + static_cast<std::int64_t>(i) * kMinuteMs);
        if (rows.empty() || rows.back().date != local.date) {
            rows.push_back({local.date, std::vector<double>(24, std::nan("")), 0, kNone, kNone});
            minutesOfHour.assign(24, 0);
        }
        DayRow &row = rows.back();
        double watt = 0;
        for (std::size_t k = i; k < i + 60; ++k)
            watt += run.minutes[k].watt / 60.0;
        const auto hour = static_cast<std::size_t>(local.secondOfDay / 3600);
        // An hour that comes twice shows the mean of both.
        row.hourWatt[hour] =
            std::isnan(row.hourWatt[hour]) ? watt : (row.hourWatt[hour] + watt) / 2;
        row.kWh += watt / 1000;
        const Range endingHere{i >= kHour ? i - (kHour - 1) : 0, i + kHour};
        row.fridgeFood = std::max(row.fridgeFood, warmest(run, endingHere, &Minute::fridgeFood));
        row.freezerFood = std::max(row.freezerFood, warmest(run, endingHere, &Minute::freezerFood));
    }
    return rows;
}

std::vector<HourRow> hourRows(const Runs &runs) {
    std::vector<HourRow> rows;
    for (std::size_t i = 0; i + 60 <= runs.with.minutes.size(); i += 60) {
        HourRow row;
        row.beginMs = runs.with.beginMs + static_cast<std::int64_t>(i) * kMinuteMs;
        for (std::size_t k = i; k < i + 60; ++k) {
            const Minute &with = runs.with.minutes[k];
            const Minute &without = runs.without.minutes[k];
            row.withWh += with.watt / 60.0;
            row.withoutWh += without.watt / 60.0;
            row.level = std::max<int>(row.level, with.level);
            row.fridgeFood += with.fridgeFood / 60.0;
            row.freezerFood += with.freezerFood / 60.0;
            row.fridgeFoodWithout += without.fridgeFood / 60.0;
            row.freezerFoodWithout += without.freezerFood / 60.0;
            row.defrostHeldMinutes += with.defrostHeld ? 1 : 0;
            row.defrostHeatingMinutes += with.defrostHeating ? 1 : 0;
        }
        rows.push_back(row);
    }
    return rows;
}

std::vector<std::string> unmet(const Runs &runs, const Figures &figures) {
    const Expectations &expect = runs.scenario.expect;
    std::vector<std::string> lines;
    const auto check = [&](bool isMet, const std::string &what, double value, int digits,
                           const std::string &wanted) {
        if (!isMet)
            lines.push_back(what + " is " + number(value, digits) + "; expected " + wanted);
    };
    if (const auto most = expect.energyBelowKwh)
        check(figures.withKwh < *most, "the energy, in kWh,", figures.withKwh, 2,
              "below " + number(*most, 2));
    if (const auto least = expect.savedAtLeastKwh)
        check(figures.savedKwh() >= *least, "the energy saved, in kWh,", figures.savedKwh(), 2,
              "at least " + number(*least, 2));
    if (const auto least = expect.reducedAtLeastWatt)
        check(figures.reducedWatt() >= *least, "the reduction in event hours, in W,",
              figures.reducedWatt(), 1, "at least " + number(*least, 1));
    if (const auto most = expect.fridgeFoodBelow)
        check(figures.fridgeWith < *most, "the fridge's warmest food, in °C,", figures.fridgeWith,
              1, "below " + number(*most, 1));
    if (const auto most = expect.freezerFoodBelow)
        check(figures.freezerWith < *most, "the freezer's warmest food, in °C,",
              figures.freezerWith, 1, "below " + number(*most, 1));
    if (const auto percent = expect.energyReportedWithinPercent) {
        const double off = 100 * std::abs(figures.reportedKwh / figures.withKwh - 1);
        check(off <= *percent, "what was reported, in % off what was used,", off, 2,
              "at most " + number(*percent, 2));
    }
    if (expect.everyEventConfirmed && runs.confirmedEvents < runs.plannedEvents)
        lines.push_back(std::to_string(runs.confirmedEvents) + " of " +
                        std::to_string(runs.plannedEvents) +
                        " events were confirmed; expected all");
    return lines;
}

} // namespace corvane::lab
