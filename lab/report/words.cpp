/*
 * The answer in words, and the terminal's summary around it.
 */
#include "report.h"

#include "numbers.h"

#include <algorithm>
#include <cmath>

namespace corvane::lab {
namespace {

std::string percent(double value) { return number(value, std::abs(value) < 10 ? 1 : 0) + " %"; }

std::string hours(double value) {
    return number(value, std::abs(value - std::round(value)) < 0.05 ? 0 : 1) + " hours";
}

std::string whoDraws(const Runs &runs) {
    return runs.appliances == 1 ? "the refrigerator"
                                : "the " + std::to_string(runs.appliances) + " refrigerators";
}

/* In kW, which is what an operator asks for, and in W while that reads better. */
std::string reduced(double watt) {
    const std::string kW = number(watt / 1000, watt < 1'000 ? 3 : 1) + " kW";
    return watt < 1'000 ? power(watt) + " or " + kW : kW;
}

std::string savedSentence(const Runs &runs, const Figures &figures) {
    const std::string events = countOf(static_cast<std::int64_t>(runs.events.size()), "event");
    const std::string of = " of " + energy(figures.withoutKwh) + " that " + whoDraws(runs) +
                           (runs.appliances == 1 ? " uses" : " use") + " without the programme (" +
                           percent(std::abs(figures.savedPercent())) + ")";
    if (figures.savedKwh() >= 0)
        return "The " + events + " saved " + energy(figures.savedKwh()) + of + ".";
    return "The " + events + " cost " + energy(-figures.savedKwh()) + " more, on top" + of + ".";
}

std::string reducedSentence(const Runs &runs, const Figures &figures) {
    const bool isLess = figures.reducedWatt() >= 0;
    return "In the " + hours(figures.eventHours) + " of events " + whoDraws(runs) + " drew " +
           power(figures.eventWithWatt) + " on average instead of " +
           power(figures.eventWithoutWatt) + ": " + reduced(std::abs(figures.reducedWatt())) +
           " (" + percent(std::abs(figures.reducedPercent())) + ") " + (isLess ? "less" : "more") +
           ", " + energy(std::abs(figures.reducedKwh)) + " in all.";
}

/* " − 0.87 kWh that came back", or with a plus what was saved on. */
std::string term(double costs, int digits, const std::string &more, const std::string &less) {
    if (costs == 0)
        return "";
    return (costs >= 0 ? " − " : " + ") + number(std::abs(costs), digits) + " kWh " +
           (costs >= 0 ? more : less);
}

std::string sumSentence(const Figures &figures) {
    const SavingSum sum = savingSum(figures);
    return "The sum: " + number(sum.less, sum.digits) + " kWh less in event hours" +
           term(sum.cameBack, sum.digits, "that came back", "less in the hours after") +
           term(sum.later, sum.digits, "more in all other hours", "less in all other hours") +
           " = " + number(sum.saved, sum.digits) + " kWh saved.";
}

std::string cameBackSentence(const Figures &figures) {
    const std::string when = "In the " + std::to_string(kAfterMinutes / 60) +
                             " hours after an event, or until the next one, ";
    if (figures.cameBackKwh < 0)
        return when + "nothing came back; another " + energy(-figures.cameBackKwh) + " were saved.";
    return when + energy(figures.cameBackKwh) + " came back" +
           (figures.reducedKwh > 0 ? " (" + percent(figures.cameBackPercent()) + ")" : "") + ".";
}

std::string returnSentence(const Runs &runs, const Figures &figures) {
    const std::string of = figures.returnEvents > 1  ? "After an average event"
                           : runs.events.size() == 1 ? "After the event"
                                                     : "After the one event that no other follows";
    std::string text = of + " the highest quarter of an hour was " + power(figures.returnPeakWatt);
    if (figures.returnPeakNoSpreadWatt)
        text += ", and would be " + power(*figures.returnPeakNoSpreadWatt) +
                " if all appliances returned at once";
    return text + "; without the programme the same hours have " +
           power(figures.returnPeakWithoutWatt) + " at most and " +
           power(figures.returnSteadyWatt) + " on average.";
}

std::string foodSentence(const Figures &figures) {
    return "The food's warmest hour (highest mean of 60 minutes) was " +
           celsius(figures.fridgeWith) + " in the fridge (without the programme " +
           celsius(figures.fridgeWithout) + ") and " + celsius(figures.freezerWith) +
           " in the freezer (" + celsius(figures.freezerWithout) + ").";
}

std::string eventSentence(const Runs &runs, const Figures &figures) {
    std::string text = std::to_string(runs.confirmedEvents) + " of " +
                       countOf(runs.plannedEvents, "ordered event") + " " +
                       (runs.plannedEvents == 1 ? "was" : "were") + " confirmed by the appliance";
    if (runs.refusedEvents > 0)
        text += ", " + std::to_string(runs.refusedEvents) + " refused";
    const auto early =
        std::count_if(figures.events.begin(), figures.events.end(), [](const EventFigures &event) {
            return event.outcome == "confirmed, ended early";
        });
    if (early > 0 && runs.appliances == 1)
        text += ", " + std::to_string(early) + " ended early";
    return text + ".";
}

} // namespace

SavingSum savingSum(const Figures &figures) {
    SavingSum sum;
    sum.digits = figures.withoutKwh < 10'000 ? 2 : 0;
    const auto rounded = [&](double kWh) { return std::stod(number(kWh, sum.digits)); };
    sum.less = rounded(figures.reducedKwh);
    sum.cameBack = rounded(figures.cameBackKwh);
    sum.saved = rounded(figures.savedKwh());
    // What rounding leaves goes where nobody looks for the last digit.
    sum.later = rounded(sum.less - sum.cameBack - sum.saved);
    return sum;
}

std::vector<std::string> answer(const Runs &runs, const Figures &figures) {
    if (runs.events.empty())
        return {"Without any event " + whoDraws(runs) + " used " + energy(figures.withKwh) +
                    " in " + number(figures.days, 0) + " days, " +
                    energy(figures.withKwh / figures.days * 365) + " a year.",
                "The highest quarter of an hour was " + power(figures.peakWithWatt) + ".",
                "The food's warmest hour (highest mean of 60 minutes) was " +
                    celsius(figures.fridgeWith) + " in the fridge and " +
                    celsius(figures.freezerWith) + " in the freezer."};
    std::vector<std::string> sentences{savedSentence(runs, figures), reducedSentence(runs, figures),
                                       cameBackSentence(figures), sumSentence(figures)};
    if (figures.returnEvents > 0)
        sentences.push_back(returnSentence(runs, figures));
    sentences.push_back(foodSentence(figures));
    sentences.push_back(eventSentence(runs, figures));
    return sentences;
}

std::string summary(const Runs &runs, const Figures &figures, const std::vector<SeedLine> &seeds,
                    const Making &making) {
    const Scenario &scenario = runs.scenario;
    std::string text = "\n" + scenario.title + "\n" + dateText(scenario.from) + " to " +
                       dateText(scenario.to) + ", " + scenario.zone + ", seed " +
                       std::to_string(runs.with.seed) + "\n\n";
    for (const std::string &sentence : answer(runs, figures))
        text += sentence + "\n";
    if (seeds.size() > 1) {
        text += "\nseed  saved kWh     %  reduced W  came back kWh  fridge °C  freezer °C\n";
        for (const SeedLine &seed : seeds) {
            char line[120];
            std::snprintf(line, sizeof line, "%4llu  %9.2f  %4.1f  %9.1f  %13.2f  %9.1f  %10.1f\n",
                          static_cast<unsigned long long>(seed.seed), seed.savedKwh,
                          seed.savedPercent, seed.reducedWatt, seed.cameBackKwh, seed.fridgeFood,
                          seed.freezerFood);
            text += line;
        }
    }
    const std::vector<std::string> missed = unmet(runs, figures);
    for (const std::string &line : missed)
        text += "\nNot as expected: " + line;
    if (!missed.empty())
        text += "\n";
    text += "\nThe unmodified service lived " + number(making.virtualSec / 86'400, 0) +
            " days in " + number(making.realSec, 0) + " s, " +
            number(making.virtualSec / std::max(making.realSec, 0.001), 0) +
            " times real time. A judge watched " + std::to_string(making.judgedSteps) +
            " steps and saw no rule broken.\n";
    return text;
}

} // namespace corvane::lab
