// The address that the proxy listens on, as it is written in CORVANE_COAP_LISTEN: an IPv4 address
// and a port (127.0.0.1:5683) or an IPv6 address in brackets and a port ([::1]:5683).
#ifndef CORVANE_PLATFORM_LINUX_PROXY_LISTEN_ADDRESS_H
#define CORVANE_PLATFORM_LINUX_PROXY_LISTEN_ADDRESS_H

#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace corvane::platform {

struct ListenAddress {
    union {
        sockaddr any;
        sockaddr_in v4;
        sockaddr_in6 v6;
    };
    socklen_t size;

    bool isLoopback() const;
};

// Nothing when the text has another form, or the port is not from 1 to 65535.
std::optional<ListenAddress> parseListenAddress(std::string_view text);

// Whether a datagram socket can be bound there: 0, or the number of the error. A second socket on
// an address in use counts as an error, also when the first one allows it.
int tryBind(const ListenAddress &address);

} // namespace corvane::platform

#endif
