/*
 * Which notifications of one resource are new.
 *
 * CoAP promises the latest state of a resource, not every one, and a refresh repeats what is known;
 * so each payload carries a count ("seq") and the last few notifications ("recent"). From these the
 * trail tells each notification exactly once, however they were merged, lost or repeated.
 */
#ifndef CORVANE_CLIENT_NOTIFICATION_TRAIL_H
#define CORVANE_CLIENT_NOTIFICATION_TRAIL_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace corvane::client {

struct Notification {
    std::uint64_t seq = 0; // counts from 1 since the service started; 0: none yet
    std::string at;        // UTC, RFC 3339
    nlohmann::json body;   // the whole entry, with the values
};

class NotificationTrail {
public:
    struct News {
        bool restarted = false;          // the service counts anew
        std::uint64_t missed = 0;        // notifications that were sent but can no longer be told
        std::vector<Notification> fresh; // oldest first
    };

    /* The first payload only tells where the trail begins. */
    News take(const nlohmann::json &payload);

private:
    bool begun_ = false;
    Notification last_;
};

} // namespace corvane::client

#endif
