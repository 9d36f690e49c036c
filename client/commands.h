/*
 * The commands of corvanectl, one function each. A command writes what it has to say to the
 * context's stream and returns, or throws one of errors.h; it never reads the command line.
 */
#ifndef CORVANE_CLIENT_COMMANDS_H
#define CORVANE_CLIENT_COMMANDS_H

#include "coap_client.h"
#include "present.h"
#include "reservation_window.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace corvane::client {

/* What every command is given. */
struct Context {
    Endpoint endpoint;
    std::string pskFile;  // only with a secure endpoint
    std::string identity; // empty: the only one in pskFile
    double timeoutSec = 5;
    double watchRefreshSec = 5; // how often a watch asks whether all is as it believes
    double watchRetrySec = 1;   // how often it looks for a service that has gone
    bool json = false;
    Style style{false};
    std::ostream &out;

    CoapClient connect() const;
    /* One object of --json, on a line of its own where lines count. */
    void print(const Json &object, bool asLine = false) const;
};

struct EventOrder {
    int level = 1;                     // 1 to 4
    std::optional<std::string> length; // hh:mm:ss
    std::optional<std::string> start;  // hh:mm:ss, UTC
};

void showStatus(const Context &context);
void startEvent(const Context &context, const EventOrder &order);
void cancelEvent(const Context &context);
void setOverride(const Context &context, bool on);
void setDefrostDelay(const Context &context, bool on);
void listReservations(const Context &context);
/* id is not read: the service chooses it. */
void addReservation(const Context &context, const Reservation &reservation);
void removeReservation(const Context &context, const std::string &id);
void showEnergy(const Context &context);

/* Until SIGINT or SIGTERM, which then count as done. */
void watchNotifications(const Context &context);

void getSetting(const Context &context, const std::string &key);
/* An integer when the value reads as one, unless it is forced to be a text. */
void setSetting(const Context &context, const std::string &key, const std::string &value,
                bool forceText);
void listSettings(const Context &context);
/* No keys: all of them. Until SIGINT or SIGTERM, which then count as done. */
void watchSettings(const Context &context, const std::vector<std::string> &keys);

} // namespace corvane::client

#endif
