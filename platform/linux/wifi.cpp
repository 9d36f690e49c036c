/*
 * Wi-Fi: the settings keys tell, when somebody writes them; otherwise any network link that is up
 * counts as the radio being on and connected.
 */
#include "main_queue.h"
#include "settings.h"

#include <wifi.h>

#include <cerrno>

#include <ifaddrs.h>
#include <net/if.h>

namespace {

using corvane::platform::MainQueue;
using corvane::platform::Settings;
using corvane::platform::Status;

constexpr const char *kConnectedKey = "memory/wifi/connected";
constexpr const char *kActivatedKey = "memory/wifi/activated";

bool anyLinkUp() {
    ifaddrs *links = nullptr;
    if (getifaddrs(&links) != 0)
        return false;
    bool up = false;
    for (const ifaddrs *link = links; link != nullptr; link = link->ifa_next) {
        constexpr unsigned kWanted = IFF_UP | IFF_RUNNING;
        up = up || (link->ifa_flags & (kWanted | IFF_LOOPBACK)) == kWanted;
    }
    freeifaddrs(links);
    return up;
}

/* Sets on to what the key says, or to whether a link is up when nobody has written it. */
int readSwitch(const char *key, bool &on) {
    int value = 0;
    const Status status = Settings::instance().readInt(key, value);
    if (!status.ok() && status.code != ENOENT)
        return WIFI_ERROR_OPERATION_FAILED;
    on = status.ok() ? value != 0 : anyLinkUp();
    return WIFI_ERROR_NONE;
}

} // namespace

int wifi_initialize(void) { return WIFI_ERROR_NONE; }

int wifi_is_activated(bool *activated) {
    if (activated == nullptr)
        return WIFI_ERROR_OPERATION_FAILED;
    return readSwitch(kActivatedKey, *activated);
}

int wifi_activate(wifi_activated_cb callback, void *user_data) {
    if (callback == nullptr)
        return WIFI_ERROR_OPERATION_FAILED;
    int value = 0;
    const Status status = Settings::instance().readInt(kActivatedKey, value);
    // Without the key there is no radio to switch: a link has to be there.
    const bool on = status.ok() ? Settings::instance().write(kActivatedKey, 1).ok()
                                : status.code == ENOENT && anyLinkUp();
    const wifi_error_e result = on ? WIFI_ERROR_NONE : WIFI_ERROR_OPERATION_FAILED;
    MainQueue::instance().post([callback, user_data, result] { callback(result, user_data); });
    return WIFI_ERROR_NONE;
}

int wifi_get_connected_ap(wifi_ap_h *ap) {
    static char accessPoint; // the handle's address is all there is to it
    bool connected = false;
    if (ap == nullptr || readSwitch(kConnectedKey, connected) != WIFI_ERROR_NONE || !connected)
        return WIFI_ERROR_OPERATION_FAILED;
    *ap = &accessPoint;
    return WIFI_ERROR_NONE;
}

int wifi_unset_connection_state_changed_cb(void) { return WIFI_ERROR_NONE; }
