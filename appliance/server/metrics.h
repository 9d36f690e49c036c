/*
 * The state in the text form that Prometheus reads: the appliance's own figures, and the service's
 * as far as it tells them.
 */
#ifndef CORVANE_APPLIANCE_SERVER_METRICS_H
#define CORVANE_APPLIANCE_SERVER_METRICS_H

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

/* state: as /api/v1/state tells it. A figure that is not known is left out. */
std::string metricsText(const nlohmann::ordered_json &state, std::size_t openStreams,
                        bool historyFails);

} // namespace corvane::appliance

#endif
