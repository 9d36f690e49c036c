// How fast the remote proxy answers: ControlOverride requests over UDP on loopback, first one at a
// time (latency), then with many in flight (throughput). With a port it loads the service that
// listens there; without one it forks a proxy of its own whose handler answers at once, so that the
// figures are those of the proxy alone.
#include "percentiles.h"

#include "proxy/lifecycle.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlog.h>
#include <netinet/in.h>
#include <ocf_proxy.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

// NOLINTBEGIN(concurrency-mt-unsafe): the client has one thread, and so has the proxy's process
// while it uses its environment

// The proxy's log lines have no place in the figures.
int __dlog_print(log_id_t, int, const char *, const char *, ...) { return 0; }

namespace {

using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

constexpr std::uint16_t kOwnPort = 45683;
constexpr std::size_t kTokenSize = 4;
constexpr int kAnswerTimeoutMs = 2000;

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "coap_load: %s\n", what.c_str());
    std::exit(1);
}

// A confirmable POST /KestProxyTest/ControlOverride {"override":1}; the number is message id and
// token in one.
std::vector<std::uint8_t> requestDatagram(std::uint32_t number) {
    std::vector<std::uint8_t> datagram{0x40 | kTokenSize, 0x02,
                                       static_cast<std::uint8_t>(number >> 8),
                                       static_cast<std::uint8_t>(number)};
    for (const int shift : {24, 16, 8, 0})
        datagram.push_back(static_cast<std::uint8_t>(number >> shift));
    const auto append = [&](std::string_view text) {
        datagram.insert(datagram.end(), text.begin(), text.end());
    };
    append("\xbd"); // Uri-Path (11), 13 bytes: the length is 13 plus the next byte
    datagram.push_back(0);
    append("KestProxyTest");
    append("\x0d"); // Uri-Path again
    datagram.push_back(2);
    append("ControlOverride");
    append("\xff{\"override\":1}");
    return datagram;
}

// The number of the request that this answers, when it is a 2.04 that carries our token.
std::int64_t answeredNumber(const std::uint8_t *datagram, ssize_t size) {
    if (size < 8 || datagram[0] != (0x60 | kTokenSize) || datagram[1] != 0x44)
        fail("got an answer that is not 2.04 on an acknowledgement");
    return static_cast<std::int64_t>(datagram[4]) << 24 | datagram[5] << 16 | datagram[6] << 8 |
           datagram[7];
}

struct Figures {
    std::vector<double> micros;
    double requestsPerSec;
};

// Sends count requests with at most window of them unanswered.
Figures load(int fd, std::uint32_t firstNumber, std::uint32_t count, std::uint32_t window) {
    std::vector<Clock::time_point> sentAt(count);
    std::vector<double> micros;
    std::array<std::uint8_t, 1500> answer{};
    const auto start = Clock::now();
    for (std::uint32_t sent = 0; micros.size() < count;) {
        for (; sent < count && sent - micros.size() < window; ++sent) {
            const auto datagram = requestDatagram(firstNumber + sent);
            sentAt[sent] = Clock::now();
            if (send(fd, datagram.data(), datagram.size(), 0) < 0)
                fail(std::string("cannot send: ") + std::generic_category().message(errno));
        }
        const ssize_t size = recv(fd, answer.data(), answer.size(), 0);
        if (size < 0)
            fail("no answer within 2 s, " + std::to_string(micros.size()) + " came before");
        const std::int64_t number = answeredNumber(answer.data(), size);
        micros.push_back(
            Micros(Clock::now() - sentAt[static_cast<std::size_t>(number - firstNumber)]).count());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return {std::move(micros), count / seconds};
}

void print(const char *name, Figures figures) {
    corvane::bench::printPercentiles(name, figures.micros);
    std::printf("%-44s %7.0f requests/s\n", name, figures.requestsPerSec);
}

// The child's whole life: a proxy with one handler, until its parent ends it.
[[noreturn]] void serve(int readyFd) {
    sigset_t endSignal;
    sigemptyset(&endSignal);
    sigaddset(&endSignal, SIGTERM);
    sigprocmask(SIG_BLOCK, &endSignal, nullptr);
    setenv("CORVANE_COAP_LISTEN", ("127.0.0.1:" + std::to_string(kOwnPort)).c_str(), 1);
    unsetenv("CORVANE_COAP_PSK_FILE");
    const std::string problem = corvane::platform::prepareProxy();
    if (!problem.empty())
        fail(problem);
    KestAddProxyCommands("ControlOverride", 1);
    KestRegisterControlOverrideFunc([](int) { return 1; });
    KestInitProxy("KestProxyTest");
    KestStart();
    KestSendSetProxyCmds();
    (void)!write(readyFd, "", 1);
    int received = 0;
    sigwait(&endSignal, &received);
    corvane::platform::closeProxy();
    std::exit(0);
}

pid_t startOwnProxy() {
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0)
        fail(std::generic_category().message(errno));
    const pid_t child = fork();
    if (child == 0)
        serve(ready[1]);
    close(ready[1]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1)
        fail("the proxy did not start");
    close(ready[0]);
    return child;
}

} // namespace

int main(int argc, char **argv) {
    std::uint16_t port = argc == 1 ? kOwnPort : 0;
    if (argc == 2)
        std::from_chars(argv[1], argv[1] + std::string_view(argv[1]).size(), port);
    if (port == 0) {
        std::fprintf(stderr, "usage: coap_load [PORT]\n"
                             "PORT: of a service on 127.0.0.1; without it a proxy is started\n");
        return 2;
    }
    const pid_t child = argc == 2 ? 0 : startOwnProxy();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const timeval timeout{kAnswerTimeoutMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        fail(std::generic_category().message(errno));

    load(fd, 0, 1000, 1); // caches and clocks warm up
    print("one at a time", load(fd, 1000, 20000, 1));
    print("8 in flight", load(fd, 100000, 50000, 8));
    print("64 in flight", load(fd, 200000, 100000, 64));

    close(fd);
    if (child != 0) {
        kill(child, SIGTERM);
        waitpid(child, nullptr, 0);
    }
    return 0;
}

// NOLINTEND(concurrency-mt-unsafe)
