/*
 * The appliance's clock: the system's, or the faster one that CORVANE_CLOCK leads to.
 */
#ifndef CORVANE_APPLIANCE_SERVER_CLOCK_NOW_H
#define CORVANE_APPLIANCE_SERVER_CLOCK_NOW_H

#include "model_time.h"

#include <chrono>

namespace corvane::appliance {

inline TimeMs clockNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace corvane::appliance

#endif
