// See live_proxy.h.
#include "live_proxy.h"

#include <arpa/inet.h>
#include <array>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlog.h>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace corvane::test {

namespace {

std::mutex logMutex;
std::vector<std::string> logLines; // guarded by logMutex

std::mutex gateMutex;
std::condition_variable gateChanged;
bool isGateClosed = false; // guarded by gateMutex
int gateCalls = 0;         // guarded by gateMutex

} // namespace

std::uint16_t freePort() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0)
        std::abort();
    close(fd);
    return ntohs(address.sin_port);
}

std::vector<std::string> takeLogLines() {
    const std::lock_guard lock(logMutex);
    return std::exchange(logLines, {});
}

LiveProxy::LiveProxy() {
    Gate::reset();
    std::string problem = "not tried";
    for (int attempt = 0; attempt < 10 && !problem.empty(); ++attempt) {
        port_ = freePort();
        proxy_ = std::make_unique<platform::Proxy>([this] {
            return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(now_.load()));
        });
        problem = proxy_->prepare("127.0.0.1:" + std::to_string(port_), "");
    }
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
    for (const platform::Command &command : platform::allCommands())
        proxy_->declare(command.name, static_cast<int>(command.kind));
    proxy_->init("house");
    proxy_->start();
    proxy_->publish();
    // Publishing is done on the server's thread; the last resource of the table is the last to
    // come.
    CoapClient client(port_);
    while (client.ask(client.request(kGet, "house/SendDefrostReservationsNotify")).code == 404)
        continue;
    takeLogLines();
}

void Gate::close() {
    const std::lock_guard lock(gateMutex);
    isGateClosed = true;
}

void Gate::open() {
    {
        const std::lock_guard lock(gateMutex);
        isGateClosed = false;
    }
    gateChanged.notify_all();
}

void Gate::waitForCall(int n) {
    std::unique_lock lock(gateMutex);
    gateChanged.wait(lock, [n] { return gateCalls >= n; });
}

void Gate::reset() {
    const std::lock_guard lock(gateMutex);
    isGateClosed = false;
    gateCalls = 0;
}

int Gate::calls() {
    const std::lock_guard lock(gateMutex);
    return gateCalls;
}

int Gate::handler(int) {
    std::unique_lock lock(gateMutex);
    ++gateCalls;
    gateChanged.notify_all();
    gateChanged.wait(lock, [] { return !isGateClosed; });
    return 1;
}

} // namespace corvane::test

int __dlog_print(log_id_t, int prio, const char *tag, const char *fmt, ...) {
    std::array<char, 2048> text{};
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text.data(), text.size(), fmt, arguments);
    va_end(arguments);
    const std::lock_guard lock(corvane::test::logMutex);
    corvane::test::logLines.push_back(std::to_string(prio) + ' ' + tag + ": " + text.data());
    return 0;
}
