#include "defrost.h"

#include <algorithm>

namespace corvane::appliance {

double Defrost::frostShare() const {
    return std::min(1.0, memory_.doorOpenSec / parameters_.defrostDoorSec);
}

double Defrost::leftSec() const {
    const double longest = parameters_.defrostIntervalLongestSec;
    const double interval =
        longest - (longest - parameters_.defrostIntervalShortestSec) * frostShare();
    return std::max(0.0, interval - memory_.compressorSec);
}

double Defrost::overdueSec() const {
    return std::max(0.0, memory_.compressorSec - parameters_.defrostLimitSec);
}

void Defrost::pass(double sec, bool compressorOn, bool doorOpen) {
    if (compressorOn) {
        memory_.compressorSec += sec;
    }
    if (doorOpen) {
        memory_.doorOpenSec += sec;
    }
    memory_.phaseLeftSec = std::max(0.0, memory_.phaseLeftSec - sec);
}

void Defrost::control(bool held, bool inhibited) {
    if (heaterOn() && memory_.phaseLeftSec <= 0) {
        memory_ = {.phaseLeftSec = parameters_.defrostDripSec,
                   .phase = static_cast<int>(Phase::Dripping),
                   .cycles = memory_.cycles + 1};
    } else if (phase() == Phase::Dripping && memory_.phaseLeftSec <= 0) {
        memory_.phase = static_cast<int>(Phase::Counting);
    }
    if (due() && !inhibited && (!held || overdueSec() > 0)) {
        const double shortest = parameters_.defrostShortestSec;
        memory_.phaseLeftSec = shortest + (parameters_.defrostLongestSec - shortest) * frostShare();
        memory_.phase = static_cast<int>(Phase::Heating);
    }
}

void Defrost::interrupt() {
    if (heaterOn()) {
        memory_.phaseLeftSec = 0;
        memory_.phase = static_cast<int>(Phase::Counting);
    }
}

} // namespace corvane::appliance
