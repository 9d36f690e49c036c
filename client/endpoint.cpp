/*
 * Reading of --url and --psk-file. Both are small enough to be read by hand, which lets every
 * message name the part that is wrong.
 */
#include "endpoint.h"

#include "errors.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <system_error>

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

std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text) {
    if (text.empty() || text.size() % 2 != 0)
        return std::nullopt;
    std::vector<std::uint8_t> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char *digits = text.data() + 2 * i;
        const auto [end, error] = std::from_chars(digits, digits + 2, bytes[i], 16);
        if (error != std::errc() || end != digits + 2)
            return std::nullopt;
    }
    return bytes;
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

Credentials readCredentials(std::istream &lines, const std::string &name,
                            const std::string &identity) {
    std::vector<Credentials> found;
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line.front() == '#')
            continue;
        const std::size_t colon = line.rfind(':');
        std::optional<std::vector<std::uint8_t>> key;
        if (colon != std::string::npos && colon > 0)
            key = parseHex(std::string_view(line).substr(colon + 1));
        if (!key)
            throw CommandFailed("--psk-file " + name + ": line " + std::to_string(number) +
                                " is not of the form identity:hex key; correct the line");
        if (identity.empty() || line.compare(0, colon, identity) == 0)
            found.push_back({line.substr(0, colon), *key});
    }
    if (found.empty() && identity.empty())
        throw CommandFailed("--psk-file " + name +
                            ": it holds no key; add a line of the form identity:hex key");
    if (found.empty())
        throw CommandFailed("--psk-file " + name + ": it holds no key for --identity " + identity +
                            "; use an identity that it holds");
    if (found.size() > 1 && identity.empty())
        throw CommandFailed("--psk-file " + name + ": it holds " + std::to_string(found.size()) +
                            " identities; choose one with --identity NAME");
    return found.front();
}

Credentials readCredentialsFile(const std::string &path, const std::string &identity) {
    std::ifstream file(path);
    if (!file)
        throw CommandFailed("--psk-file " + path +
                            ": cannot be opened: " + std::generic_category().message(errno) +
                            "; give a file that this user may read");
    return readCredentials(file, path, identity);
}

} // namespace corvane::client
