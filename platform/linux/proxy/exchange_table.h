// Which requests were handed to a handler lately, and what they were answered: a datagram that
// arrives twice must not run its handler twice. An entry lives for the time in which a message id
// may not be used again (247 s), and shorter when more requests arrive than the table holds.
//
// The table belongs to the server's thread; it has no lock.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_EXCHANGE_TABLE_H
#define CORVANE_PLATFORM_LINUX_PROXY_EXCHANGE_TABLE_H

#include "wire.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

namespace corvane::platform {

struct Exchange {
    std::chrono::steady_clock::time_point since;
    bool isAcknowledged = false;    // an empty acknowledgement went out before the answer
    std::optional<Response> answer; // none while the handler is at work
};

class ExchangeTable {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kLifetime{247};

    // now: the present instant, asked for at each call.
    explicit ExchangeTable(std::size_t capacity,
                           std::function<Clock::time_point()> now = Clock::now)
        : capacity_(capacity), now_(std::move(now)) {}

    // How long ago the exchange was remembered.
    Clock::duration ageOf(const Exchange &exchange) const { return now_() - exchange.since; }

    // The exchange of that peer, message id and token, packed into one key by the caller; null when
    // there is none. Valid until the next remember().
    Exchange *find(const std::string &key);

    // Makes room by forgetting the oldest, and starts a new exchange. The key must not be known.
    void remember(const std::string &key);

    std::size_t size() const { return exchanges_.size(); }

private:
    using Exchanges = std::unordered_map<std::string, Exchange>;
    void forgetOldest();

    const std::size_t capacity_;
    const std::function<Clock::time_point()> now_;
    Exchanges exchanges_;
    std::deque<const Exchanges::value_type *> byAge_; // all of them, oldest first
};

} // namespace corvane::platform

#endif
