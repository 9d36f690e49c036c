/*
 * Wi-Fi in memory: a state that the test sets.
 */
#include <wifi.h>

#include "fakes.h"
#include "internal.h"

#include <map>
#include <mutex>
#include <thread>

namespace {

std::mutex mutex;
fakes::wifi::State state;             // guarded by mutex
std::map<std::string, int> callCount; // guarded by mutex

// What every call does first. Answers the state to act upon.
fakes::wifi::State enter(const char *function) {
    fakes::internal::record(fakes::Kind::Wifi, function);
    fakes::wifi::State present;
    {
        const std::lock_guard lock(mutex);
        ++callCount[function];
        present = state;
    }
    if (present.hangSec > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(present.hangSec));
    }
    return present;
}

void finishActivation(wifi_activated_cb callback, void *userData) {
    wifi_error_e outcome = WIFI_ERROR_NONE;
    {
        const std::lock_guard lock(mutex);
        outcome = state.activationOutcome;
        state.activated = state.activated || outcome == WIFI_ERROR_NONE;
    }
    callback(outcome, userData);
}

} // namespace

extern "C" {

int wifi_initialize() { return enter("wifi_initialize").initializeResult; }

int wifi_is_activated(bool *activated) {
    const fakes::wifi::State present = enter("wifi_is_activated");
    if (present.isActivatedResult == 0) {
        *activated = present.activated;
    }
    return present.isActivatedResult;
}

int wifi_activate(wifi_activated_cb callback, void *user_data) {
    const fakes::wifi::State present = enter("wifi_activate");
    if (present.activateResult == 0) {
        fakes::internal::deliverOnLoop(
            [callback, user_data] { finishActivation(callback, user_data); },
            present.activationSec);
    }
    return present.activateResult;
}

int wifi_get_connected_ap(wifi_ap_h *ap) {
    static int accessPoint = 0;
    if (!enter("wifi_get_connected_ap").connected) {
        return WIFI_ERROR_OPERATION_FAILED;
    }
    *ap = &accessPoint;
    return WIFI_ERROR_NONE;
}

int wifi_unset_connection_state_changed_cb() {
    enter("wifi_unset_connection_state_changed_cb");
    return WIFI_ERROR_NONE;
}

} // extern "C"

namespace fakes {
namespace wifi {

void set(const State &newState) {
    const std::lock_guard lock(mutex);
    state = newState;
}

State get() {
    const std::lock_guard lock(mutex);
    return state;
}

int calls(const std::string &function) {
    const std::lock_guard lock(mutex);
    return callCount[function];
}

} // namespace wifi

namespace internal {

void clearWifi() {
    const std::lock_guard lock(mutex);
    callCount.clear();
}

void resetWifi() { wifi::set({}); }

} // namespace internal
} // namespace fakes
