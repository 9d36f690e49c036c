/*
 * Where the service is and what opens it: the --url, and the pre-shared key for a coaps:// one.
 */
#ifndef CORVANE_CLIENT_ENDPOINT_H
#define CORVANE_CLIENT_ENDPOINT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::client {

inline constexpr const char *kDefaultUrl = "coap://127.0.0.1:5683";
inline constexpr const char *kDefaultProxyName = "KestProxyTest";

struct Endpoint {
    bool secure = false;    // coaps
    std::string host;       // name or address, an IPv6 one without its brackets
    std::uint16_t port = 0; // 1 to 65535
    std::string proxyName;

    /* The address in full, as it may be given to --url. */
    std::string url() const;
    /* Whether the service is on this machine, so that its files are too. */
    bool isLoopback() const;
};

/* Reads coap://host[:port][/proxy name] or coaps://…; throws UsageError. */
Endpoint parseUrl(std::string_view url);

struct Credentials {
    std::string identity;
    std::vector<std::uint8_t> key;
};

/*
 * The key of an identity in a file of keys (psk_file.h); an empty identity means the only one there
 * is. Throws CommandFailed, which never quotes a key.
 */
Credentials readCredentials(const std::string &path, const std::string &identity);

} // namespace corvane::client

#endif
