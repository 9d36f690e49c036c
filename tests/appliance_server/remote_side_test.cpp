/* The remote side, in front of a service that does what the test says: a socket. */
#include "remote_side.h"

#include <gmock/gmock.h>

#include <array>
#include <future>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

/* The service: the request that came last, and the answers to it. */
class SocketService {
public:
    SocketService() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *any = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(fd_, any, size), 0);
        EXPECT_EQ(getsockname(fd_, any, &size), 0);
        port_ = ntohs(address.sin_port);
    }
    ~SocketService() { close(fd_); }
    SocketService(const SocketService &) = delete;
    SocketService &operator=(const SocketService &) = delete;

    client::Endpoint endpoint() const {
        return client::parseUrl("coap://127.0.0.1:" + std::to_string(port_));
    }

    /* Waits for a request. */
    void receive() {
        socklen_t size = sizeof asker_;
        length_ = recvfrom(fd_, request_.data(), request_.size(), 0,
                           reinterpret_cast<sockaddr *>(&asker_), &size);
        ASSERT_GE(length_, 4);
    }

    bool hasNothing() { return recv(fd_, request_.data(), request_.size(), MSG_DONTWAIT) < 0; }

    /* 2.05 with a JSON text, in the acknowledgement: the head with its token is the request's. */
    void answer(const std::string &json) {
        const auto tokenSize = static_cast<std::size_t>(request_[0] & 0x0f);
        std::string text(request_.data(), 4 + tokenSize);
        text[0] = static_cast<char>(0x60 | tokenSize);
        text[1] = 0x45;
        text += "\xc1\x32\xff" + json; // content-format 50
        EXPECT_EQ(sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&asker_),
                         sizeof asker_),
                  static_cast<ssize_t>(text.size()));
    }

private:
    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int port_ = 0;
    sockaddr_in asker_{};
    std::array<char, 2048> request_{};
    ssize_t length_ = 0;
};

TEST(RemoteSideTest, AnswerOfAnotherFormTellsNothing) {
    SocketService service;
    RemoteSide remote(service.endpoint(), std::nullopt);
    remote.requestLater("GetEnergyConsumption",
                        [](const Answer &answer) { (void)answer.body.value("monthly", ""); });
    service.receive();
    service.answer(R"({"monthly": 7})");
    // The thread is still there for the next one.
    std::promise<int> code;
    remote.requestLater("GetEnergyConsumption",
                        [&](const Answer &answer) { code.set_value(answer.code); });
    service.receive();
    service.answer("{}");
    EXPECT_EQ(code.get_future().get(), 205);
}

TEST(RemoteSideTest, StopWaitsForTheRequestUnderWayAlone) {
    SocketService service;
    RemoteSide remote(service.endpoint(), std::nullopt);
    std::promise<int> first;
    auto isDropped = std::make_shared<std::promise<void>>();
    auto dropped = isDropped->get_future();
    bool hasAnswered = false;
    remote.requestLater("GetDelayDefrost",
                        [&](const Answer &answer) { first.set_value(answer.code); });
    service.receive();
    remote.requestLater("GetDelayDefrost",
                        [&, kept = std::move(isDropped)](const Answer &) { hasAnswered = true; });
    const auto stopped = std::async(std::launch::async, [&] { remote.stop(); });
    dropped.wait(); // its task is gone, and what it kept
    service.answer("{}");
    stopped.wait();
    EXPECT_EQ(first.get_future().get(), 205);
    EXPECT_FALSE(hasAnswered);
    EXPECT_TRUE(service.hasNothing());
}

} // namespace
} // namespace corvane::appliance
