/*
 * The folder's files for other programs: two tables of comma-separated values and the figures as
 * JSON; and the comparison, which reads the latter.
 */
#include "report.h"

#include "numbers.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace corvane::lab {
namespace {

using Json = nlohmann::ordered_json;

std::string csvText(const std::string &text) {
    if (text.find_first_of(",\"\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char character : text)
        quoted += character == '"' ? std::string("\"\"") : std::string(1, character);
    return quoted + "\"";
}

std::string maybeLocal(std::int64_t ms) { return ms == 0 ? "" : localText(ms); }

Json readFigures(const std::string &folder) {
    const std::string file = folder + "/figures.json";
    std::ifstream stream(file);
    const Json figures = stream ? Json::parse(stream, nullptr, false) : Json();
    if (!figures.is_object() || !figures.contains("energyKwh"))
        throw std::runtime_error(file + ": not the figures of a run; give two folders that "
                                        "'corvane-lab run' has written");
    return figures;
}

/* What is compared: name in the file, words, unit, digits. */
struct Compared {
    const char *name;
    const char *words;
    const char *unit;
    int digits;
};
constexpr Compared kCompared[] = {
    {"appliances", "appliances", "", 0},
    {"days", "days", "", 0},
    {"energyKwh", "energy", "kWh", 2},
    {"energyWithoutKwh", "energy without the programme", "kWh", 2},
    {"savedKwh", "saved", "kWh", 2},
    {"savedPercent", "saved", "%", 1},
    {"events", "events", "", 0},
    {"eventsConfirmed", "events confirmed", "", 0},
    {"reducedWatt", "less in event hours", "W", 1},
    {"reducedPercent", "less in event hours", "%", 1},
    {"cameBackKwh", "came back after", "kWh", 2},
    {"laterKwh", "more in all other hours", "kWh", 2},
    {"returnPeakWatt", "peak of the average return", "W", 1},
    {"peakWatt", "highest quarter of an hour", "W", 0},
    {"fridgeFoodCelsius", "food's warmest hour, fridge", "°C", 1},
    {"freezerFoodCelsius", "food's warmest hour, freezer", "°C", 1},
    {"requests", "requests", "", 0},
    {"refusals", "refused or not delivered", "", 0},
    {"lives", "lives of the service", "", 0},
};

std::string padded(const std::string &text, std::size_t width, bool right) {
    std::size_t letters = 0; // not bytes
    for (const char character : text)
        letters += (static_cast<unsigned char>(character) & 0xC0U) != 0x80U ? 1 : 0;
    const std::string space(width > letters ? width - letters : 0, ' ');
    return right ? space + text : text + space;
}

} // namespace

std::string eventsCsv(const Runs &runs, const Figures &figures) {
    std::string csv = "programme,level,start_local,end_local,start_utc,ordered_local,attempts,"
                      "commanded_local,confirmed_local,ended_local,outcome,with_w,without_w,"
                      "reduced_w,came_back_kwh,fridge_food_warmest_hour_c,"
                      "freezer_food_warmest_hour_c\n";
    for (std::size_t i = 0; i < runs.events.size(); ++i) {
        const PlannedEvent &event = runs.events[i];
        const EventFate &fate = runs.with.fates[i];
        const EventFigures &row = figures.events[i];
        csv += csvText(event.programme) + "," + std::to_string(event.level) + "," +
               localText(event.startMs) + "," + localText(event.endMs) + "," +
               utcText(event.startMs) + "," + maybeLocal(fate.acceptedMs) + "," +
               std::to_string(fate.attempts) + "," + maybeLocal(fate.commandedMs) + "," +
               maybeLocal(fate.confirmedMs) + "," + maybeLocal(fate.endedMs) + "," +
               csvText(row.outcome) + "," + number(row.withWatt, 1) + "," +
               number(row.withoutWatt, 1) + "," + number(row.withoutWatt - row.withWatt, 1) + "," +
               number(row.cameBackKwh, 4) + "," + number(row.fridgeFood, 2) + "," +
               number(row.freezerFood, 2) + "\n";
    }
    return csv;
}

std::string hoursCsv(const Runs &runs) {
    std::string csv = "begin_local,begin_utc,with_wh,without_wh,level,fridge_food_c,"
                      "freezer_food_c,fridge_food_without_c,freezer_food_without_c,"
                      "defrost_held_min,defrost_heating_min\n";
    for (const HourRow &row : hourRows(runs))
        csv += localText(row.beginMs) + "," + utcText(row.beginMs) + "," + number(row.withWh, 2) +
               "," + number(row.withoutWh, 2) + "," + std::to_string(row.level) + "," +
               number(row.fridgeFood, 2) + "," + number(row.freezerFood, 2) + "," +
               number(row.fridgeFoodWithout, 2) + "," + number(row.freezerFoodWithout, 2) + "," +
               std::to_string(row.defrostHeldMinutes) + "," +
               std::to_string(row.defrostHeatingMinutes) + "\n";
    return csv;
}

std::string figuresJson(const Runs &runs, const Figures &figures) {
    Json json;
    json["title"] = runs.scenario.title;
    json["from"] = dateText(runs.scenario.from);
    json["to"] = dateText(runs.scenario.to);
    json["zone"] = runs.scenario.zone;
    json["seed"] = runs.with.seed;
    json["appliances"] = runs.appliances;
    json["days"] = figures.days;
    json["energyKwh"] = figures.withKwh;
    json["energyWithoutKwh"] = figures.withoutKwh;
    json["savedKwh"] = figures.savedKwh();
    json["savedPercent"] = figures.savedPercent();
    json["events"] = runs.plannedEvents;
    json["eventsConfirmed"] = runs.confirmedEvents;
    json["eventsRefused"] = runs.refusedEvents;
    json["eventHours"] = figures.eventHours;
    json["eventWatt"] = figures.eventWithWatt;
    json["eventWithoutWatt"] = figures.eventWithoutWatt;
    json["reducedWatt"] = figures.reducedWatt();
    json["reducedPercent"] = figures.reducedPercent();
    json["reducedKwh"] = figures.reducedKwh;
    json["cameBackKwh"] = figures.cameBackKwh;
    json["laterKwh"] = figures.laterKwh;
    json["returnEvents"] = figures.returnEvents;
    json["returnPeakWatt"] = figures.returnPeakWatt;
    json["returnPeakWithoutWatt"] = figures.returnPeakWithoutWatt;
    json["returnSteadyWatt"] = figures.returnSteadyWatt;
    if (figures.returnPeakNoSpreadWatt)
        json["returnPeakNoSpreadWatt"] = *figures.returnPeakNoSpreadWatt;
    json["peakWatt"] = figures.peakWithWatt;
    json["peakWithoutWatt"] = figures.peakWithoutWatt;
    json["fridgeFoodCelsius"] = figures.fridgeWith;
    json["fridgeFoodWithoutCelsius"] = figures.fridgeWithout;
    json["freezerFoodCelsius"] = figures.freezerWith;
    json["freezerFoodWithoutCelsius"] = figures.freezerWithout;
    json["reportedKwh"] = figures.reportedKwh;
    json["requests"] = runs.with.requests;
    json["refusals"] = runs.with.refusals;
    json["commands"] = runs.with.commands;
    json["lives"] = runs.with.lives;
    json["unmet"] = unmet(runs, figures);
    return json.dump(2) + "\n";
}

std::string compareText(const std::string &folderA, const std::string &folderB) {
    const Json a = readFigures(folderA);
    const Json b = readFigures(folderB);
    std::string text;
    for (const auto &[letter, json] : {std::pair("A", &a), std::pair("B", &b)})
        text += std::string(letter) + ": " + json->value("title", "") + ", " +
                json->value("from", "") + " to " + json->value("to", "") + ", seed " +
                std::to_string(json->value("seed", std::uint64_t{0})) + "\n";
    for (const char *name : {"from", "to", "seed", "appliances"})
        if (a.value(name, Json()) != b.value(name, Json())) {
            text += "Note: they differ in \"" + std::string(name) +
                    "\", so not all of a difference is the programme's.\n";
            break;
        }
    text += "\n" + padded("", 34, false) + padded("A", 12, true) + padded("B", 12, true) +
            padded("B - A", 12, true) + "\n";
    for (const Compared &row : kCompared) {
        const double valueA = a.value(row.name, 0.0);
        const double valueB = b.value(row.name, 0.0);
        const std::string unit = *row.unit != '\0' ? std::string(", ") + row.unit : "";
        text += padded(row.words + unit, 34, false) + padded(number(valueA, row.digits), 12, true) +
                padded(number(valueB, row.digits), 12, true) +
                padded(number(valueB - valueA, row.digits), 12, true) + "\n";
    }
    return text;
}

std::string compareJson(const std::string &folderA, const std::string &folderB) {
    const Json a = readFigures(folderA);
    const Json b = readFigures(folderB);
    Json difference;
    for (const Compared &row : kCompared)
        difference[row.name] = b.value(row.name, 0.0) - a.value(row.name, 0.0);
    return Json{{"a", a}, {"b", b}, {"difference", difference}}.dump(2) + "\n";
}

void makeFolder(const std::string &folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
        throw std::runtime_error(folder + ": cannot be made: " + error.message() +
                                 "; give another folder with --out");
}

void writeFolder(const std::string &folder, const Runs &runs, const Figures &figures,
                 const std::vector<SeedLine> &seeds, const Making &making) {
    makeFolder(folder);
    const auto write = [&](const std::string &name, const std::string &content) {
        std::ofstream stream(folder + "/" + name, std::ios::binary);
        if (!(stream << content) || !stream.flush())
            throw std::runtime_error(folder + "/" + name +
                                     ": cannot be written; give another folder with --out");
    };
    write("events.csv", eventsCsv(runs, figures));
    write("hours.csv", hoursCsv(runs));
    write("figures.json", figuresJson(runs, figures));
    write("report.html", html(runs, figures, seeds, making));
}

} // namespace corvane::lab
