/* The trace's forms; see the header. */
#include "trace.h"

#include <array>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

double secondsOf(TimeMs atMs) { return static_cast<double>(atMs) / 1000; }

nlohmann::ordered_json traceJson(const TraceEntry &entry) {
    nlohmann::ordered_json json{{"id", entry.id},         {"at", secondsOf(entry.atMs)},
                                {"source", entry.source}, {"direction", entry.direction},
                                {"text", entry.text},     {"value", nullptr}};
    if (entry.value)
        json["value"] = *entry.value;
    return json;
}

std::string csvField(const std::string &text) {
    const bool isFormula = !text.empty() && (text[0] == '=' || text[0] == '+' || text[0] == '@' ||
                                             text[0] == '-' || text[0] == '\t');
    std::string field = isFormula ? "'" + text : text;
    if (field.find_first_of(",\"\r\n") == std::string::npos)
        return field;
    std::string quoted = "\"";
    for (const char c : field)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

std::string utcText(TimeMs atMs) {
    const auto seconds = static_cast<std::time_t>(atMs / 1000);
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    std::array<char, 40> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), "%FT%T", &fields);
    std::snprintf(text.data() + size, text.size() - size, ".%03dZ", static_cast<int>(atMs % 1000));
    return text.data();
}

std::string traceCsvHead() { return "id,at,utc,source,direction,text,value\r\n"; }

std::string traceCsv(const TraceEntry &entry) {
    return std::to_string(entry.id) + ',' + nlohmann::json(secondsOf(entry.atMs)).dump() + ',' +
           utcText(entry.atMs) + ',' + entry.source + ',' + entry.direction + ',' +
           csvField(entry.text) + ',' + (entry.value ? nlohmann::json(*entry.value).dump() : "") +
           "\r\n";
}

} // namespace corvane::appliance
