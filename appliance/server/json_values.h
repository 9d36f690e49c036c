/*
 * How values stand in the JSON of the HTTP interface: what is not known is null, moments are
 * seconds since the epoch.
 */
#ifndef CORVANE_APPLIANCE_SERVER_JSON_VALUES_H
#define CORVANE_APPLIANCE_SERVER_JSON_VALUES_H

#include "trace.h"

#include <cmath>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

template <typename T>
nlohmann::ordered_json orNull(const std::optional<T> &value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

inline nlohmann::ordered_json momentOrNull(const std::optional<TimeMs> &atMs) {
    return atMs ? nlohmann::ordered_json(secondsOf(*atMs)) : nlohmann::ordered_json(nullptr);
}

inline nlohmann::ordered_json textOrNull(const std::string &text) {
    return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
}

/* Three decimals are more than anybody sees, and keep the texts short. */
inline double rounded(double value) { return std::round(value * 1000) / 1000; }

/* One line, also of texts that are no UTF-8. */
inline std::string textOf(const nlohmann::ordered_json &json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace corvane::appliance

#endif
