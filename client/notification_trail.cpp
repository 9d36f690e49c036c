/* Telling new notifications from known ones; see the header. */
#include "notification_trail.h"

#include <map>

namespace corvane::client {
namespace {

/* Every notification that the payload tells of, by its count. */
std::map<std::uint64_t, Notification> notificationsOf(const nlohmann::json &payload) {
    std::map<std::uint64_t, Notification> found;
    const auto add = [&](const nlohmann::json &entry) {
        if (!entry.is_object() || !entry.contains("seq") || !entry["seq"].is_number_unsigned())
            return;
        const auto seq = entry["seq"].get<std::uint64_t>();
        const auto at = entry.find("at");
        const bool dated = at != entry.end() && at->is_string();
        if (seq > 0)
            found[seq] = {seq, dated ? at->get<std::string>() : "", entry};
    };
    const auto recent = payload.find("recent");
    if (recent != payload.end() && recent->is_array())
        for (const nlohmann::json &entry : *recent)
            add(entry);
    nlohmann::json newest = payload;
    if (newest.is_object())
        newest.erase("recent");
    add(newest);
    return found;
}

} // namespace

NotificationTrail::News NotificationTrail::take(const nlohmann::json &payload) {
    const std::map<std::uint64_t, Notification> found = notificationsOf(payload);
    const Notification newest = found.empty() ? Notification{} : found.rbegin()->second;
    News news;
    if (begun_) {
        const auto same = found.find(last_.seq);
        news.restarted =
            newest.seq < last_.seq || (same != found.end() && same->second.at != last_.at);
        const std::uint64_t known = news.restarted ? 0 : last_.seq;
        for (auto next = found.upper_bound(known); next != found.end(); ++next)
            news.fresh.push_back(next->second);
        if (!news.fresh.empty())
            news.missed = news.fresh.front().seq - known - 1;
    }
    begun_ = true;
    last_ = newest;
    return news;
}

} // namespace corvane::client
