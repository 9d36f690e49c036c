/*
 * Reading of --url, by hand, which lets every message name the part that is wrong; and the choice
 * of a key.
 */
#include "endpoint.h"

#include "errors.h"
#include "psk_file.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace corvane::client {
namespace {

constexpr std::uint16_t kCoapPort = 5683;
constexpr std::uint16_t kCoapsPort = 5684;

[[noreturn]] void badUrl(std::string_view url, const std::string &reason) {
    throw UsageError("--url \"" + std::string(url) + "\": " + reason +
                     ", expected coap://host:port or coaps://host:port, with an optional /name");
}

std::uint16_t parsePort(std::string_view url, std::string_view text) {
    unsigned port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535)
        badUrl(url, "the port is not a number from 1 to 65535");
    return static_cast<std::uint16_t>(port);
}

bool isNameCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
}

} // namespace

std::string Endpoint::url() const {
    const bool bracketed = host.find(':') != std::string::npos;
    return (secure ? "coaps://" : "coap://") + (bracketed ? "[" + host + "]" : host) + ":" +
           std::to_string(port) + "/" + proxyName;
}

bool Endpoint::isLoopback() const {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

Endpoint parseUrl(std::string_view url) {
    Endpoint endpoint;
    std::string_view rest = url;
    if (rest.rfind("coaps://", 0) == 0) {
        endpoint.secure = true;
        rest.remove_prefix(8);
    } else if (rest.rfind("coap://", 0) == 0) {
        rest.remove_prefix(7);
    } else {
        badUrl(url, "it begins with neither coap:// nor coaps://");
    }

    const std::size_t slash = rest.find('/');
    std::string_view name = slash == rest.npos ? "" : rest.substr(slash + 1);
    if (!name.empty() && name.back() == '/')
        name.remove_suffix(1);
    if (!std::all_of(name.begin(), name.end(), isNameCharacter))
        badUrl(url, "the name may hold letters, digits, '.', '-' and '_' only");
    endpoint.proxyName = name.empty() ? kDefaultProxyName : std::string(name);

    std::string_view authority = rest.substr(0, slash);
    std::size_t colon = authority.rfind(':');
    if (!authority.empty() && authority.front() == '[') {
        const std::size_t bracket = authority.find(']');
        if (bracket == authority.npos)
            badUrl(url, "the address' bracket is not closed");
        endpoint.host = authority.substr(1, bracket - 1);
        colon = authority.find(':', bracket);
        if (bracket + 1 != authority.size() && colon != bracket + 1)
            badUrl(url, "only a port may follow the address' bracket");
    } else {
        endpoint.host = authority.substr(0, colon);
        if (endpoint.host.find(':') != std::string::npos)
            badUrl(url, "an IPv6 address belongs in brackets");
    }
    if (endpoint.host.empty())
        badUrl(url, "the host is missing");
    endpoint.port = colon == authority.npos ? (endpoint.secure ? kCoapsPort : kCoapPort)
                                            : parsePort(url, authority.substr(colon + 1));
    return endpoint;
}

Credentials readCredentials(const std::string &path, const std::string &identity) {
    const auto fail = [&path](const std::string &reason) -> CommandFailed {
        return CommandFailed("--psk-file " + path + ": " + reason);
    };
    const auto read = platform::readPskFile(path);
    if (const auto *error = std::get_if<platform::PskError>(&read))
        throw fail(error->text + "; give a file of this user alone with lines identity:hex key");
    const auto &keys = std::get<platform::PskKeys>(read);
    if (identity.empty() && keys.size() > 1)
        throw fail("it holds " + std::to_string(keys.size()) +
                   " identities; choose one with --identity NAME");
    const auto found = identity.empty() ? keys.begin() : keys.find(identity);
    if (found == keys.end())
        throw fail("it holds no key for --identity " + identity +
                   "; use an identity that it holds");
    return {found->first, found->second};
}

} // namespace corvane::client
