// What the service has notified: for each notification the present value, the number of
// notifications so far and the last few of them. Watchers may see several as one, so a value tells
// enough to catch up: {"level": 2, "seq": 9, "at": "...Z", "recent": [{"seq": 2, ...}, ...]}.
//
// All functions may be called from any thread.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_NOTIFICATIONS_H
#define CORVANE_PLATFORM_LINUX_PROXY_NOTIFICATIONS_H

#include "wire.h"

#include <array>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace corvane::platform {

class Notifications {
public:
    // now: the present time, asked for at each notification.
    explicit Notifications(std::function<std::time_t()> now = [] { return std::time(nullptr); });

    // Counts one more notification with these members, in the order of the wire.
    void send(CommandId id, const nlohmann::ordered_json &members);

    // The resource's present value. Before the first notification its members are null, its number
    // is 0 and "at" is null. "recent" lists the last 8 with the present one at the end, fewer where
    // a value would become longer than kMaxBodySize.
    std::string value(CommandId id, Format format) const;

private:
    struct Channel {
        nlohmann::ordered_json present;
        std::deque<nlohmann::ordered_json> recent;
        std::uint64_t seq = 0;
        mutable std::array<std::string, 2> encoded; // by format; empty when to be made anew
    };

    const std::function<std::time_t()> now_;
    mutable std::mutex mutex_;
    std::array<Channel, 5> channels_; // guarded by mutex_
};

} // namespace corvane::platform

#endif
