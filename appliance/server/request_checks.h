/*
 * The check of what a browser sends, before any of it can reach the service: by the very rules by
 * which the service's proxy checks its own wire, so that both always agree. What is wrong with a
 * text is said in the words of the page's forms, for the person who has typed it.
 */
#ifndef CORVANE_APPLIANCE_SERVER_REQUEST_CHECKS_H
#define CORVANE_APPLIANCE_SERVER_REQUEST_CHECKS_H

#include <string>
#include <variant>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

/* Why a request is refused: one line, and the member that is wrong where it is one. */
struct Refusal {
    std::string reason;
    std::string field;
};

/* The object, when it is a good request of the service's command. */
std::variant<nlohmann::json, Refusal> checkForService(const std::string &command,
                                                      const std::string &body);

/* The same for an order of an event, which has a level from 1 to 4. */
std::variant<nlohmann::json, Refusal> checkEvent(const std::string &body);

struct DoorWish {
    bool isFridge = true;
    bool isOpen = false;
};
std::variant<DoorWish, Refusal> checkDoor(const std::string &body);

/* {"on": true or false} */
std::variant<bool, Refusal> checkSwitch(const std::string &body);

} // namespace corvane::appliance

#endif
