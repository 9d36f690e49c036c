/*
 * The answer in words, and the terminal's summary around it.
 */
#include "report.h"

#include "numbers.h"

#include <cmath>

namespace corvane::lab {
namespace {

std::string percent(double value) { return number(value, std::abs(value) < 10 ? 1 : 0) + " %"; }

std::string countOf(std::int64_t count, const std::string &one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

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
    const std::string events =
        std::to_string(runs.events.size()) + (runs.events.size() == 1 ? " event" : " events");
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

std::string returnSentence(const Figures &figures) {
    std::string text = "In the hours after, up to " + std::to_string(kAfterMinutes / 60) + ", ";
    text += figures.cameBackKwh >= 0
                ? energy(figures.cameBackKwh) + " of it came back (" +
                      percent(figures.cameBackPercent()) + ")"
                : "nothing came back; another " + energy(-figures.cameBackKwh) + " were saved";
    if (figures.returnPeakWatt > 0)
        text += "; the average return had its highest quarter of an hour at " +
                power(figures.returnPeakWatt) + ", against a mean of " +
                power(figures.returnSteadyWatt) + " without the programme";
    if (figures.returnPeakNoSpreadWatt)
        text += ", and at " + power(*figures.returnPeakNoSpreadWatt) +
                " when all appliances return at once";
    return text + ".";
}

std::string foodSentence(const Figures &figures) {
    return "The warmest hour of the food was " + celsius(figures.fridgeWith) +
           " in the fridge (without the programme " + celsius(figures.fridgeWithout) + ") and " +
           celsius(figures.freezerWith) + " in the freezer (" + celsius(figures.freezerWithout) +
           ").";
}

std::string eventSentence(const Runs &runs) {
    std::string text = std::to_string(runs.confirmedEvents) + " of " +
                       countOf(runs.plannedEvents, "ordered event") + " " +
                       (runs.plannedEvents == 1 ? "was" : "were") + " confirmed by the appliance";
    if (runs.refusedEvents > 0)
        text += ", " + std::to_string(runs.refusedEvents) + " refused";
    return text + ".";
}

} // namespace

std::vector<std::string> answer(const Runs &runs, const Figures &figures) {
    if (runs.events.empty())
        return {"Without any event " + whoDraws(runs) + " used " + energy(figures.withKwh) +
                    " in " + number(figures.days, 0) + " days, " +
                    energy(figures.withKwh / figures.days * 365) + " a year.",
                "The highest quarter of an hour was " + power(figures.peakWithWatt) + ".",
                "The warmest hour of the food was " + celsius(figures.fridgeWith) +
                    " in the fridge and " + celsius(figures.freezerWith) + " in the freezer."};
    return {savedSentence(runs, figures), reducedSentence(runs, figures), returnSentence(figures),
            foodSentence(figures), eventSentence(runs)};
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
            number(making.virtualSec / std::max(making.realSec, 0.001), 0) + " times real time.\n";
    return text;
}

} // namespace corvane::lab
