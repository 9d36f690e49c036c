/*
 * The watch: every notification once, from a service that may be restarted meanwhile.
 *
 * CoAP over UDP does not tell when a service goes, and a new one knows nothing of our observations.
 * So all resources are asked anew every few seconds, and when nobody answers any more, a new client
 * takes over with the same trails.
 */
#include "commands.h"

#include "answers.h"
#include "errors.h"
#include "notification_trail.h"
#include "stop_signal.h"

#include <ctime>
#include <map>
#include <set>

namespace corvane::client {
namespace {

const std::vector<std::string> kResources{"SendDRLCNotify", "SendOverrideNotify",
                                          "SendDefrostBlockNotify", "SendDelayDefrostNotify",
                                          "SendDefrostReservationsNotify"};

class Watch {
public:
    explicit Watch(const Context &context) : context_(context) {}

    void run() {
        const StopSignal stop;
        while (true) {
            try {
                CoapClient client = context_.connect();
                client.observe(kResources, context_.watchRefreshSec, stop.fd(),
                               [&](const std::string &resource, const Reply &reply) {
                                   take(resource, reply);
                               });
                return;
            } catch (const Unreachable &) {
                if (state_ == State::Unknown)
                    throw;
                if (state_ == State::There)
                    say("lost", "service", "is gone or going; waiting for it");
                state_ = State::Gone;
            }
            if (stop.cameWithin(context_.watchRetrySec))
                return;
        }
    }

private:
    enum class State { Unknown, There, Gone };

    void take(const std::string &resource, const Reply &reply) {
        // A service that stops withdraws its resources, and one that starts has none yet.
        if (!reply.isGood())
            throw Unreachable(sentenceFor(reply, resource, context_.endpoint));
        if (state_ == State::Gone) {
            say("back", "service", "answers again");
            state_ = State::There;
        }
        const NotificationTrail::News news = trails_[resource].take(reply.object());
        if (news.restarted)
            sayRestarted(resource);
        if (news.missed > 0)
            say("missed", "service",
                "has sent " + std::to_string(news.missed) + " more of " + resource);
        for (const Notification &notification : news.fresh) {
            if (context_.json)
                context_.print(notificationJson(resource, notification), true);
            else
                context_.out << notificationLine(resource, notification, context_.style)
                             << std::flush;
        }
        // Only now is everything that comes later sure to be told.
        if (state_ == State::Unknown && trails_.size() == kResources.size()) {
            say("begun", "watching", context_.endpoint.url());
            state_ = State::There;
        }
    }

    /* Each resource notices the same restart for itself; it is told once. */
    void sayRestarted(const std::string &resource) {
        if (restarted_.empty() || restarted_.count(resource) > 0) {
            restarted_.clear();
            say("restarted", "service", "has been started anew");
        }
        restarted_.insert(resource);
    }

    void say(const char *event, const std::string &who, const std::string &what) {
        if (context_.json)
            context_.print({{"watch", event}, {"text", who + " " + what}}, true);
        else
            context_.out << watchLine(std::time(nullptr), who, what, context_.style) << std::flush;
    }

    const Context &context_;
    std::map<std::string, NotificationTrail> trails_;
    State state_ = State::Unknown;
    std::set<std::string> restarted_; // resources that have noticed the last restart
};

} // namespace

void watchNotifications(const Context &context) { Watch(context).run(); }

} // namespace corvane::client
