/*
 * The sentences. A refusal (4.09) carries no text of its own on the wire, only a number, if that,
 * so its meaning is written here, beside the command that can meet it.
 */
#include "answers.h"

#include "errors.h"
#include "text.h"

#include <cstdint>
#include <map>

namespace corvane::client {
namespace {

constexpr int kNoPlaceLeft = 507;
constexpr std::size_t kMaxReason = 200;

/* What it means when the handler of a command answers that it has not done it. */
std::string refusalOf(const std::string &resource) {
    static const std::map<std::string, std::string> kRefusals{
        {"ControlDRLC",
         "the service did not store the event; retry in 5 s, then look into its log"},
        {"GetDefrostReservations",
         "the service has no reservations it could show; retry in 5 s, then look into its log"},
        {"CreateDefrostReservations",
         "the service did not store the reservation; its own two reservations come back when it is "
         "restarted, retry after that"},
        {"DelDefrostReservations", "the service did not remove the reservation; only ids 2 and 3 "
                                   "can be removed, see: corvanectl defrost list"},
    };
    const auto found = kRefusals.find(resource);
    return found != kRefusals.end()
               ? found->second
               : "the service refused " + resource + "; retry in 5 s, then look into its log";
}

} // namespace

std::string sentenceFor(const Reply &reply, const std::string &resource, const Endpoint &endpoint) {
    const std::string where = endpoint.proxyName + "/" + resource;
    switch (reply.code) {
    case 400:
        return "the service rejects the request: " + printable(reply.payload, kMaxReason) +
               "; correct that and repeat";
    case 404:
        return "there is no " + where + " at " + endpoint.host + ":" +
               std::to_string(endpoint.port) +
               "; the service may be starting, else correct the name at the end of --url";
    case 409:
        if (reply.object().value("error", nlohmann::json()) == kNoPlaceLeft)
            return "all reservation places are taken; remove one with: corvanectl defrost remove "
                   "ID";
        return refusalOf(resource);
    case 503: // starting, stopping or busy: the service tells which
        return "the service cannot answer now" +
               (reply.payload.empty() ? "" : ": " + printable(reply.payload, kMaxReason)) +
               "; retry in " + std::to_string(reply.maxAgeSec) + " s";
    default:
        const std::string digits = std::to_string(reply.code);
        return "unexpected answer " + digits.substr(0, 1) + "." + digits.substr(1) + " to " +
               where + (reply.payload.empty() ? "" : ": " + printable(reply.payload, kMaxReason)) +
               "; use the corvanectl of the service's own version";
    }
}

nlohmann::json goodAnswer(const Reply &reply, const std::string &resource,
                          const Endpoint &endpoint) {
    if (!reply.isGood())
        throw CommandFailed(sentenceFor(reply, resource, endpoint));
    return reply.object();
}

template <typename T>
T member(const nlohmann::json &answer, const char *name, const std::string &resource) {
    try {
        return answer.at(name).get<T>();
    } catch (const nlohmann::json::exception &) {
        throw CommandFailed("the answer to " + resource + " has no usable \"" + name +
                            "\"; use the corvanectl of the service's own version");
    }
}

template int member<int>(const nlohmann::json &, const char *, const std::string &);
template std::string member<std::string>(const nlohmann::json &, const char *, const std::string &);
template nlohmann::json member<nlohmann::json>(const nlohmann::json &, const char *,
                                               const std::string &);

nlohmann::json ask(CoapClient &client, const std::string &resource) {
    return goodAnswer(client.get(resource), resource, client.endpoint());
}

nlohmann::json order(CoapClient &client, const std::string &resource, const nlohmann::json &body) {
    return goodAnswer(client.post(resource, body), resource, client.endpoint());
}

std::string printable(const std::string &text, std::size_t limit) {
    const std::string clean = platform::cleaned(text);
    std::size_t position = 0;
    for (std::size_t count = 0; position < clean.size(); ++count) {
        if (count == limit)
            return clean.substr(0, position) + "...";
        (void)platform::nextCharacter(clean, position); // cleaned() has left none that is malformed
    }
    return clean;
}

} // namespace corvane::client
