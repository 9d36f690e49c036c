/* The table of figures; see the header. */
#include "metrics.h"

namespace corvane::appliance {
namespace {

struct Metric {
    const char *name;
    const char *labels; // with braces, or empty
    const char *type;
    const char *help;
    const char *place; // a JSON pointer into the state
};

constexpr Metric kMetrics[] = {
    {"corvane_power_watts", "", "gauge", "Power of the whole appliance.",
     "/refrigerator/powerWatt"},
    {"corvane_energy_watthours_total", "", "counter", "Energy since the appliance's beginning.",
     "/refrigerator/energyWh"},
    {"corvane_temperature_celsius", "{place=\"fridge\"}", "gauge", "Air temperature.",
     "/refrigerator/fridgeCelsius"},
    {"corvane_temperature_celsius", "{place=\"freezer\"}", "gauge", "",
     "/refrigerator/freezerCelsius"},
    {"corvane_temperature_celsius", "{place=\"ambient\"}", "gauge", "",
     "/refrigerator/ambientCelsius"},
    {"corvane_compressor_capacity", "", "gauge", "Share of the compressor's capacity, 0 to 1.",
     "/refrigerator/compressor/capacity"},
    {"corvane_defrost_heater_on", "", "gauge", "Whether the defrost heater runs.",
     "/refrigerator/defrost/heaterOn"},
    {"corvane_defrost_held", "", "gauge", "Whether a due defrost would have to wait.",
     "/refrigerator/defrost/held"},
    {"corvane_food_limit_active", "", "gauge", "Whether a level is set aside to protect food.",
     "/refrigerator/foodLimitActive"},
    {"corvane_micom_alive", "", "gauge", "Whether the Micom hears and reports.", "/micom/alive"},
    {"corvane_speed", "", "gauge", "Virtual seconds in a real one.", "/speed"},
    {"corvane_metering_posts_total", "", "counter", "Requests to the metering service.",
     "/metering/posts"},
    {"corvane_metering_refused_total", "", "counter", "Those that it did not take.",
     "/metering/refused"},
    {"corvane_metering_watthours_total", "", "counter", "Energy posted to it.",
     "/metering/totalWh"},
    {"corvane_level_commanded", "", "gauge", "Level last commanded to the Micom.",
     "/demandResponse/commanded/level"},
    {"corvane_level_confirmed", "", "gauge", "Level last confirmed by the Micom.",
     "/demandResponse/confirmed/level"},
    {"corvane_service_up", "", "gauge", "Whether the service answers.", "/service/reachable"},
    {"corvane_service_level", "", "gauge", "Level last reported by the service.",
     "/demandResponse/reported/level"},
    {"corvane_service_event_level", "", "gauge", "Level of the stored event.",
     "/demandResponse/event/level"},
    {"corvane_service_event_remaining_seconds", "", "gauge", "What is left of it.",
     "/demandResponse/event/remainingSec"},
    {"corvane_service_override", "", "gauge", "Whether events are overridden.",
     "/demandResponse/override/on"},
    {"corvane_service_block", "", "gauge", "Whether an event blocks defrost delay.",
     "/demandResponse/block"},
    {"corvane_service_defrost_delay_enabled", "", "gauge", "Whether defrost delay is on.",
     "/defrostDelay/enabled"},
    {"corvane_service_consumption", "{month=\"this\"}", "gauge",
     "Consumption by the service's answer, kWh.", "/consumption/thisMonthKwh"},
    {"corvane_service_consumption", "{month=\"previous\"}", "gauge", "",
     "/consumption/previousMonthKwh"},
};

void addHead(std::string &text, const std::string &name, const std::string &type,
             const std::string &help) {
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

} // namespace

std::string metricsText(const nlohmann::ordered_json &state, std::size_t openStreams,
                        bool historyFails) {
    std::string text;
    for (const Metric &metric : kMetrics) {
        if (*metric.help != '\0')
            addHead(text, metric.name, metric.type, metric.help);
        const nlohmann::ordered_json::json_pointer place(metric.place);
        if (!state.contains(place))
            continue;
        const nlohmann::ordered_json &value = state.at(place);
        if (value.is_number())
            text += std::string(metric.name) + metric.labels + " " + value.dump() + "\n";
        else if (value.is_boolean())
            text +=
                std::string(metric.name) + metric.labels + (value.get<bool>() ? " 1\n" : " 0\n");
    }
    addHead(text, "corvane_fault_on", "gauge", "Whether a fault is switched on.");
    for (const auto &fault : state.at("faults"))
        text += "corvane_fault_on{fault=\"" + fault.at("name").get<std::string>() + "\"} " +
                (fault.at("on").get<bool>() ? "1\n" : "0\n");
    addHead(text, "corvane_streams_open", "gauge", "Open event streams.");
    text += "corvane_streams_open " + std::to_string(openStreams) + "\n";
    addHead(text, "corvane_history_failing", "gauge", "Whether the history cannot be written.");
    text += historyFails ? "corvane_history_failing 1\n" : "corvane_history_failing 0\n";
    return text;
}

} // namespace corvane::appliance
