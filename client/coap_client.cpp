/*
 * The client on libcoap. libcoap calls back from within coap_io_process() only, on our thread; its
 * descriptor is polled beside the one that ends a watch, so that neither has to wait for the other.
 */
#include "coap_client.h"

#include "errors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

#include <netdb.h>
#include <poll.h>

namespace corvane::client {
namespace {

std::string secondsText(double seconds) {
    std::ostringstream text;
    text << seconds << " s";
    return text.str();
}

std::chrono::milliseconds toMilliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<long>(seconds * 1000));
}

coap_address_t resolve(const Endpoint &endpoint) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    const std::string port = std::to_string(endpoint.port);
    const int error = getaddrinfo(endpoint.host.c_str(), port.c_str(), &hints, &found);
    if (error != 0)
        throw Unreachable("cannot find the host of " + endpoint.url() + ": " + gai_strerror(error) +
                          "; correct it with --url");
    coap_address_t address;
    coap_address_init(&address);
    address.size = found->ai_addrlen;
    std::memcpy(&address.addr, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    return address;
}

void startLibrary() {
    static const bool started = [] {
        coap_startup();
        coap_set_log_level(LOG_EMERG); // what matters reaches the user as our own line
        return true;
    }();
    static_cast<void>(started);
}

void addOption(coap_optlist_t **options, std::uint16_t number, std::uint32_t value) {
    std::array<std::uint8_t, 4> bytes{};
    const unsigned length = coap_encode_var_safe(bytes.data(), bytes.size(), value);
    coap_insert_optlist(options, coap_new_optlist(number, length, bytes.data()));
}

void addPath(coap_optlist_t **options, const std::string &part) {
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(part.data());
    coap_insert_optlist(options, coap_new_optlist(COAP_OPTION_URI_PATH, part.size(), bytes));
}

Reply toReply(const coap_pdu_t *pdu) {
    Reply reply;
    const int code = coap_pdu_get_code(pdu);
    reply.code = (code >> 5) * 100 + (code & 0x1f);
    std::size_t length = 0;
    std::size_t offset = 0;
    std::size_t total = 0;
    const std::uint8_t *data = nullptr;
    if (coap_get_data_large(pdu, &length, &data, &offset, &total))
        reply.payload.assign(reinterpret_cast<const char *>(data), length);
    coap_opt_iterator_t iterator;
    if (const coap_opt_t *maxAge = coap_check_option(pdu, COAP_OPTION_MAXAGE, &iterator))
        reply.maxAgeSec = coap_decode_var_bytes(coap_opt_value(maxAge), coap_opt_length(maxAge));
    return reply;
}

} // namespace

nlohmann::json Reply::object() const {
    nlohmann::json parsed = nlohmann::json::parse(payload, nullptr, false);
    return parsed.is_object() ? parsed : nlohmann::json::object();
}

CoapClient::CoapClient(const Endpoint &endpoint, const std::optional<Credentials> &credentials,
                       double timeoutSec)
    : endpoint_(endpoint), timeoutSec_(timeoutSec), context_(nullptr, &coap_free_context) {
    startLibrary();
    const coap_address_t address = resolve(endpoint);
    context_.reset(coap_new_context(nullptr));
    if (!context_ || coap_context_get_coap_fd(context_.get()) < 0)
        throw CommandFailed("cannot set up CoAP: libcoap gives no context; install a libcoap with "
                            "epoll, as Debian's is");
    coap_context_set_block_mode(context_.get(), COAP_BLOCK_USE_LIBCOAP | COAP_BLOCK_SINGLE_BODY);
    coap_register_response_handler(context_.get(), onResponse);
    coap_register_nack_handler(context_.get(), onNack);
    coap_register_event_handler(context_.get(), onEvent);
    coap_set_app_data(context_.get(), this);

    if (endpoint.secure) {
        coap_dtls_cpsk_t setup{};
        setup.version = COAP_DTLS_CPSK_SETUP_VERSION;
        const auto *identity = reinterpret_cast<const std::uint8_t *>(credentials->identity.data());
        setup.psk_info.identity = {credentials->identity.size(), identity};
        setup.psk_info.key = {credentials->key.size(), credentials->key.data()};
        session_ = coap_new_client_session_psk2(context_.get(), nullptr, &address, COAP_PROTO_DTLS,
                                                &setup);
    } else {
        session_ = coap_new_client_session(context_.get(), nullptr, &address, COAP_PROTO_UDP);
    }
    if (!session_)
        throw Unreachable("cannot open a session to " + endpoint.url() +
                          ": this machine has no way there; check the network or --url");
    std::array<std::uint8_t, 8> seed{};
    coap_prng(seed.data(), seed.size());
    coap_session_init_token(session_, seed.size(), seed.data());
}

Reply CoapClient::get(const std::string &resource) {
    return request(COAP_REQUEST_CODE_GET, resource, "");
}

Reply CoapClient::post(const std::string &resource, const nlohmann::json &body) {
    return request(COAP_REQUEST_CODE_POST, resource, body.dump());
}

Reply CoapClient::request(coap_pdu_code_t method, const std::string &resource,
                          const std::string &body) {
    const std::string token = newToken();
    send(method, resource, body, token, false);
    const auto deadline = Clock::now() + toMilliseconds(timeoutSec_);
    while (true) {
        for (Arrival &arrival : std::exchange(arrivals_, {}))
            if (arrival.token == token)
                return std::move(arrival.reply);
        throwIfBroken(resource);
        if (Clock::now() >= deadline)
            throwNoAnswer(resource);
        wait(deadline, -1);
    }
}

void CoapClient::observe(const std::vector<std::string> &resources, double refreshSec, int stopFd,
                         const Deliver &deliver) {
    std::map<std::string, std::string> resourceByToken;
    for (const std::string &resource : resources)
        resourceByToken[newToken()] = resource;
    std::set<std::string> unanswered;
    const auto timeout = toMilliseconds(timeoutSec_);
    const auto refresh = toMilliseconds(refreshSec);
    Clock::time_point asked = Clock::now() - refresh;
    while (true) {
        if (unanswered.empty() && Clock::now() >= asked + refresh) {
            asked = Clock::now();
            for (const auto &[token, resource] : resourceByToken) {
                unanswered.insert(token);
                send(COAP_REQUEST_CODE_GET, resource, "", token, true);
            }
        }
        throwIfBroken(resources.front());
        if (!unanswered.empty() && Clock::now() >= asked + timeout)
            throwNoAnswer(resourceByToken[*unanswered.begin()]);
        if (wait(unanswered.empty() ? asked + refresh : asked + timeout, stopFd))
            return;
        for (const Arrival &arrival : std::exchange(arrivals_, {})) {
            unanswered.erase(arrival.token);
            if (const auto found = resourceByToken.find(arrival.token);
                found != resourceByToken.end())
                deliver(found->second, arrival.reply);
        }
    }
}

std::string CoapClient::newToken() {
    std::array<std::uint8_t, 8> token{};
    std::size_t length = token.size();
    coap_session_new_token(session_, &length, token.data());
    return {reinterpret_cast<const char *>(token.data()), length};
}

void CoapClient::send(coap_pdu_code_t method, const std::string &resource, const std::string &body,
                      const std::string &token, bool observe) {
    coap_pdu_t *pdu = coap_new_pdu(COAP_MESSAGE_CON, method, session_);
    const auto *tokenBytes = reinterpret_cast<const std::uint8_t *>(token.data());
    coap_add_token(pdu, token.size(), tokenBytes);
    coap_optlist_t *options = nullptr;
    if (observe)
        addOption(&options, COAP_OPTION_OBSERVE, COAP_OBSERVE_ESTABLISH);
    addPath(&options, endpoint_.proxyName);
    addPath(&options, resource);
    if (!body.empty())
        addOption(&options, COAP_OPTION_CONTENT_FORMAT, COAP_MEDIATYPE_APPLICATION_JSON);
    addOption(&options, COAP_OPTION_ACCEPT, COAP_MEDIATYPE_APPLICATION_JSON);
    coap_add_optlist_pdu(pdu, &options);
    coap_delete_optlist(options);
    if (!body.empty())
        coap_add_data(pdu, body.size(), reinterpret_cast<const std::uint8_t *>(body.data()));
    if (coap_send(session_, pdu) == COAP_INVALID_MID && !broken_)
        broken_ = COAP_NACK_NOT_DELIVERABLE;
}

/* Lets libcoap work until something has come or the time is up; true when stopFd is readable. */
bool CoapClient::wait(Clock::time_point until, int stopFd) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    std::array<pollfd, 2> fds{
        {{coap_context_get_coap_fd(context_.get()), POLLIN, 0}, {stopFd, POLLIN, 0}}};
    poll(fds.data(), fds.size(), static_cast<int>(std::clamp<long>(left, 0, 60'000)));
    coap_io_process(context_.get(), COAP_IO_NO_WAIT);
    return (fds[1].revents & POLLIN) != 0;
}

coap_response_t CoapClient::onResponse(coap_session_t *session, const coap_pdu_t *,
                                       const coap_pdu_t *received, coap_mid_t) {
    auto *self = static_cast<CoapClient *>(coap_get_app_data(coap_session_get_context(session)));
    const coap_bin_const_t token = coap_pdu_get_token(received);
    self->arrivals_.push_back(
        {{reinterpret_cast<const char *>(token.s), token.length}, toReply(received)});
    return COAP_RESPONSE_OK;
}

void CoapClient::onNack(coap_session_t *session, const coap_pdu_t *, coap_nack_reason_t reason,
                        coap_mid_t) {
    auto *self = static_cast<CoapClient *>(coap_get_app_data(coap_session_get_context(session)));
    // A closed port ends a DTLS session too; that it is closed is the better reason.
    if (!self->broken_ || reason == COAP_NACK_ICMP_ISSUE || reason == COAP_NACK_NOT_DELIVERABLE)
        self->broken_ = reason;
}

int CoapClient::onEvent(coap_session_t *session, coap_event_t event) {
    auto *self = static_cast<CoapClient *>(coap_get_app_data(coap_session_get_context(session)));
    if (!self->broken_ && (event == COAP_EVENT_DTLS_ERROR || event == COAP_EVENT_DTLS_CLOSED))
        self->broken_ = COAP_NACK_TLS_FAILED;
    return 0;
}

void CoapClient::throwIfBroken(const std::string &resource) const {
    if (!broken_)
        return;
    const std::string url = endpoint_.url();
    switch (*broken_) {
    case COAP_NACK_TLS_FAILED:
        throw Unreachable("no secure session with " + url +
                          ": the handshake failed; check identity and key in --psk-file");
    case COAP_NACK_RST:
        throw Unreachable(url + " rejects the request " + resource +
                          "; is it a CoAP server of this service? Correct --url if not");
    case COAP_NACK_TOO_MANY_RETRIES:
        throwNoAnswer(resource);
    case COAP_NACK_NOT_DELIVERABLE:
    case COAP_NACK_ICMP_ISSUE:
        break;
    }
    throw Unreachable("nothing listens at " + url + "; is the service running at " +
                      endpoint_.host + ":" + std::to_string(endpoint_.port) +
                      "? Start it, or correct --url");
}

void CoapClient::throwNoAnswer(const std::string &resource) const {
    throw Unreachable("no answer to " + resource + " from " + endpoint_.url() + " within " +
                      secondsText(timeoutSec_) +
                      (endpoint_.secure
                           ? "; is the service running there, and are identity and key right?"
                           : "; is the service running there? Try a longer --timeout if so"));
}

} // namespace corvane::client
