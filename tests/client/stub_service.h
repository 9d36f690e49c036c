/*
 * A service for tests of the client: a UDP socket on a port of its own that answers what it was
 * told to. It writes its datagrams by hand, so that it can also be silent, slow to begin or wrong.
 */
#ifndef CORVANE_TESTS_CLIENT_STUB_SERVICE_H
#define CORVANE_TESTS_CLIENT_STUB_SERVICE_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>

namespace corvane::client {

class StubService {
public:
    struct Answer {
        int code = 205; // 0: none at all; 7: a reset
        std::string payload;
        std::uint8_t maxAgeSec = 60;
    };
    struct Request {
        std::string path; // "KestProxyTest/ControlDRLC"
        bool isPost = false;
        bool observes = false;
        std::string payload;
    };

    StubService();
    ~StubService();
    StubService(const StubService &) = delete;
    StubService &operator=(const StubService &) = delete;

    std::string url() const;

    /* What the resource answers from now on; 4.04 before. */
    void answer(const std::string &resource, const Answer &answer);
    /* The next answers, one each; the last one stays. */
    void answer(const std::string &resource, const std::vector<Answer> &answers);
    /* The same, and at once to whoever observes the resource. */
    void notify(const std::string &resource, const Answer &answer);

    std::vector<Request> requests() const;

private:
    struct Observer {
        sockaddr_in peer{};
        std::string token;
    };

    void serve();
    void handle(const std::string &datagram, const sockaddr_in &peer);
    void send(int type, int code, std::uint16_t id, const std::string &token, const Answer &answer,
              bool observed, const sockaddr_in &peer);

    int socket_ = -1; // constant after construction
    int stop_ = -1;   // constant after construction
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<Answer>> answers_; // guarded by mutex_
    std::map<std::string, Observer> observers_;          // guarded by mutex_
    std::vector<Request> requests_;                      // guarded by mutex_
    std::uint16_t nextId_ = 1;                           // guarded by mutex_
    std::thread thread_;
};

} // namespace corvane::client

#endif
