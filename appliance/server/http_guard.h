/*
 * Who may ask: the rules that keep other sites' pages, rebound names and strangers out. They look
 * at the request's headers alone, and count the wrong passwords of an address.
 */
#ifndef CORVANE_APPLIANCE_SERVER_HTTP_GUARD_H
#define CORVANE_APPLIANCE_SERVER_HTTP_GUARD_H

#include "password_tries.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::appliance {

struct ListenPlace {
    std::string host; // a name or address, an IPv6 one without its brackets
    int port = 0;     // 0: any that is free

    bool isLoopback() const;
    /* 0.0.0.0 or [::]: every address of the machine. */
    bool isEverywhere() const;
    /* host:port as it stands in a URL. */
    std::string text() const;
};

/* Reads host:port or [address]:port; nothing when it is neither. */
std::optional<ListenPlace> parseListenPlace(const std::string &text);

/* Compares in a time that does not tell where two texts differ. */
bool sameSecret(std::string_view left, std::string_view right);

/*
 * Reads the password: the first line of a file that belongs to this user, is closed to everybody
 * else, and holds 8 to 200 characters. Gives the one line that says what is wrong, password is then
 * untouched; empty when done.
 */
std::string readPasswordFile(const std::string &path, std::string &password);

/* The headers that matter; empty texts for those that are not there. */
struct Asker {
    std::string host{};
    std::string origin{};
    std::string corvane{}; // X-Corvane
    std::string authorization{};
    std::string address{}; // where the request comes from
    bool changesState = false;
};

class HttpGuard {
public:
    static constexpr const char *kUser = "corvane";

    /* password: none is asked for without one. */
    HttpGuard(ListenPlace place, std::optional<std::string> password);

    struct Verdict {
        int status = 200; // 200, 401, 403 or 429
        std::string reason{};
        std::chrono::seconds retryAfter{}; // of a 429
    };
    /* From any thread. */
    Verdict judge(const Asker &asker,
                  PasswordTries::Moment now = std::chrono::steady_clock::now()) const;

private:
    bool isOurs(const std::string &host) const;
    Verdict judgePassword(const Asker &asker, PasswordTries::Moment now) const;

    const ListenPlace place_;
    const std::optional<std::string> authorization_; // the header that is expected
    mutable PasswordTries tries_;
};

} // namespace corvane::appliance

#endif
