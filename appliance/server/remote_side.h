/*
 * The appliance's own home-network controller: it orders and asks over CoAP, and hears what the
 * service notifies. It has two threads: one sends one request after the other, as a controller
 * does; one observes, and finds the service again when it has gone.
 */
#ifndef CORVANE_APPLIANCE_SERVER_REMOTE_SIDE_H
#define CORVANE_APPLIANCE_SERVER_REMOTE_SIDE_H

#include "task_thread.h"

#include "coap_client.h"
#include "endpoint.h"
#include "notification_trail.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

/* What became of a request to the service. */
struct Answer {
    int code = 0;          // as the service answered: 204, 409; 0: it could not be asked
    nlohmann::json body{}; // the object of a good answer; also of a refusal that has one
    std::string reason{};  // one line, for all but good answers
    bool isBusy = false;   // with code 0: too many requests wait here

    bool isGood() const { return code / 100 == 2; }
};

class RemoteSide {
public:
    /* Called from this object's threads, with no lock held. */
    struct Listener {
        std::function<void(bool reachable, const std::string &reason)> link;
        /* The present value of a resource, at the start and after each loss of the link, unless
         * that is one to be told as new. */
        std::function<void(const std::string &resource, const nlohmann::json &body)> present;
        /* Each notification once. */
        std::function<void(const std::string &resource, const nlohmann::json &body)> notified;
    };

    RemoteSide(client::Endpoint endpoint, std::optional<client::Credentials> credentials);
    /* stop() */
    ~RemoteSide();
    RemoteSide(const RemoteSide &) = delete;
    RemoteSide &operator=(const RemoteSide &) = delete;

    /* Starts to observe. Once. */
    void start(Listener listener);

    /* Ends both threads; waits for a request under way, 5 s at most. */
    void stop();

    /* Sends and waits for the answer. From any thread but those that call the listener. A body of
     * null is a query. Throws std::future_error when stop() comes before its turn. */
    Answer request(const std::string &resource, const nlohmann::json &body);

    /* The same without waiting: `then` is called on the thread that sends, or not at all when too
     * many requests wait. An answer in which it finds something else than it expects, and throws
     * nlohmann::json::exception over, is left alone. */
    void requestLater(const std::string &resource, std::function<void(const Answer &)> then);

    const client::Endpoint &endpoint() const { return endpoint_; }

private:
    Answer send(const std::string &resource, const nlohmann::json &body) const;
    void observe();
    void take(const std::string &resource, const client::Reply &reply);

    const client::Endpoint endpoint_;
    const std::optional<client::Credentials> credentials_;
    Listener listener_; // constant after start()
    int stopFd_;
    TaskThread requests_;
    std::thread observer_;

    // Used by the observer's thread alone.
    std::map<std::string, client::NotificationTrail> trails_;
    std::map<std::string, bool> present_; // resources whose present value has been told
};

} // namespace corvane::appliance

#endif
