/*
 * A CoAP client for one service: blocking requests, and a session that observes several resources.
 *
 * One object is one libcoap context with one session, used by one thread. What the network says
 * (nobody there, no answer, wrong key) becomes an exception with the line for the user; what the
 * service says, also a refusal, is a Reply.
 */
#ifndef CORVANE_CLIENT_COAP_CLIENT_H
#define CORVANE_CLIENT_COAP_CLIENT_H

#include "endpoint.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <coap3/coap.h>

namespace corvane::client {

struct Reply {
    int code = 0;        // as people write it without the point: 205, 409, 503
    std::string payload; // as received
    std::uint32_t maxAgeSec = 60;

    bool isGood() const { return code / 100 == 2; }
    /* The payload as an object; an empty object when it is none. */
    nlohmann::json object() const;
};

class CoapClient {
public:
    /* Resolves the host and opens the session; a DTLS handshake only starts here. Throws
     * Unreachable or CommandFailed. */
    CoapClient(const Endpoint &endpoint, const std::optional<Credentials> &credentials,
               double timeoutSec);
    CoapClient(const CoapClient &) = delete;
    CoapClient &operator=(const CoapClient &) = delete;

    const Endpoint &endpoint() const { return endpoint_; }

    /* Sends and waits for the reply, at most the time-out. Throws Unreachable. */
    Reply get(const std::string &resource);
    Reply post(const std::string &resource, const nlohmann::json &body);

    using Deliver = std::function<void(const std::string &resource, const Reply &reply)>;

    /*
     * Observes the resources: delivers each one's present state, then every notification, until
     * stopFd becomes readable. Each refreshSec the present states are asked for and delivered
     * again, which notices a service that has gone, one that was started anew, and notifications
     * that the network has lost. Throws Unreachable when a state stays unanswered for the time-out,
     * and whatever deliver throws.
     */
    void observe(const std::vector<std::string> &resources, double refreshSec, int stopFd,
                 const Deliver &deliver);

private:
    using Clock = std::chrono::steady_clock;

    static coap_response_t onResponse(coap_session_t *session, const coap_pdu_t *sent,
                                      const coap_pdu_t *received, coap_mid_t mid);
    static void onNack(coap_session_t *session, const coap_pdu_t *sent, coap_nack_reason_t reason,
                       coap_mid_t mid);
    static int onEvent(coap_session_t *session, coap_event_t event);

    Reply request(coap_pdu_code_t method, const std::string &resource, const std::string &body);
    std::string newToken();
    void send(coap_pdu_code_t method, const std::string &resource, const std::string &body,
              const std::string &token, bool observe);
    bool wait(Clock::time_point until, int stopFd);
    void throwIfBroken(const std::string &resource) const;
    [[noreturn]] void throwNoAnswer(const std::string &resource) const;

    Endpoint endpoint_;
    double timeoutSec_;
    std::optional<coap_nack_reason_t> broken_; // why the session is of no more use
    struct Arrival {
        std::string token;
        Reply reply;
    };
    std::vector<Arrival> arrivals_; // since the last look; filled by libcoap's callback
    std::unique_ptr<coap_context_t, decltype(&coap_free_context)> context_;
    coap_session_t *session_ = nullptr; // owned by context_
};

} // namespace corvane::client

#endif
