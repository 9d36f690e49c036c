// See exchange_table.h.
#include "exchange_table.h"

namespace corvane::platform {

Exchange *ExchangeTable::find(const std::string &key) {
    while (!byAge_.empty() && ageOf(byAge_.front()->second) >= kLifetime)
        forgetOldest();
    const auto found = exchanges_.find(key);
    return found == exchanges_.end() ? nullptr : &found->second;
}

void ExchangeTable::remember(const std::string &key) {
    if (exchanges_.size() >= capacity_)
        forgetOldest();
    Exchange exchange;
    exchange.since = now_();
    byAge_.push_back(&*exchanges_.emplace(key, exchange).first);
}

void ExchangeTable::forgetOldest() {
    const std::string key = byAge_.front()->first;
    byAge_.pop_front();
    exchanges_.erase(key);
}

} // namespace corvane::platform
