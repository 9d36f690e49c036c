// See coap_server.h. The divisions of this file: opening and closing; the thread; resources; a
// request and its answer; keys.
//
// How an answer gets onto the acknowledgement although its handler runs on another thread: libcoap
// sends whatever the request's callback leaves in the response, but drops an empty non-confirmable
// one. The callback leaves just that, and the answer is sent as a message of our own when it is
// there. That saves two of four datagrams and a retransmission timer against a separate response.
#include "coap_server.h"

#include "dtls_support.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvane::platform {

namespace {

// Beside this many sessions of peers that are silent and watch nothing the oldest is forgotten.
constexpr unsigned kMaxIdleSessions = 100;
// A peer that begins a handshake and goes away counts for half a minute; new ones must find room
// beside many of those.
constexpr unsigned kMaxHandshakes = 1000;
constexpr std::size_t kRememberedExchanges = 8192;
constexpr std::size_t kMaxWatches = 4096;
constexpr unsigned kMaxWaitMs = 3'600'000;
constexpr unsigned kRetryAfterSec = 5;
// A client repeats a request after two seconds at the earliest. A repetition that comes sooner than
// this is a stray copy; it is not worth a message of its own, the answer is under way.
constexpr std::chrono::seconds kClientPatience{1};

constexpr std::array kMethods{COAP_REQUEST_GET,    COAP_REQUEST_POST,  COAP_REQUEST_PUT,
                              COAP_REQUEST_DELETE, COAP_REQUEST_FETCH, COAP_REQUEST_PATCH,
                              COAP_REQUEST_IPATCH};

coap_pdu_code_t codeOf(int code) {
    return static_cast<coap_pdu_code_t>((code / 100) << 5 | code % 100);
}

std::string_view tokenOf(const coap_pdu_t *pdu) {
    const coap_bin_const_t token = coap_pdu_get_token(pdu);
    return {reinterpret_cast<const char *>(token.s), token.length};
}

std::string_view dataOf(const coap_pdu_t *pdu) {
    std::size_t size = 0;
    const std::uint8_t *data = nullptr;
    if (coap_get_data(pdu, &size, &data) == 0)
        return {};
    return {reinterpret_cast<const char *>(data), size};
}

std::optional<unsigned> numberOption(const coap_pdu_t *pdu, coap_option_num_t number) {
    coap_opt_iterator_t iterator;
    const coap_opt_t *option = coap_check_option(pdu, number, &iterator);
    if (option == nullptr)
        return std::nullopt;
    return coap_decode_var_bytes(coap_opt_value(option), coap_opt_length(option));
}

// A block that is neither the only one nor the first and last says that there is more.
bool isInBlocks(const coap_pdu_t *pdu) {
    coap_block_t block{};
    return coap_get_block(pdu, COAP_OPTION_BLOCK1, &block) != 0 && (block.num != 0 || block.m != 0);
}

Method methodOf(const coap_pdu_t *pdu) {
    const coap_pdu_code_t code = coap_pdu_get_code(pdu);
    if (code == COAP_REQUEST_CODE_GET)
        return Method::Get;
    return code == COAP_REQUEST_CODE_POST ? Method::Post : Method::Other;
}

Message messageOf(const Command &command, const coap_pdu_t *request) {
    Message message;
    message.command = &command;
    message.method = methodOf(request);
    message.contentFormat = numberOption(request, COAP_OPTION_CONTENT_FORMAT);
    message.accept = numberOption(request, COAP_OPTION_ACCEPT);
    message.isInBlocks = isInBlocks(request);
    message.body = dataOf(request);
    return message;
}

void addNumberOption(coap_pdu_t *pdu, coap_option_num_t number, unsigned value) {
    std::array<std::uint8_t, 4> bytes{};
    const auto size = coap_encode_var_safe(bytes.data(), bytes.size(), value);
    coap_add_option(pdu, number, size, bytes.data());
}

// Writes code, options and body. The options are added in the order of their numbers.
void fill(coap_pdu_t *pdu, const Response &answer) {
    coap_pdu_set_code(pdu, codeOf(answer.code));
    if (answer.format)
        addNumberOption(pdu, COAP_OPTION_CONTENT_FORMAT, static_cast<unsigned>(*answer.format));
    if (answer.isForLater)
        addNumberOption(pdu, COAP_OPTION_MAXAGE, kRetryAfterSec);
    const auto *data = reinterpret_cast<const std::uint8_t *>(answer.body.data());
    if (!answer.body.empty() && coap_add_data(pdu, answer.body.size(), data) == 0)
        coap_pdu_set_code(pdu, COAP_RESPONSE_CODE_INTERNAL_ERROR);
}

std::string exchangeKeyOf(const coap_session_t *session, const coap_pdu_t *request) {
    const coap_address_t *peer = coap_session_get_addr_remote(session);
    std::string key;
    if (peer->addr.sa.sa_family == AF_INET) {
        key.append(reinterpret_cast<const char *>(&peer->addr.sin.sin_addr), 4);
        key.append(reinterpret_cast<const char *>(&peer->addr.sin.sin_port), 2);
    } else {
        key.append(reinterpret_cast<const char *>(&peer->addr.sin6.sin6_addr), 16);
        key.append(reinterpret_cast<const char *>(&peer->addr.sin6.sin6_port), 2);
    }
    const coap_mid_t mid = coap_pdu_get_mid(request);
    key += {static_cast<char>(mid >> 8), static_cast<char>(mid & 0xFF)};
    key += tokenOf(request);
    return key;
}

std::string watchOf(const coap_pdu_t *request) {
    std::string watch;
    coap_opt_iterator_t iterator;
    coap_option_iterator_init(request, &iterator, COAP_OPT_ALL);
    while (const coap_opt_t *option = coap_option_next(&iterator)) {
        if (iterator.number == COAP_OPTION_OBSERVE || iterator.number == COAP_OPTION_ETAG)
            continue;
        watch +=
            std::to_string(iterator.number) + ':' + std::to_string(coap_opt_length(option)) + ':';
        watch.append(reinterpret_cast<const char *>(coap_opt_value(option)),
                     coap_opt_length(option));
    }
    return watch;
}

void ignoreLog(coap_log_t, const char *) {}

} // namespace

// ---- opening and closing ----------------------------------------------------------------------

CoapServer::CoapServer(RequestSink &sink, std::function<ExchangeTable::Clock::time_point()> now)
    : sink_(sink), exchanges_(kRememberedExchanges, std::move(now)) {}

CoapServer::~CoapServer() {
    stop();
    if (wakeFd_ >= 0)
        close(wakeFd_);
}

std::string CoapServer::open(const ListenAddress &address, PskKeys keys) {
    // libcoap lets several programs share a port. The trial bind tells a port that is taken.
    if (const int error = tryBind(address); error != 0)
        return std::generic_category().message(error);

    coap_startup();
    coap_set_log_handler(ignoreLog);
    coap_set_log_level(LOG_EMERG);
    coap_dtls_set_log_level(LOG_EMERG);
    keys_ = std::move(keys);
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    supportDtls(!keys_.empty());
    context_ = coap_new_context(nullptr);
    if (wakeFd_ < 0 || context_ == nullptr)
        return "out of memory or file descriptors";
    coap_set_app_data(context_, this);
    coap_register_event_handler(context_, onEvent);
    coap_context_set_max_idle_sessions(context_, kMaxIdleSessions);
    coap_context_set_max_handshake_sessions(context_, kMaxHandshakes);

    if (!keys_.empty()) {
        coap_dtls_spsk_t setup{};
        setup.version = COAP_DTLS_SPSK_SETUP_VERSION;
        setup.validate_id_call_back = onIdentity;
        setup.id_call_back_arg = this;
        if (coap_context_set_psk2(context_, &setup) == 0)
            return "DTLS cannot be set up";
    }
    coap_address_t coapAddress;
    coap_address_init(&coapAddress);
    coapAddress.size = address.size;
    std::memcpy(&coapAddress.addr, &address.any, address.size);
    if (coap_new_endpoint(context_, &coapAddress,
                          keys_.empty() ? COAP_PROTO_UDP : COAP_PROTO_DTLS) == nullptr)
        return std::generic_category().message(errno);

    coap_resource_t *unknown = coap_resource_unknown_init(onUnknown);
    for (const auto method : kMethods)
        coap_register_request_handler(unknown, method, onUnknown);
    coap_add_resource(context_, unknown);
    return {};
}

void CoapServer::start() {
    thread_ = std::thread([this] { run(); });
    pthread_setname_np(thread_.native_handle(), "proxy-coap");
}

void CoapServer::stop() {
    if (thread_.joinable()) {
        post([this] { isEnding_ = true; });
        thread_.join();
    }
    if (context_ != nullptr) {
        coap_free_context(context_);
        coap_cleanup();
        context_ = nullptr;
    }
}

// ---- the thread -------------------------------------------------------------------------------

void CoapServer::post(std::function<void()> closure) {
    bool wasEmpty = false;
    {
        const std::lock_guard lock(mutex_);
        wasEmpty = posted_.empty();
        posted_.push_back(std::move(closure));
    }
    if (wasEmpty)
        eventfd_write(wakeFd_, 1);
}

void CoapServer::runPosted() {
    eventfd_t count = 0;
    eventfd_read(wakeFd_, &count);
    std::vector<std::function<void()>> closures;
    {
        const std::lock_guard lock(mutex_);
        closures.swap(posted_);
    }
    for (const auto &closure : closures)
        closure();
}

// The library's own timer descriptor is not enough to wait on: a timer that falls due while the
// library prepares to wait is disarmed, and its retransmission never comes. The time to wait that
// the preparation answers is right, hence the loop here instead of coap_io_process().
void CoapServer::run() {
    const int coapFd = coap_context_get_coap_fd(context_);
    std::array<pollfd, 2> waits{pollfd{coapFd, POLLIN, 0}, pollfd{wakeFd_, POLLIN, 0}};
    while (!isEnding_) {
        const unsigned timeoutMs = prepareToWait();
        if (poll(waits.data(), waits.size(), timeoutMs == 0 ? -1 : static_cast<int>(timeoutMs)) < 0)
            continue;
        if (waits[1].revents != 0)
            runPosted();
        if (waits[0].revents != 0) {
            epoll_event event{};
            if (epoll_wait(coapFd, &event, 1, 0) == 1)
                coap_io_do_epoll(context_, &event, 1);
        }
    }
    runPosted();
    prepareToWait();
}

// Sends what is due, notifications too. Answers how long nothing else is, in ms; 0: for ever.
unsigned CoapServer::prepareToWait() {
    coap_tick_t now = 0;
    coap_ticks(&now);
    return std::min(coap_io_prepare_epoll(context_, now), kMaxWaitMs);
}

// ---- resources --------------------------------------------------------------------------------

void CoapServer::publish(const std::string &prefix, std::vector<CommandId> commands) {
    post([this, prefix, commands = std::move(commands)] {
        for (const CommandId id : commands)
            addResource(prefix, id);
    });
}

void CoapServer::addResource(const std::string &prefix, CommandId id) {
    const Command &command = commandOf(id);
    auto &entry = resources_[static_cast<std::size_t>(id)];
    if (entry != nullptr)
        return;
    const std::string path = prefix + '/' + command.name;
    const bool isNotification = command.kind == CommandKind::Notification;
    // Confirmable notifications: a watcher must not miss the last one of a row.
    coap_resource_t *resource = coap_resource_init(
        coap_new_str_const(reinterpret_cast<const std::uint8_t *>(path.data()), path.size()),
        COAP_RESOURCE_FLAGS_RELEASE_URI | COAP_RESOURCE_FLAGS_NOTIFY_CON);
    entry = std::make_unique<Resource>(Resource{this, &command, resource});
    coap_resource_set_userdata(resource, entry.get());
    coap_resource_set_get_observable(resource, isNotification);
    for (const auto method : kMethods)
        coap_register_request_handler(resource, method, onRequest);
    coap_add_attr(
        resource, coap_make_str_const("rt"),
        coap_make_str_const(isNotification ? "\"corvane.notify\"" : "\"corvane.request\""), 0);
    coap_add_resource(context_, resource);
}

void CoapServer::announce(CommandId id) {
    const auto index = static_cast<std::size_t>(id);
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(announced_[index], true))
            return;
    }
    post([this, index] {
        {
            const std::lock_guard lock(mutex_);
            announced_[index] = false;
        }
        if (resources_[index] != nullptr)
            coap_resource_notify_observers(resources_[index]->resource, nullptr);
    });
}

// ---- a request and its answer -----------------------------------------------------------------

void CoapServer::onRequest(coap_resource_t *resource, coap_session_t *session,
                           const coap_pdu_t *request, const coap_string_t *, coap_pdu_t *response) {
    const auto &entry = *static_cast<const Resource *>(coap_resource_get_userdata(resource));
    if (entry.command->kind == CommandKind::Notification)
        entry.server->handleNotificationRead(*entry.command, session, request, response);
    else
        entry.server->handleCommand(*entry.command, session, request, response);
}

void CoapServer::onUnknown(coap_resource_t *, coap_session_t *, const coap_pdu_t *,
                           const coap_string_t *, coap_pdu_t *response) {
    fill(response, {404, "no such resource, see /.well-known/core", {}, false});
}

// libcoap calls this for a read, for the beginning and end of a watch, and again for each
// notification to each watcher.
void CoapServer::handleNotificationRead(const Command &command, coap_session_t *session,
                                        const coap_pdu_t *request, coap_pdu_t *response) {
    const auto read = readMessage(messageOf(command, request));
    if (const auto *refusal = std::get_if<Response>(&read))
        return fill(response, *refusal);
    if (!admitWatch(session, request))
        return fill(response, {503, "too many watchers", {}, true});
    const Format format = std::get<Request>(read).answerFormat;
    fill(response, {205, sink_.notificationValue(command.id, format), format, false});
}

// libcoap has no limit for watches, so they are counted here: by session and by everything that
// makes libcoap tell two watches of a session apart. Answers false when there are too many.
bool CoapServer::admitWatch(coap_session_t *session, const coap_pdu_t *request) {
    const auto observe = numberOption(request, COAP_OPTION_OBSERVE);
    if (!observe)
        return true;
    const std::string watch = watchOf(request);
    auto &ofSession = watches_[session];
    if (*observe == COAP_OBSERVE_CANCEL)
        watchCount_ -= ofSession.erase(watch);
    else if (*observe == COAP_OBSERVE_ESTABLISH && ofSession.count(watch) == 0) {
        if (watchCount_ == kMaxWatches)
            return false;
        ofSession.insert(watch);
        ++watchCount_;
    }
    return true;
}

int CoapServer::onEvent(coap_session_t *session, coap_event_t event) {
    auto *self = static_cast<CoapServer *>(coap_get_app_data(coap_session_get_context(session)));
    const auto found = self->watches_.find(session);
    if (event != COAP_EVENT_SERVER_SESSION_DEL || found == self->watches_.end())
        return 0;
    self->watchCount_ -= found->second.size();
    self->watches_.erase(found);
    return 0;
}

void CoapServer::handleCommand(const Command &command, coap_session_t *session,
                               const coap_pdu_t *request, coap_pdu_t *response) {
    coap_pdu_set_type(response, COAP_MESSAGE_NON);
    const Requester requester{session, coap_pdu_get_type(request), coap_pdu_get_mid(request),
                              std::string(tokenOf(request)), exchangeKeyOf(session, request)};
    if (Exchange *known = exchanges_.find(requester.exchangeKey)) {
        if (known->answer) {
            send(requester, *known->answer, false);
        } else if (requester.type == COAP_MESSAGE_CON &&
                   exchanges_.ageOf(*known) >= kClientPatience) {
            known->isAcknowledged = true;
            coap_send_ack(session, request);
        }
        return;
    }
    const Reply reply = [this, requester](Response answer) {
        post([this, requester, answer = std::move(answer)]() mutable {
            finish(requester, std::move(answer));
        });
    };
    if (const auto answer = sink_.handleMessage(messageOf(command, request), reply)) {
        send(requester, *answer, false);
    } else {
        exchanges_.remember(requester.exchangeKey);
        coap_session_reference(session);
    }
}

void CoapServer::finish(const Requester &requester, Response answer) {
    Exchange *exchange = exchanges_.find(requester.exchangeKey);
    send(requester, answer, exchange != nullptr && exchange->isAcknowledged);
    coap_session_release(requester.session);
    if (exchange != nullptr)
        exchange->answer = std::move(answer);
}

void CoapServer::send(const Requester &requester, const Response &answer, bool isAcknowledged) {
    coap_session_t *session = requester.session;
    coap_pdu_type_t type = COAP_MESSAGE_NON;
    if (requester.type == COAP_MESSAGE_CON)
        type = isAcknowledged ? COAP_MESSAGE_CON : COAP_MESSAGE_ACK;
    const coap_mid_t mid = type == COAP_MESSAGE_ACK ? requester.mid : coap_new_message_id(session);
    coap_pdu_t *pdu = coap_pdu_init(type, COAP_EMPTY_CODE, static_cast<std::uint16_t>(mid),
                                    coap_session_max_pdu_size(session));
    if (pdu == nullptr)
        return;
    coap_add_token(pdu, requester.token.size(),
                   reinterpret_cast<const std::uint8_t *>(requester.token.data()));
    fill(pdu, answer);
    coap_send(session, pdu);
}

// ---- keys -------------------------------------------------------------------------------------

const coap_bin_const_t *CoapServer::onIdentity(coap_bin_const_t *identity, coap_session_t *,
                                               void *server) {
    auto &self = *static_cast<CoapServer *>(server);
    const std::string_view name(reinterpret_cast<const char *>(identity->s), identity->length);
    const auto found = self.keys_.find(name);
    if (found == self.keys_.end())
        return nullptr;
    self.offeredKey_ = {found->second.size(), found->second.data()};
    return &self.offeredKey_;
}

} // namespace corvane::platform
