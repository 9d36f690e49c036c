/*
 * One line of the trace: what passed between the appliance and its surroundings, and when.
 */
#ifndef CORVANE_APPLIANCE_SERVER_TRACE_H
#define CORVANE_APPLIANCE_SERVER_TRACE_H

#include "model_time.h"

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace corvane::appliance {

struct TraceEntry {
    std::int64_t id = 0; // counts up, also over restarts
    TimeMs atMs = 0;
    std::string source;    // "micom", "display", "remote", "metering", "service" or "page"
    std::string direction; // "in": what the source was told; "out": what it said or did
    std::string text;
    std::optional<double> value;
};

nlohmann::ordered_json traceJson(const TraceEntry &entry);

/* RFC 4180: the line of names, and that of an entry. */
std::string traceCsvHead();
std::string traceCsv(const TraceEntry &entry);

/* The moment as seconds with three decimals at most, as all of the HTTP interface tells it. */
double secondsOf(TimeMs atMs);

/* A field of a CSV line; what a spreadsheet would take for a formula gets a quote in front. */
std::string csvField(const std::string &text);

/* UTC, RFC 3339 with milliseconds. */
std::string utcText(TimeMs atMs);

} // namespace corvane::appliance

#endif
