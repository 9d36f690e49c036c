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

#include <chrono>
#include <ctime>
#include <map>
#include <set>

namespace corvane::client {
namespace {

constexpr double kRefreshSec = 5;
constexpr std::chrono::milliseconds kRetry{1000};

const std::vector<std::string> kResources{"SendDRLCNotify", "SendOverrideNotify",
                                          "SendDefrostBlockNotify", "SendDelayDefrostNotify",
                                          "SendDefrostReservationsNotify"};

class Watch {
public:
    explicit Watch(const Context &context) : context_(context) {}

    void run() {
        const StopSignal stop;
        bool ever = false;
        bool lost = false;
        while (true) {
            try {
                CoapClient client = context_.connect();
                client.observe(kResources, kRefreshSec, stop.fd(),
                               [&](const std::string &resource, const Reply &reply) {
                                   if (!ever)
                                       sayBegin();
                                   if (lost)
                                       say("back", "the service answers again");
                                   ever = true;
                                   lost = false;
                                   take(resource, reply);
                               });
                return;
            } catch (const Unreachable &failure) {
                if (!ever)
                    throw;
                if (!lost)
                    say("lost", std::string(failure.what()));
                lost = true;
            }
            if (stop.cameWithin(kRetry))
                return;
        }
    }

private:
    void sayBegin() { say("begun", "watching " + context_.endpoint.url() + ", Ctrl-C ends"); }

    void take(const std::string &resource, const Reply &reply) {
        if (!reply.isGood()) {
            if (complained_.insert(resource).second)
                say("refused", sentenceFor(reply, resource, context_.endpoint));
            return;
        }
        complained_.erase(resource);
        const NotificationTrail::News news = trails_[resource].take(reply.object());
        if (news.restarted)
            sayRestarted(resource);
        if (news.missed > 0)
            say("missed", std::to_string(news.missed) + " notifications of " + resource +
                              " came too fast to be told");
        for (const Notification &notification : news.fresh) {
            if (context_.json)
                context_.print(notificationJson(resource, notification), true);
            else
                context_.out << notificationLine(resource, notification, context_.style)
                             << std::flush;
        }
    }

    /* Each resource notices the same restart for itself; it is told once. */
    void sayRestarted(const std::string &resource) {
        if (restarted_.empty() || restarted_.count(resource) > 0) {
            restarted_.clear();
            say("restarted", "the service has been started anew");
        }
        restarted_.insert(resource);
    }

    void say(const char *state, const std::string &text) {
        const std::time_t now = std::time(nullptr);
        if (context_.json)
            context_.print({{"watch", state}, {"text", text}}, true);
        else
            context_.out << watchLine(now, text, context_.style) << std::flush;
    }

    const Context &context_;
    std::map<std::string, NotificationTrail> trails_;
    std::set<std::string> complained_;
    std::set<std::string> restarted_; // resources that have noticed the last restart
};

} // namespace

void watchNotifications(const Context &context) { Watch(context).run(); }

} // namespace corvane::client
