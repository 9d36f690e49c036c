// The CoAP side of the proxy: one thread that owns everything of libcoap, which has no locks of its
// own. Other threads reach it only through post(), which queues a closure and wakes it.
//
// A request of a command resource goes to the sink as a Message. Its answer either comes back at
// once or later, from any thread; it is sent on the acknowledgement of the request as long as the
// client did not have to repeat itself, and as a message of its own after that.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_COAP_SERVER_H
#define CORVANE_PLATFORM_LINUX_PROXY_COAP_SERVER_H

#include "../psk_file.h"
#include "exchange_table.h"
#include "listen_address.h"
#include "wire.h"

#include <array>
#include <coap3/coap.h>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace corvane::platform {

using Reply = std::function<void(Response)>;

// What the server asks, always on its own thread.
class RequestSink {
public:
    virtual ~RequestSink() = default;

    // A request of a command resource. Answers the response, or nothing when the reply is called
    // with it later: exactly once, on any thread.
    virtual std::optional<Response> handleMessage(const Message &message, const Reply &reply) = 0;

    // The present value of a notification.
    virtual std::string notificationValue(CommandId id, Format format) = 0;
};

class CoapServer {
public:
    // now: the clock of the exchanges (see exchange_table.h).
    CoapServer(RequestSink &sink, std::function<ExchangeTable::Clock::time_point()> now);
    ~CoapServer();
    CoapServer(const CoapServer &) = delete;
    CoapServer &operator=(const CoapServer &) = delete;

    // Binds the address; with keys it speaks DTLS there and nothing else. Answers an empty text, or
    // why it could not.
    [[nodiscard]] std::string open(const ListenAddress &address, PskKeys keys);

    // Starts the thread. From here on requests are answered.
    void start();

    // Adds the resources /<prefix>/<command name>. From any thread.
    void publish(const std::string &prefix, std::vector<CommandId> commands);

    // Tells the watchers of a notification that its value has changed. From any thread; only
    // queues.
    void announce(CommandId id);

    // Sends what is queued, ends the thread and closes the socket.
    void stop();

private:
    struct Resource {
        CoapServer *server;
        const Command *command;
        coap_resource_t *resource;
    };
    // Where the answer to one request goes.
    struct Requester {
        coap_session_t *session; // referenced until the answer is sent
        coap_pdu_type_t type;
        coap_mid_t mid;
        std::string token;
        std::string exchangeKey;
    };

    void post(std::function<void()> closure);
    void run();
    unsigned prepareToWait();
    void runPosted();
    void addResource(const std::string &prefix, CommandId id);

    static void onRequest(coap_resource_t *resource, coap_session_t *session,
                          const coap_pdu_t *request, const coap_string_t *query,
                          coap_pdu_t *response);
    static void onUnknown(coap_resource_t *resource, coap_session_t *session,
                          const coap_pdu_t *request, const coap_string_t *query,
                          coap_pdu_t *response);
    static int onEvent(coap_session_t *session, coap_event_t event);
    static const coap_bin_const_t *onIdentity(coap_bin_const_t *identity, coap_session_t *session,
                                              void *server);
    void handleNotificationRead(const Command &command, coap_session_t *session,
                                const coap_pdu_t *request, coap_pdu_t *response);
    bool admitWatch(coap_session_t *session, const coap_pdu_t *request);
    void handleCommand(const Command &command, coap_session_t *session, const coap_pdu_t *request,
                       coap_pdu_t *response);
    void finish(const Requester &requester, Response answer);
    void send(const Requester &requester, const Response &answer, bool isAcknowledged);

    RequestSink &sink_;

    // Constant from open() to stop(); the descriptor lives as long as the server.
    coap_context_t *context_ = nullptr;
    int wakeFd_ = -1;
    PskKeys keys_;

    std::thread thread_;

    std::mutex mutex_;
    std::vector<std::function<void()>> posted_;   // guarded by mutex_
    std::array<bool, kCommandCount> announced_{}; // guarded by mutex_: waits to be told

    // Of the server's thread, as is everything of libcoap while it runs.
    bool isEnding_ = false;
    std::array<std::unique_ptr<Resource>, kCommandCount> resources_;
    ExchangeTable exchanges_;
    std::unordered_map<const coap_session_t *, std::set<std::string>> watches_; // see admitWatch()
    std::size_t watchCount_ = 0;
    coap_bin_const_t offeredKey_{};
};

} // namespace corvane::platform

#endif
