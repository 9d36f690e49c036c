// The eleven handler functions that the service installs, and the call of the right one for a
// checked request. The service may install a handler at any time and from any thread; a second one
// replaces the first. There is no way to take one back.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_HANDLERS_H
#define CORVANE_PLATFORM_LINUX_PROXY_HANDLERS_H

#include "wire.h"

#include <atomic>

namespace corvane::platform {

struct Handlers {
    std::atomic<KestGetDRLCOverrideFunc> getDrlcOverride{};
    std::atomic<KestControlOverrideFunc> controlOverride{};
    std::atomic<KestControlDRLCFunc> controlDrlc{};
    std::atomic<KestGetDefrostReservationsFunc> getDefrostReservations{};
    std::atomic<KestCreateDefrostReservationsFunc> createDefrostReservations{};
    std::atomic<KestSetDefrostReservationsFunc> setDefrostReservations{};
    std::atomic<KestDelDefrostReservationsFunc> delDefrostReservations{};
    std::atomic<KestGetDelayDefrostFunc> getDelayDefrost{};
    std::atomic<KestSetDelayDefrostFunc> setDelayDefrost{};
    std::atomic<KestGetDefrostBlockFunc> getDefrostBlock{};
    std::atomic<KestGetEnergyConsumptionFunc> getEnergyConsumption{};
};

bool isInstalled(const Handlers &handlers, CommandId id);

// Calls the request's handler, which must be installed, on the calling thread and makes the
// response of what it answered. What the handler throws passes through. The request belongs to the
// call: a handler may write into it.
Response callHandler(const Handlers &handlers, Request &request);

} // namespace corvane::platform

#endif
