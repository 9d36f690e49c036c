/* The checks; see the header. */
#include "request_checks.h"

#include "proxy/wire.h"

#include <map>
#include <vector>

namespace corvane::appliance {
namespace {

using nlohmann::json;

/* "level: got …" and "member \"x\": unknown …" name their member. */
std::string fieldOf(const std::string &reason) {
    const std::string name = reason.substr(0, reason.find(':'));
    if (name.starts_with("member \"") && name.ends_with('"'))
        return name.substr(8, name.size() - 9);
    return name == "body" ? "" : name;
}

/* The value of each member, when these members are there and no others, each once. */
std::variant<json, Refusal>
members(const std::string &body, const std::vector<std::pair<std::string, std::string>> &wanted) {
    std::string list;
    for (const auto &[name, expected] : wanted)
        list += (list.empty() ? "" : " and ") + name;
    std::size_t keys = 0;
    const json object = json::parse(
        body,
        [&keys](int, json::parse_event_t event, json &) {
            keys += event == json::parse_event_t::key ? 1U : 0U;
            return true;
        },
        false);
    if (!object.is_object())
        return Refusal{"body: expected a JSON object with " + list, ""};
    for (const auto &[name, expected] : wanted)
        if (!object.contains(name))
            return Refusal{name + ": missing, expected " + expected, name};
    if (keys != wanted.size())
        return Refusal{"body: unknown or repeated members, expected " + list + ", each once", ""};
    return object;
}

constexpr const char *kBool = "true or false";

} // namespace

std::variant<json, Refusal> checkForService(const std::string &command, const std::string &body) {
    using namespace platform;
    Message message;
    message.command = findCommand(command);
    message.method = Method::Post;
    message.contentFormat = static_cast<unsigned>(Format::Json);
    message.body = body;
    const auto checked = readMessage(message);
    if (const Response *refused = std::get_if<Response>(&checked))
        return Refusal{refused->body, fieldOf(refused->body)};
    return json::parse(body);
}

std::variant<json, Refusal> checkEvent(const std::string &body) {
    auto checked = checkForService("ControlDRLC", body);
    if (const json *event = std::get_if<json>(&checked);
        event != nullptr && event->at("level") == 0)
        return Refusal{"level: got \"0\", expected a whole number from 1 to 4; to end an event "
                       "use DELETE",
                       "level"};
    return checked;
}

std::variant<DoorWish, Refusal> checkDoor(const std::string &body) {
    constexpr const char *kCompartments = "the text \"fridge\" or \"freezer\"";
    const auto checked = members(body, {{"compartment", kCompartments}, {"open", kBool}});
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return *refusal;
    const json &object = std::get<json>(checked);
    const json &compartment = object["compartment"];
    if (compartment != "fridge" && compartment != "freezer")
        return Refusal{std::string("compartment: expected ") + kCompartments, "compartment"};
    if (!object["open"].is_boolean())
        return Refusal{std::string("open: expected ") + kBool, "open"};
    return DoorWish{compartment == "fridge", object["open"].get<bool>()};
}

std::variant<bool, Refusal> checkSwitch(const std::string &body) {
    const auto checked = members(body, {{"on", kBool}});
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return *refusal;
    const json &on = std::get<json>(checked)["on"];
    if (!on.is_boolean())
        return Refusal{std::string("on: expected ") + kBool, "on"};
    return on.get<bool>();
}

} // namespace corvane::appliance
