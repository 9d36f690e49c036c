/* Requests and observations; see the header. */
#include "remote_side.h"

#include "errors.h"
#include "text.h"

#include <cerrno>
#include <future>
#include <memory>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

using client::CoapClient;
using client::Reply;

constexpr std::size_t kMostWaiting = 16;
constexpr double kTimeoutSec = 5;
constexpr double kRefreshSec = 2; // how soon a service that has gone is noticed
constexpr int kRetryMs = 300;     // how soon one that has come is
constexpr std::size_t kMaxReason = 200;

const std::vector<std::string> kResources{"SendDRLCNotify", "SendOverrideNotify",
                                          "SendDefrostBlockNotify", "SendDelayDefrostNotify",
                                          "SendDefrostReservationsNotify"};

/* What a refusal without a text of its own means. */
std::string refusalOf(const std::string &resource) {
    static const std::map<std::string, std::string> kRefusals{
        {"ControlDRLC", "the service did not store the event; try again in a few seconds"},
        {"CreateDefrostReservations", "the service did not store the reservation"},
        {"SetDefrostReservations",
         "the service did not store the reservation: its places 2 and 3 may both be taken"},
        {"DelDefrostReservations", "the service did not remove the reservation"},
    };
    const auto found = kRefusals.find(resource);
    return found != kRefusals.end() ? found->second
                                    : "the service refused " + resource + "; try again";
}

/* The client's sentences end with advice for the command line. */
std::string withoutAdvice(const std::string &sentence) {
    return sentence.substr(0, sentence.find(';'));
}

std::string reasonOf(const Reply &reply, const std::string &resource) {
    const std::string said = platform::escaped(reply.payload, kMaxReason);
    switch (reply.code) {
    case 400:
        return "the service rejects the request: " + said;
    case 404:
        return "the service does not offer " + resource + ", it may still be starting";
    case 409:
        return reply.object().value("error", nlohmann::json()) == 507
                   ? "both reservation places are taken; remove one first"
                   : refusalOf(resource);
    case 503:
        return "the service cannot answer now" + (said.empty() ? "" : ": " + said) +
               "; try again in " + std::to_string(reply.maxAgeSec) + " s";
    default:
        return "the service answers " + resource + " with the unexpected code " +
               std::to_string(reply.code);
    }
}

} // namespace

RemoteSide::RemoteSide(client::Endpoint endpoint, std::optional<client::Credentials> credentials)
    : endpoint_(std::move(endpoint)), credentials_(std::move(credentials)),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), requests_(kMostWaiting) {}

RemoteSide::~RemoteSide() {
    stop();
    close(stopFd_);
}

void RemoteSide::start(Listener listener) {
    listener_ = std::move(listener);
    observer_ = std::thread([this] { observe(); });
}

void RemoteSide::stop() {
    (void)eventfd_write(stopFd_, 1); // cannot fail: the counter is far from full
    requests_.dropWaiting();         // each may take its whole time-out
    requests_.stop();
    if (observer_.joinable())
        observer_.join();
}

Answer RemoteSide::request(const std::string &resource, const nlohmann::json &body) {
    auto answer = std::make_shared<std::promise<Answer>>();
    auto future = answer->get_future();
    // The task alone keeps the promise, so that a task that is dropped breaks it.
    if (!requests_.post(
            [=, this, answer = std::move(answer)] { answer->set_value(send(resource, body)); }))
        return {.reason = "too many requests wait for the service; try again in a few seconds",
                .isBusy = true};
    return future.get();
}

void RemoteSide::requestLater(const std::string &resource,
                              std::function<void(const Answer &)> then) {
    // What comes too often is left out; whoever asks later asks again.
    (void)requests_.post([=, this] {
        try {
            then(send(resource, nullptr));
        } catch (const nlohmann::json::exception &) {
            // A service of another kind may answer in another form; that tells nothing.
        }
    });
}

Answer RemoteSide::send(const std::string &resource, const nlohmann::json &body) const {
    try {
        CoapClient client(endpoint_, credentials_, kTimeoutSec);
        const Reply reply = body.is_null() ? client.get(resource) : client.post(resource, body);
        Answer answer{.code = reply.code, .body = reply.object()};
        if (!reply.isGood())
            answer.reason = reasonOf(reply, resource);
        return answer;
    } catch (const client::CommandFailed &failure) {
        return {.reason = withoutAdvice(failure.what())};
    }
}

void RemoteSide::observe() {
    pollfd stop{stopFd_, POLLIN, 0};
    while (true) {
        std::string reason;
        try {
            CoapClient client(endpoint_, credentials_, kTimeoutSec);
            present_.clear();
            client.observe(
                kResources, kRefreshSec, stopFd_,
                [this](const std::string &resource, const Reply &reply) { take(resource, reply); });
            return;
        } catch (const client::CommandFailed &failure) {
            reason = withoutAdvice(failure.what());
        }
        listener_.link(false, reason);
        if (poll(&stop, 1, kRetryMs) > 0)
            return;
    }
}

void RemoteSide::take(const std::string &resource, const Reply &reply) {
    // A service that stops withdraws its resources, and one that starts has none yet.
    if (!reply.isGood())
        throw client::Unreachable(reasonOf(reply, resource));
    const nlohmann::json body = reply.object();
    const auto news = trails_[resource].take(body);
    for (const client::Notification &notification : news.fresh)
        listener_.notified(resource, notification.body);
    if (present_.emplace(resource, true).second) {
        if (news.fresh.empty())
            listener_.present(resource, body);
        if (present_.size() == kResources.size())
            listener_.link(true, "");
    }
}

} // namespace corvane::appliance
