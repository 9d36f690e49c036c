// See notifications.h.
#include "notifications.h"

#include <utility>

namespace corvane::platform {

namespace {

using nlohmann::ordered_json;

constexpr std::size_t kRecentCount = 8;

std::size_t indexOf(CommandId id) {
    return static_cast<std::size_t>(id) - static_cast<std::size_t>(CommandId::SendOverrideNotify);
}

ordered_json membersBeforeTheFirst(CommandId id) {
    switch (id) {
    case CommandId::SendOverrideNotify:
        return {{"override", nullptr}};
    case CommandId::SendDRLCNotify:
        return {{"level", nullptr}};
    case CommandId::SendDelayDefrostNotify:
        return {{"enabled", nullptr}};
    case CommandId::SendDefrostBlockNotify:
        return {{"block", nullptr}};
    default:
        return {{"action", nullptr}, {"entries", ordered_json::array()}};
    }
}

ordered_json timeText(std::time_t time) {
    std::tm utc{};
    std::array<char, 32> text{};
    gmtime_r(&time, &utc);
    std::strftime(text.data(), text.size(), "%FT%TZ", &utc);
    return text.data();
}

// The value with as many of the recent ones, the newest first to be taken, as fit.
std::string compose(const ordered_json &present, const std::deque<ordered_json> &recent,
                    Format format) {
    for (auto first = recent.begin();; ++first) {
        ordered_json value = present;
        value["recent"] = ordered_json(ordered_json::array_t(first, recent.end()));
        std::string text = encode(value, format);
        if (text.size() <= kMaxBodySize || first == recent.end())
            return text;
    }
}

} // namespace

Notifications::Notifications(std::function<std::time_t()> now) : now_(std::move(now)) {
    for (const Command &command : allCommands()) {
        if (command.kind != CommandKind::Notification)
            continue;
        Channel &channel = channels_[indexOf(command.id)];
        channel.present = membersBeforeTheFirst(command.id);
        channel.present["seq"] = 0;
        channel.present["at"] = nullptr;
    }
}

void Notifications::send(CommandId id, const ordered_json &members) {
    ordered_json present = members;
    const std::lock_guard lock(mutex_);
    Channel &channel = channels_[indexOf(id)];
    present["seq"] = ++channel.seq;
    present["at"] = timeText(now_());
    channel.recent.push_back(present);
    if (channel.recent.size() > kRecentCount)
        channel.recent.pop_front();
    channel.present = std::move(present);
    channel.encoded = {};
}

std::string Notifications::value(CommandId id, Format format) const {
    const std::lock_guard lock(mutex_);
    const Channel &channel = channels_[indexOf(id)];
    std::string &encoded = channel.encoded[format == Format::Json ? 0 : 1];
    if (encoded.empty())
        encoded = compose(channel.present, channel.recent, format);
    return encoded;
}

} // namespace corvane::platform
