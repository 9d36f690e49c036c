/* The checks; see the header. */
#include "request_checks.h"

#include "calendar.h"
#include "proxy/wire.h"
#include "text.h"

#include <array>
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

// ---- texts as people type them ------------------------------------------------------------------

constexpr const char *kTimeOfDay = " is no time of day such as 17:00:00";
constexpr const char *kLength = " is no length of time from 00:00:01 to 23:59:59, such as 02:00:00";
constexpr std::size_t kMostDescription = 30; // bytes

std::string isNo(const std::string &what, const std::string &text, const std::string &expected) {
    return what + ": " + platform::inQuotes(text) + expected;
}

/* Of 0000-MM-DDThh:mm:ss: the day is in one field of a form, its time in another. */
std::string seasonDayInWords(const char *day, const char *time, const std::string &text) {
    constexpr std::array kMonths{"January",   "February", "March",    "April",
                                 "May",       "June",     "July",     "August",
                                 "September", "October",  "November", "December"};
    constexpr std::size_t kMonthAt = 5;
    constexpr std::size_t kDayAt = 8;
    const std::size_t timeAt = text.find('T', kDayAt);
    const std::string month = text.size() > kDayAt ? text.substr(kMonthAt, 2) : "";
    const auto first = client::parseMonthDay(month + "-01");
    if (timeAt == std::string::npos || !text.starts_with("0000-") || !first)
        return "";
    const std::string date = text.substr(kMonthAt, timeAt - kMonthAt);
    if (!client::parseMonthDay(date))
        return isNo(day, text.substr(kDayAt, timeAt - kDayAt),
                    std::string(" is no day of ") +
                        kMonths[static_cast<std::size_t>(first->month - 1)]);
    return isNo(time, text.substr(timeAt + 1), kTimeOfDay);
}

std::string descriptionInWords(const std::string &text) {
    if (text.size() > kMostDescription)
        return isNo("description", text,
                    " is too long: " + std::to_string(text.size()) + " bytes, at most " +
                        std::to_string(kMostDescription));
    return isNo("description", text,
                " has a character that cannot be stored: a quote, a backslash or one that is not "
                "printable");
}

/* What is wrong with a text, in the words of the form that it was typed into; empty where no form
 * can have sent it. */
std::string inWords(const std::string &field, const std::string &text) {
    if (field == "start")
        return isNo(field, text, kTimeOfDay);
    if (field == "duration")
        return isNo(field, text, kLength);
    if (field == "period")
        return isNo("length", text, kLength);
    if (field == "startTime")
        return seasonDayInWords("first day", "daily from", text);
    if (field == "endTime")
        return seasonDayInWords("last day", "last day's time", text);
    if (field == "description")
        return descriptionInWords(text);
    return "";
}

} // namespace

std::variant<json, Refusal> checkForService(const std::string &command, const std::string &body) {
    using namespace platform;
    Message message;
    message.command = findCommand(command);
    message.method = Method::Post;
    message.contentFormat = static_cast<unsigned>(Format::Json);
    message.body = body;
    const auto checked = readMessage(message);
    const Response *refused = std::get_if<Response>(&checked);
    if (refused == nullptr)
        return json::parse(body);
    Refusal refusal{refused->body, fieldOf(refused->body)};
    if (refusal.reason.starts_with(refusal.field + ": got the text ")) {
        const json object = json::parse(body, nullptr, false);
        if (object.is_object())
            if (std::string words = inWords(refusal.field, object.value(refusal.field, ""));
                !words.empty())
                refusal.reason = std::move(words);
    }
    return refusal;
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
