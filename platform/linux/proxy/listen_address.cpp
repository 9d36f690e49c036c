// See listen_address.h.
#include "listen_address.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <unistd.h>

namespace corvane::platform {

namespace {

std::optional<std::uint16_t> parsePort(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc{} || end != text.data() + text.size() || port == 0)
        return std::nullopt;
    return port;
}

} // namespace

bool ListenAddress::isLoopback() const {
    if (any.sa_family == AF_INET)
        return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr);
}

std::optional<ListenAddress> parseListenAddress(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    const auto port = parsePort(text.substr(colon + 1));
    std::string host(text.substr(0, colon));
    if (!port)
        return std::nullopt;

    ListenAddress address{};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        address.v6.sin6_family = AF_INET6;
        address.v6.sin6_port = htons(*port);
        address.size = sizeof(address.v6);
        if (inet_pton(AF_INET6, host.c_str(), &address.v6.sin6_addr) != 1)
            return std::nullopt;
        return address;
    }
    address.v4.sin_family = AF_INET;
    address.v4.sin_port = htons(*port);
    address.size = sizeof(address.v4);
    if (inet_pton(AF_INET, host.c_str(), &address.v4.sin_addr) != 1)
        return std::nullopt;
    return address;
}

int tryBind(const ListenAddress &address) {
    const int fd = socket(address.any.sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int error = bind(fd, &address.any, address.size) == 0 ? 0 : errno;
    close(fd);
    return error;
}

} // namespace corvane::platform
