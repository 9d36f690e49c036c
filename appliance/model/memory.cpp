#include "memory.h"

#include <charconv>
#include <map>
#include <type_traits>

namespace corvane::appliance {

namespace {

constexpr double kCentury = 3e9;                 // seconds
constexpr TimeMs kFarAway = 100'000'000'000'000; // the year 5138, and as far before 1970

/*
 * Every field with its name and the range that makes sense. Writing and reading both walk this
 * list, so neither can forget one.
 */
template <typename Memory, typename Visit>
void eachField(Memory &memory, Visit visit) {
    auto &r = memory.refrigerator;
    visit("at", r.at, -kFarAway, kFarAway);
    visit("fridgeAirCelsius", r.temperatures.fridgeAir, -60.0, 90.0);
    visit("fridgeFoodCelsius", r.temperatures.fridgeFood, -60.0, 90.0);
    visit("freezerAirCelsius", r.temperatures.freezerAir, -60.0, 90.0);
    visit("freezerFoodCelsius", r.temperatures.freezerFood, -60.0, 90.0);
    visit("evaporatorCelsius", r.temperatures.evaporator, -90.0, 150.0);
    visit("goodsJoule", r.goodsJoule, 0.0, 1e9);
    visit("defrostCompressorSec", r.defrost.compressorSec, 0.0, kCentury);
    visit("defrostDoorOpenSec", r.defrost.doorOpenSec, 0.0, kCentury);
    visit("defrostPhaseLeftSec", r.defrost.phaseLeftSec, 0.0, kCentury);
    visit("defrostPhase", r.defrost.phase, 0, static_cast<int>(Defrost::Phase::Dripping));
    visit("defrostCycles", r.defrost.cycles, 0, INT32_MAX);
    visit("freezerCalls", r.freezerCalls, false, true);
    visit("fridgeCalls", r.fridgeCalls, false, true);
    visit("compressorOn", r.compressorOn, false, true);
    visit("compressorPhaseSec", r.compressorPhaseSec, 0.0, kCentury);
    visit("capacity", r.capacity, 0.0, 1.0);
    visit("iceStage", r.iceStage, 0, static_cast<int>(IceStage::Harvesting));
    visit("iceWanted", r.iceWanted, 0, 1000);
    visit("iceStageLeftSec", r.iceStageLeftSec, 0.0, kCentury);
    visit("displayLitLeftSec", r.displayLitLeftSec, 0.0, kCentury);
    visit("energyWh", r.energyWh, 0.0, 1e12);
    visit("displayEnergyWh", r.displayEnergyWh, 0.0, 1e12);
    visit("level", r.level, 0, kHighestLevel);
    visit("override", r.override, false, true);
    visit("defrostHold", r.defrostHold, false, true);
    visit("held", r.held, false, true);
    visit("heldSince", r.heldSince, -kFarAway, kFarAway);
    visit("foodLimitActive", r.foodLimitActive, false, true);
    visit("levelSec", r.levelSec, 0.0, kCentury);
    visit("strongSec", r.strongSec, 0.0, kCentury);
    visit("returnFrom", r.returnFrom, 0, kHighestLevel);
    visit("returnSec", r.returnSec, 0.0, kCentury);
    visit("returnDelaySec", r.returnDelaySec, 0.0, kCentury);
    visit("extrasWaitSec", r.extrasWaitSec, 0.0, kCentury);
    visit("returnRampSec", r.returnRampSec, 0.0, kCentury);
    visit("draws", r.draws, std::uint64_t{0}, UINT64_MAX);
    visit("fridgeHandOpen", r.fridgeHandOpen, false, true);
    visit("freezerHandOpen", r.freezerHandOpen, false, true);

    auto &m = memory.micom;
    visit("micomAt", m.at, -kFarAway, kFarAway);
    visit("micomNextPublicationAt", m.nextPublicationAt, -kFarAway, kFarAway);
    visit("micomReportedLevel", m.reportedLevel, 0, kHighestLevel);
    visit("micomReportedOverride", m.reportedOverride, 0, 1);
    visit("micomPublishedCounts", m.publishedCounts, std::int64_t{0}, INT64_MAX);
    visit("micomDraws", m.draws, std::uint64_t{0}, UINT64_MAX);
}

template <typename Value>
std::string textOf(Value value) {
    if constexpr (std::is_same_v<Value, bool>) {
        return value ? "1" : "0";
    } else {
        char buffer[40]; // the shortest text that reads back as the same value
        const auto end = std::to_chars(buffer, buffer + sizeof buffer, value);
        return {buffer, end.ptr};
    }
}

/* Reads a whole text as a value within the range; a NaN is in no range. */
template <typename Value, typename Bound>
bool read(std::string_view text, Value &value, Bound low, Bound high) {
    if constexpr (std::is_same_v<Value, bool>) {
        value = text == "1";
        return text == "1" || text == "0";
    } else {
        const char *end = text.data() + text.size();
        const auto result = std::from_chars(text.data(), end, value);
        return result.ec == std::errc() && result.ptr == end && value >= low && value <= high;
    }
}

} // namespace

std::string toText(const ApplianceMemory &memory) {
    std::string text;
    eachField(memory, [&text](const char *name, const auto &value, auto, auto) {
        text += name + (" " + textOf(value)) + "\n";
    });
    return text;
}

std::optional<ApplianceMemory> fromText(std::string_view text) {
    std::map<std::string_view, std::string_view> values;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        const std::size_t space = line.find(' ');
        if (end == std::string_view::npos || space == std::string_view::npos ||
            !values.emplace(line.substr(0, space), line.substr(space + 1)).second) {
            return std::nullopt;
        }
        text.remove_prefix(end + 1);
    }
    ApplianceMemory memory;
    bool good = true;
    eachField(memory, [&](const char *name, auto &value, auto low, auto high) {
        const auto found = values.extract(name);
        good = good && !found.empty() && read(found.mapped(), value, low, high);
    });
    return good && values.empty() ? std::optional(memory) : std::nullopt;
}

} // namespace corvane::appliance
