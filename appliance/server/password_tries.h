/*
 * Makes guessing of the password slow without making anybody wait in a thread: an address that has
 * been wrong too often within a minute is answered at once that it has to come back later, whatever
 * it sends. That way a stranger learns the worth of few guesses a minute, however many connections
 * he opens.
 */
#ifndef CORVANE_APPLIANCE_SERVER_PASSWORD_TRIES_H
#define CORVANE_APPLIANCE_SERVER_PASSWORD_TRIES_H

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace corvane::appliance {

/* Every function may be called from any thread. */
class PasswordTries {
public:
    using Moment = std::chrono::steady_clock::time_point;

    static constexpr int kWrongAMinute = 5;
    static constexpr std::chrono::seconds kMinute{60};
    /* So many addresses are remembered; the one that began longest ago makes place for another. */
    static constexpr std::size_t kMostAddresses = 1'000;

    /*
     * A password came from the address, an IPv4 or IPv6 one as text. Gives 0 seconds when it may
     * be judged, else how long the address has to wait; it must not be told then whether the
     * password was right.
     */
    std::chrono::seconds tried(const std::string &address, bool isRight, Moment now);

private:
    struct Minute {
        Moment began;
        int wrong = 0;
    };
    void makePlace(Moment now);

    std::mutex mutex_;
    std::map<std::string, Minute> minutes_; // by network, guarded by mutex_
};

} // namespace corvane::appliance

#endif
