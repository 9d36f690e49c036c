// The remote proxy as a whole: what the functions of <ocf_proxy.h> do, put together from the
// server, the worker, the handlers and the notifications. All functions but prepare() and close()
// may be called from any thread.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_PROXY_H
#define CORVANE_PLATFORM_LINUX_PROXY_PROXY_H

#include "coap_server.h"
#include "handler_worker.h"
#include "handlers.h"
#include "notifications.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace corvane::platform {

class Proxy : private RequestSink {
public:
    // now: the clock of the proxy, for the life of an exchange and the pace of its log lines.
    using Now = std::function<std::chrono::steady_clock::time_point()>;
    explicit Proxy(Now now = std::chrono::steady_clock::now);
    ~Proxy() override { close(); }

    // Checks both settings and binds. keyFile is empty when there is none. Answers an empty text or
    // one line: what failed, why, and which variable to set.
    [[nodiscard]] std::string prepare(const std::string &listenOn, const std::string &keyFile);

    // 0, or -1 when the call does not fit (see <ocf_proxy.h>).
    int declare(const char *command, int kind);
    int init(const char *name);
    int start();
    int publish();
    int notify(CommandId id, const nlohmann::ordered_json &members);

    Handlers &handlers() { return handlers_; }

    void quiesce() { worker_.quiesce(); }
    void close();

private:
    std::optional<Response> handleMessage(const Message &message, const Reply &reply) override;
    std::string notificationValue(CommandId id, Format format) override;
    void logRefusal(const Message &message, const Response &refusal);

    const Now now_;
    Handlers handlers_;
    Notifications notifications_;
    HandlerWorker worker_;
    CoapServer server_;

    std::mutex mutex_;
    std::string name_;                // guarded by mutex_; empty before init()
    std::vector<CommandId> declared_; // guarded by mutex_
    bool isStarted_ = false;          // guarded by mutex_
    bool isClosed_ = false;           // guarded by mutex_

    // Of the server's thread.
    std::chrono::steady_clock::time_point nextRefusalLine_{};
    unsigned unloggedRefusals_ = 0;
};

} // namespace corvane::platform

#endif
