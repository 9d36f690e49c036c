// See exchange_table.h.
#include "exchange_table.h"

namespace corvane::platform {

Exchange *ExchangeTable::find(const std::string &key) {
    forgetExpired();
    const auto found = exchanges_.find(key);
    return found == exchanges_.end() ? nullptr : &found->second;
}

void ExchangeTable::remember(const std::string &key) {
    if (exchanges_.size() >= capacity_) {
        exchanges_.erase(births_.front().key);
        births_.pop_front();
    }
    exchanges_.emplace(key, Exchange{});
    births_.push_back({now_(), key});
}

void ExchangeTable::forgetExpired() {
    const auto now = now_();
    while (!births_.empty() && births_.front().at + kLifetime <= now) {
        exchanges_.erase(births_.front().key);
        births_.pop_front();
    }
}

} // namespace corvane::platform
