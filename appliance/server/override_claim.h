/*
 * Who has changed the override. The service tells only what it is now, so whoever has asked for
 * that value last has changed it: the display board when it was pressed a short while ago, else the
 * remote side. A press that had no effect must not be taken for the cause of a later change.
 */
#ifndef CORVANE_APPLIANCE_SERVER_OVERRIDE_CLAIM_H
#define CORVANE_APPLIANCE_SERVER_OVERRIDE_CLAIM_H

#include "model_time.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace corvane::appliance {

class OverrideClaim {
public:
    /* speed: how fast the times pass that are given. */
    explicit OverrideClaim(int speed) : lastsMs_(std::max(kLastsMs, kLastsRealMs * speed)) {}

    /* The display board was pressed; or the remote side has sent an order since. */
    void pressed(int value, TimeMs atMs) { press_ = Press{value, atMs}; }
    void ordered() { press_.reset(); }

    /* Whose the change to this value is, "display" or "remote". Whatever was asked for has been
     * decided by it. */
    const char *authorOf(int value, TimeMs atMs) {
        const auto press = std::exchange(press_, std::nullopt);
        const bool isDisplays =
            press && press->value == value && atMs >= press->atMs && atMs - press->atMs <= lastsMs_;
        return isDisplays ? "display" : "remote";
    }

private:
    /* A slow Micom applies an override after 15 s; a busy machine takes real time for it. */
    static constexpr TimeMs kLastsMs = 30'000;
    static constexpr TimeMs kLastsRealMs = 1'000;

    struct Press {
        int value = 0;
        TimeMs atMs = 0;
    };
    const TimeMs lastsMs_;
    std::optional<Press> press_;
};

} // namespace corvane::appliance

#endif
