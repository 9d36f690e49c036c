/*
 * The rules. A name of another site that leads to our address (rebinding) shows in Host; a form or
 * script of another site shows in Origin, and cannot send X-Corvane without being asked first.
 */
#include "http_guard.h"

#include "status.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fstream>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

constexpr std::size_t kMinPassword = 8;
constexpr std::size_t kMaxPassword = 200;

bool isAddress(const std::string &host) {
    std::array<std::uint8_t, 16> ignored{};
    return inet_pton(AF_INET, host.c_str(), ignored.data()) == 1 ||
           inet_pton(AF_INET6, host.c_str(), ignored.data()) == 1;
}

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string base64(const std::string &text) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t i = 0; i < text.size(); i += 3) {
        std::uint32_t bits = 0;
        for (std::size_t j = 0; j < 3; ++j)
            bits = bits << 8 | (i + j < text.size() ? static_cast<std::uint8_t>(text[i + j]) : 0U);
        for (std::size_t j = 0; j < 4; ++j)
            encoded += i + j > text.size() ? '=' : kDigits[bits >> (18 - 6 * j) & 63U];
    }
    return encoded;
}

} // namespace

bool ListenPlace::isLoopback() const {
    std::array<std::uint8_t, 4> v4{};
    return host == "localhost" || host == "::1" ||
           (inet_pton(AF_INET, host.c_str(), v4.data()) == 1 && v4[0] == 127);
}

bool ListenPlace::isEverywhere() const { return host == "0.0.0.0" || host == "::"; }

std::string ListenPlace::text() const {
    const bool isV6 = host.find(':') != std::string::npos;
    return (isV6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<ListenPlace> parseListenPlace(const std::string &text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return std::nullopt;
    ListenPlace place;
    place.host = text.substr(0, colon);
    if (place.host.front() == '[' && place.host.back() == ']')
        place.host = place.host.substr(1, place.host.size() - 2);
    else if (place.host.find_first_of(":[]") != std::string::npos)
        return std::nullopt;
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data() + colon + 1, end, place.port);
    if (result.ec != std::errc() || result.ptr != end || place.port < 0 || place.port > 65535)
        return std::nullopt;
    return place;
}

bool sameSecret(std::string_view left, std::string_view right) {
    // The length of what was sent is no secret; that of the other must not show.
    unsigned difference = left.size() == right.size() ? 0U : 1U;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const char other = right.empty() ? '\0' : right[i % right.size()];
        difference |= static_cast<std::uint8_t>(left[i]) ^ static_cast<std::uint8_t>(other);
    }
    return difference == 0;
}

std::string readPasswordFile(const std::string &path, std::string &password) {
    const std::string what = "the password file " + platform::inQuotes(path, 200);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return platform::systemFailure(errno, what + " cannot be read").text;
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid())
        return what + " is not a file of this user; make one of your own";
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return what + " can be read by others; close it with chmod 600";
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) || line.size() < kMinPassword || line.size() > kMaxPassword)
        return what + " does not begin with a line of 8 to 200 characters";
    password = line;
    return "";
}

HttpGuard::HttpGuard(ListenPlace place, std::optional<std::string> password)
    : place_(std::move(place)),
      authorization_(password
                         ? std::optional("Basic " + base64(std::string(kUser) + ":" + *password))
                         : std::nullopt) {}

bool HttpGuard::isOurs(const std::string &host) const {
    auto named = parseListenPlace(host);
    if (!named && host.find(']') == std::string::npos)
        named = parseListenPlace(host + ":80"); // what a browser leaves out
    if (!named || named->port != place_.port)
        return false;
    if (named->isLoopback() || named->host == place_.host)
        return true;
    // Only a name can be made to lead elsewhere.
    return place_.isEverywhere() && (isAddress(named->host) || named->host == machineName());
}

HttpGuard::Verdict HttpGuard::judgePassword(const Asker &asker, PasswordTries::Moment now) const {
    if (!authorization_)
        return {};
    const bool isRight = sameSecret(asker.authorization, *authorization_);
    // A browser asks without one first.
    if (!asker.authorization.empty())
        if (const auto wait = tries_.tried(asker.address, isRight, now); wait.count() > 0)
            return {429,
                    "too many wrong passwords from this address, try again in " +
                        std::to_string(wait.count()) + " s",
                    wait};
    if (!isRight)
        return {401, "a password is needed: user corvane and the line of the password file"};
    return {};
}

HttpGuard::Verdict HttpGuard::judge(const Asker &asker, PasswordTries::Moment now) const {
    if (!isOurs(asker.host))
        return {403,
                "Host: this is not " + platform::inQuotes(asker.host) + ", use " + place_.text()};
    if (Verdict verdict = judgePassword(asker, now); verdict.status != 200)
        return verdict;
    if (!asker.changesState)
        return {};
    if (!asker.origin.empty() && asker.origin != "http://" + asker.host &&
        asker.origin != "https://" + asker.host)
        return {403,
                "Origin: " + platform::inQuotes(asker.origin) + " may not change anything here"};
    if (asker.corvane != "1")
        return {403, "X-Corvane: missing, a request that changes something needs the header "
                     "X-Corvane: 1"};
    return {};
}

} // namespace corvane::appliance
