/* The count of wrong passwords; see the header. */
#include "password_tries.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include <arpa/inet.h>

namespace corvane::appliance {
namespace {

/* Whoever has one IPv6 address has the 2^64 of its network. */
std::string networkOf(const std::string &address) {
    constexpr std::size_t kNetworkBytes = 8;
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) != 1 || IN6_IS_ADDR_V4MAPPED(&v6))
        return address;
    return {reinterpret_cast<const char *>(v6.s6_addr), kNetworkBytes};
}

} // namespace

std::chrono::seconds PasswordTries::tried(const std::string &address, bool isRight, Moment now) {
    const std::string network = networkOf(address);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = minutes_.find(network);
    const bool isCounted = known != minutes_.end() && now - known->second.began < kMinute;
    if (isCounted && known->second.wrong >= kWrongAMinute)
        return std::chrono::ceil<std::chrono::seconds>(known->second.began + kMinute - now);
    if (isRight)
        return {};
    if (isCounted) {
        ++known->second.wrong;
        return {};
    }
    makePlace(now);
    minutes_[network] = {now, 1};
    return {};
}

void PasswordTries::makePlace(Moment now) {
    std::erase_if(minutes_, [now](const auto &each) { return now - each.second.began >= kMinute; });
    if (minutes_.size() >= kMostAddresses)
        minutes_.erase(std::min_element(minutes_.begin(), minutes_.end(),
                                        [](const auto &left, const auto &right) {
                                            return left.second.began < right.second.began;
                                        }));
}

} // namespace corvane::appliance
