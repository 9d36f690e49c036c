// A whole proxy on a free loopback port of its own, with time in the test's hands, and the log
// lines that it wrote. The handlers of a proxy are plain functions; the few that tests share are
// here.
#ifndef CORVANE_TESTS_PROXY_LIVE_PROXY_H
#define CORVANE_TESTS_PROXY_LIVE_PROXY_H

#include "coap_packet.h"
#include "proxy/proxy.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace corvane::test {

// A port on which nothing listens at this moment.
std::uint16_t freePort();

// The log lines since the last call.
std::vector<std::string> takeLogLines();

class LiveProxy {
public:
    // Serves every command under /house/ when it returns. No handler is installed yet.
    LiveProxy();

    CoapClient client() const { return CoapClient(port_); }
    std::uint16_t port() const { return port_; }
    platform::Proxy &operator*() { return *proxy_; }
    platform::Proxy *operator->() { return proxy_.get(); }

    // Moves the proxy's clock; it stands still otherwise.
    void pass(std::chrono::nanoseconds time) { now_ += time.count(); }

private:
    std::uint16_t port_ = 0;
    std::atomic<std::int64_t> now_ = 0; // ns
    std::unique_ptr<platform::Proxy> proxy_;
};

// A ControlOverride handler that counts its calls and keeps each until a test lets it go.
struct Gate {
    static void close();            // calls wait from here on
    static void open();             // they all go
    static void waitForCall(int n); // until the n-th call since reset() has begun
    static void reset();
    static int calls();
    static int handler(int overrideState); // answers 1
};

} // namespace corvane::test

#endif
