/* The datagrams of a small CoAP server; see the header. */
#include "stub_service.h"

#include <array>
#include <csignal>
#include <stdexcept>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane::client {
namespace {

constexpr int kAcknowledgement = 2;
constexpr int kReset = 3;
constexpr int kNonConfirmable = 1;
constexpr int kObserveOption = 6;
constexpr int kUriPathOption = 11;

std::uint8_t byteAt(const std::string &text, std::size_t at) {
    return static_cast<std::uint8_t>(text.at(at));
}

} // namespace

StubService::StubService() {
    socket_ = socket(AF_INET, SOCK_DGRAM, 0);
    stop_ = eventfd(0, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(socket_, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port for the stand-in of the service");
    port_ = ntohs(address.sin_port);
    // A test that sends itself SIGINT means its watch, never this thread.
    sigset_t signals;
    sigset_t before;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    thread_ = std::thread([this] { serve(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

StubService::~StubService() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(socket_);
    close(stop_);
}

std::string StubService::url() const { return "coap://127.0.0.1:" + std::to_string(port_); }

void StubService::answer(const std::string &resource, const Answer &answer) {
    this->answer(resource, std::vector<Answer>{answer});
}

void StubService::answer(const std::string &resource, const std::vector<Answer> &answers) {
    const std::lock_guard lock(mutex_);
    answers_["KestProxyTest/" + resource] = answers;
}

void StubService::notify(const std::string &resource, const Answer &answer) {
    const std::lock_guard lock(mutex_);
    const std::string path = "KestProxyTest/" + resource;
    answers_[path] = {answer};
    if (const auto observer = observers_.find(path); observer != observers_.end())
        send(kNonConfirmable, answer.code, nextId_++, observer->second.token, answer, true,
             observer->second.peer);
}

std::vector<StubService::Request> StubService::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void StubService::serve() {
    while (true) {
        std::array<pollfd, 2> fds{{{socket_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        poll(fds.data(), fds.size(), -1);
        if ((fds[1].revents & POLLIN) != 0)
            return;
        std::array<char, 2048> buffer{};
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const ssize_t size = recvfrom(socket_, buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr *>(&peer), &length);
        if (size >= 4)
            handle({buffer.data(), static_cast<std::size_t>(size)}, peer);
    }
}

void StubService::handle(const std::string &datagram, const sockaddr_in &peer) {
    const std::size_t tokenLength = byteAt(datagram, 0) & 0x0f;
    const int code = byteAt(datagram, 1);
    const auto id = static_cast<std::uint16_t>(byteAt(datagram, 2) << 8 | byteAt(datagram, 3));
    if (code == 0)
        return; // an acknowledgement of ours
    Request request;
    request.isPost = code == 2;
    const std::string token = datagram.substr(4, tokenLength);
    int option = 0;
    std::size_t at = 4 + tokenLength;
    while (at < datagram.size() && byteAt(datagram, at) != 0xff) {
        const std::uint8_t head = byteAt(datagram, at++);
        const auto extended = [&](int value) {
            return value == 13 ? 13 + byteAt(datagram, at++) : value;
        };
        option += extended(head >> 4);
        const auto length = static_cast<std::size_t>(extended(head & 0x0f));
        const std::string value = datagram.substr(at, length);
        at += length;
        if (option == kUriPathOption)
            request.path += (request.path.empty() ? "" : "/") + value;
        if (option == kObserveOption)
            request.observes = true;
    }
    if (at < datagram.size())
        request.payload = datagram.substr(at + 1);

    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (request.observes)
        observers_[request.path] = {peer, token};
    Answer answer{404, "", 60};
    if (auto found = answers_.find(request.path); found != answers_.end()) {
        answer = found->second.front();
        if (found->second.size() > 1)
            found->second.erase(found->second.begin());
    }
    if (answer.code == 7)
        send(kReset, 0, id, "", {}, false, peer);
    else if (answer.code != 0)
        send(kAcknowledgement, answer.code, id, token, answer, request.observes, peer);
}

void StubService::send(int type, int code, std::uint16_t id, const std::string &token,
                       const Answer &answer, bool observed, const sockaddr_in &peer) {
    std::string datagram;
    const auto add = [&](int byte) { datagram += static_cast<char>(byte); };
    add(0x40 | type << 4 | static_cast<int>(token.size()));
    add(code / 100 << 5 | code % 100);
    add(id >> 8);
    add(id & 0xff);
    datagram += token;
    if (code != 0) {
        int option = 0;
        const auto addOption = [&](int number, int value) {
            add((number - option) << 4 | 1);
            add(value);
            option = number;
        };
        if (observed && code == 205)
            addOption(kObserveOption, nextId_++ & 0x7f);
        addOption(12, 50);
        if (answer.maxAgeSec != 60) {
            add(2 << 4 | 1); // Max-Age is option 14
            add(answer.maxAgeSec);
        }
        if (!answer.payload.empty()) {
            add(0xff);
            datagram += answer.payload;
        }
    }
    sendto(socket_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
           sizeof peer);
}

} // namespace corvane::client
