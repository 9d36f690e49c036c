/*
 * How things look: pure functions from what is known to text for a terminal of 80 columns, and to
 * the objects of --json. Nothing here asks anybody anything, the time included.
 */
#ifndef CORVANE_CLIENT_PRESENT_H
#define CORVANE_CLIENT_PRESENT_H

#include "notification_trail.h"
#include "report.h"

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace corvane::client {

/* Members keep the order in which they are documented. */
using Json = nlohmann::ordered_json;

/* Paints only where colour is wanted; the text itself is the same either way. */
class Style {
public:
    explicit Style(bool colour) : colour_(colour) {}

    std::string strong(std::string_view text) const { return paint("1", text); }
    std::string dim(std::string_view text) const { return paint("2", text); }
    std::string good(std::string_view text) const { return paint("32", text); }
    std::string notable(std::string_view text) const { return paint("33", text); }
    std::string bad(std::string_view text) const { return paint("31", text); }

private:
    std::string paint(const char *code, std::string_view text) const;

    bool colour_;
};

std::string levelText(int level);

/* A figure of the service's counter, which counts 100 Wh, in kWh; a figure that is no number as it
 * is. */
std::string energyText(const std::string &figure);

/* The whole screen. */
std::string statusScreen(const StatusReport &report, const Style &style);
Json statusJson(const StatusReport &report);

/* The table of reservations, each line indented by two. */
std::string reservationTable(const std::vector<Reservation> &reservations, std::time_t now,
                             const Style &style);
Json reservationsJson(const std::vector<Reservation> &reservations, std::time_t now);

/* The confirmation of an order, in UTC and local time. */
std::string orderedText(int level, const EventTime &time, std::time_t now, const Style &style);
Json orderedJson(int level, const EventTime &time, std::time_t now);

/* One line for a notification of the resource; the time is shown as local time. */
std::string notificationLine(const std::string &resource, const Notification &notification,
                             const Style &style);
Json notificationJson(const std::string &resource, const Notification &notification);

/* One line about the watch itself, in the columns of notificationLine(). */
std::string watchLine(std::time_t now, const std::string &who, const std::string &what,
                      const Style &style);

} // namespace corvane::client

#endif
