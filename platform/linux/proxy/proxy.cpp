// See proxy.h.
#include "proxy.h"

#include "../text.h"
#include "log.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <utility>

namespace corvane::platform {

namespace {

// More requests than this in front of the worker are turned away.
constexpr std::size_t kMaxWaitingRequests = 256;
// With names up to this long the list of all resources fits one datagram.
constexpr std::size_t kMaxNameSize = 24;
constexpr std::chrono::seconds kRefusalLineInterval{10};
constexpr const char *kStopping = "the service is stopping";

bool isName(std::string_view name) {
    return !name.empty() && name.size() <= kMaxNameSize &&
           std::all_of(name.begin(), name.end(), [](unsigned char character) {
               return std::isalnum(character) != 0 || character == '-' || character == '_';
           });
}

Response comeAgain(std::string reason) { return {503, std::move(reason), {}, true}; }

} // namespace

Proxy::Proxy(Now now) : now_(std::move(now)), worker_(kMaxWaitingRequests), server_(*this, now_) {}

std::string Proxy::prepare(const std::string &listenOn, const std::string &keyFile) {
    const auto address = parseListenAddress(listenOn);
    if (!address)
        return "remote proxy: cannot listen on " + inQuotes(listenOn) +
               ": not an address and port; set CORVANE_COAP_LISTEN to a form like 127.0.0.1:5683 "
               "or [::1]:5683";
    if (!address->isLoopback() && keyFile.empty())
        return "remote proxy: cannot listen on " + listenOn +
               ": it can be reached from outside and there are no keys; set CORVANE_COAP_PSK_FILE "
               "to a file of identity:hex key lines, or CORVANE_COAP_LISTEN to a loopback address";
    PskKeys keys;
    if (!keyFile.empty()) {
        auto read = readPskFile(keyFile);
        if (const auto *error = std::get_if<PskError>(&read))
            return "remote proxy: cannot use the key file " + inQuotes(keyFile, PATH_MAX) + ": " +
                   error->text + "; mend it or set CORVANE_COAP_PSK_FILE to another";
        keys = std::get<PskKeys>(std::move(read));
    }
    const bool isSecure = !keys.empty();
    const std::string problem = server_.open(*address, std::move(keys));
    if (!problem.empty())
        return "remote proxy: cannot listen on " + listenOn + ": " + problem +
               "; set CORVANE_COAP_LISTEN to another address and port";
    logProxy(DLOG_INFO,
             "listening address=" + listenOn + " security=" + (isSecure ? "dtls-psk" : "none"));
    return {};
}

int Proxy::declare(const char *command, int kind) {
    const Command *known = command == nullptr ? nullptr : findCommand(command);
    if (known == nullptr || kind != static_cast<int>(known->kind))
        return -1;
    const std::lock_guard lock(mutex_);
    if (!name_.empty())
        return -1;
    if (std::find(declared_.begin(), declared_.end(), known->id) == declared_.end())
        declared_.push_back(known->id);
    return 0;
}

int Proxy::init(const char *name) {
    const std::lock_guard lock(mutex_);
    if (name == nullptr || !isName(name) || !name_.empty())
        return -1;
    name_ = name;
    return 0;
}

int Proxy::start() {
    const std::lock_guard lock(mutex_);
    if (name_.empty() || isStarted_ || isClosed_)
        return -1;
    worker_.start();
    server_.start();
    isStarted_ = true;
    return 0;
}

int Proxy::publish() {
    const std::lock_guard lock(mutex_);
    if (!isStarted_)
        return -1;
    std::vector<CommandId> commands = declared_;
    // The service sends this one without declaring it.
    commands.push_back(CommandId::SendDefrostReservationsNotify);
    server_.publish(name_, std::move(commands));
    return 0;
}

int Proxy::notify(CommandId id, const nlohmann::ordered_json &members) {
    notifications_.send(id, members);
    server_.announce(id);
    return 0;
}

void Proxy::close() {
    {
        const std::lock_guard lock(mutex_);
        isClosed_ = true;
    }
    worker_.stop();
    server_.stop();
}

std::optional<Response> Proxy::handleMessage(const Message &message, const Reply &reply) {
    auto read = readMessage(message);
    if (auto *refusal = std::get_if<Response>(&read)) {
        logRefusal(message, *refusal);
        return std::move(*refusal);
    }
    if (!isInstalled(handlers_, message.command->id))
        return comeAgain("the service is not ready for this yet");
    const auto run = [this, reply, request = std::get<Request>(std::move(read))]() mutable {
        reply(callHandler(handlers_, request));
    };
    const auto drop = [reply] { reply(comeAgain(kStopping)); };
    switch (worker_.submit({run, drop})) {
    case HandlerWorker::Taken::Yes:
        return std::nullopt;
    case HandlerWorker::Taken::NoRoom:
        return comeAgain("too many requests wait");
    case HandlerWorker::Taken::Quiesced:
        return comeAgain(kStopping);
    }
    return std::nullopt;
}

std::string Proxy::notificationValue(CommandId id, Format format) {
    return notifications_.value(id, format);
}

void Proxy::logRefusal(const Message &message, const Response &refusal) {
    const auto now = now_();
    if (now < nextRefusalLine_) {
        ++unloggedRefusals_;
        return;
    }
    nextRefusalLine_ = now + kRefusalLineInterval;
    logProxy(DLOG_WARN, std::string("request refused command=") + message.command->name +
                            " code=" + std::to_string(refusal.code) +
                            " unlogged=" + std::to_string(std::exchange(unloggedRefusals_, 0)) +
                            " reason=" + refusal.body);
}

} // namespace corvane::platform
