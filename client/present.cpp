/*
 * The texts, in this order: small pieces, reservations, events, the status screen, notifications.
 *
 * Padding is always done on plain text, before it is painted, and counts characters, not bytes.
 */
#include "present.h"

#include "answers.h"
#include "calendar.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <map>
#include <sstream>

namespace corvane::client {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kLabelColumns = 14;
constexpr std::size_t kSubjectColumns = 11;
constexpr std::size_t kDescriptionColumns = 22;
constexpr const char *kUtcFormat = "%FT%TZ";

std::size_t charactersIn(const std::string &text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string padded(const std::string &text, std::size_t columns) {
    const std::size_t used = charactersIn(text);
    return used < columns ? text + std::string(columns - used, ' ') : text;
}

/* At most so many columns, with the cut marked. */
std::string fitted(const std::string &text, std::size_t columns) {
    const std::string clean = printable(text, kColumns);
    return charactersIn(clean) <= columns ? clean : printable(clean, columns - 3);
}

std::string labelled(const std::string &label, const std::string &value) {
    return "  " + padded(label, kLabelColumns) + value + "\n";
}

/* A remark of any length, folded between words into the columns beside the label. */
std::string remark(const std::string &label, const std::string &text, const Style &style) {
    std::istringstream words(printable(text, 5 * kColumns));
    std::string lines;
    std::string line;
    const auto flush = [&] {
        lines += labelled(lines.empty() ? label : "", style.dim(line));
        line.clear();
    };
    for (std::string word; words >> word;) {
        if (!line.empty() &&
            kLabelColumns + 2 + charactersIn(line) + 1 + charactersIn(word) > kColumns)
            flush();
        line += (line.empty() ? "" : " ") + word;
    }
    flush();
    return lines;
}

std::string unknown(const std::string &label, const std::string &reason, const Style &style) {
    return remark(label, "unknown (" + reason + ")", style);
}

/* The value, or the reason why there is none. */
template <typename T, typename Show>
std::string labelled(const std::string &label, const Piece<T> &piece, const Style &style,
                     const Show &show) {
    if (!piece.value)
        return unknown(label, piece.missing, style);
    return labelled(label,
                    show(*piece.value) + (piece.note.empty() ? "" : style.dim("  " + piece.note)));
}

template <typename T>
Json valueOrNull(const Piece<T> &piece) {
    return piece.value ? Json(*piece.value) : Json();
}

/* hh:mm of hh:mm:00, else the whole text. */
std::string shortTime(const std::string &clock) {
    return clock.size() == 8 && clock.compare(6, 2, "00") == 0 ? clock.substr(0, 5) : clock;
}

std::string heading(const std::string &text, const Style &style) {
    return style.strong(text) + "\n";
}

} // namespace

std::string Style::paint(const char *code, std::string_view text) const {
    if (!colour_)
        return std::string(text);
    return std::string("\033[") + code + "m" + std::string(text) + "\033[0m";
}

std::string levelText(int level) {
    if (level == 0)
        return "normal operation";
    if (level >= 1 && level <= 4)
        return "load reduced, level " + std::to_string(level) + " of 4";
    return "level " + std::to_string(level) + ", which the appliance does not have";
}

/* --- reservations --- */

std::string energyText(const std::string &figure) {
    double counted = 0;
    const char *end = figure.data() + figure.size();
    const auto [stopped, error] = std::from_chars(figure.data(), end, counted);
    if (error != std::errc() || stopped != end)
        return printable(figure, kColumns);
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%.3f kWh", counted / 10);
    return text.data();
}

std::string reservationTable(const std::vector<Reservation> &reservations, std::time_t now,
                             const Style &style) {
    if (reservations.empty())
        return "  none\n";
    const auto current = currentReservation(reservations, now);
    std::string table = style.dim("    id  " + padded("description", kDescriptionColumns) +
                                  "  from   to     at        for       today's window") +
                        "\n";
    for (const Reservation &reservation : reservations) {
        const bool isCurrent = current && *current == reservation.id;
        std::string today;
        if (const auto window = windowOfDay(reservation, now); isCurrent && window) {
            today = now < window->start ? "opens " + shortTime(formatLocal(window->start, "%T"))
                    : now < window->end ? "until " + shortTime(formatLocal(window->end, "%T"))
                                        : "over for today";
        }
        const std::string line =
            std::string(isCurrent ? "  > " : "    ") + padded(fitted(reservation.id, 2), 2) + "  " +
            padded(fitted(reservation.description, kDescriptionColumns), kDescriptionColumns) +
            "  " + padded(reservation.firstDay(), 5) + "  " + padded(reservation.lastDay(), 5) +
            "  " + padded(reservation.dailyStart(), 8) + "  " +
            padded(fitted(reservation.period, 8), 8) + "  " + today;
        table +=
            (isCurrent ? style.good(line) : line.substr(0, line.find_last_not_of(' ') + 1)) + "\n";
    }
    return table;
}

Json reservationsJson(const std::vector<Reservation> &reservations, std::time_t now) {
    const auto current = currentReservation(reservations, now);
    Json list = Json::array();
    for (const Reservation &reservation : reservations)
        list.push_back({{"id", reservation.id},
                        {"description", reservation.description},
                        {"firstDay", reservation.firstDay()},
                        {"lastDay", reservation.lastDay()},
                        {"at", reservation.dailyStart()},
                        {"for", reservation.period},
                        {"current", current && *current == reservation.id}});
    return list;
}

/* --- events --- */

namespace {

const char *stateOf(const EventTime &time, std::time_t now) {
    return time.isWaiting(now) ? "waiting" : time.isOver(now) ? "over" : "running";
}

/* "14:00:00 to 15:00:00", with the day where it is not the day of reference. */
std::string spanText(const EventTime &time, std::time_t reference,
                     std::string (*format)(std::time_t, const char *)) {
    const auto moment = [&](std::time_t at, std::time_t other) {
        const bool sameDay = format(at, "%F") == format(other, "%F");
        return format(at, sameDay ? "%T" : "%F %T");
    };
    return moment(time.start, reference) + " to " + moment(time.end, time.start);
}

std::string progressText(const EventTime &time, std::time_t now) {
    if (time.isWaiting(now))
        return "starts in " + lengthText(time.start - now);
    if (time.isOver(now))
        return "over, the service is ending it";
    return "running, " + lengthText(time.end - now) + " left";
}

std::string progressBar(const EventTime &time, std::time_t now) {
    constexpr std::time_t kCells = 20;
    const std::time_t length = std::max<std::time_t>(time.end - time.start, 1);
    const auto done = static_cast<std::size_t>(
        std::clamp<std::time_t>((now - time.start) * kCells / length, 0, kCells));
    return "[" + std::string(done, '#') + std::string(kCells - done, '.') + "]";
}

Json eventJson(const StoredEvent &event, std::time_t now) {
    return {{"level", event.level},
            {"state", stateOf(event.time, now)},
            {"start", formatUtc(event.time.start, kUtcFormat)},
            {"end", formatUtc(event.time.end, kUtcFormat)},
            {"secondsToStart", std::max<std::time_t>(event.time.start - now, 0)},
            {"secondsLeft",
             std::max<std::time_t>(event.time.end - std::max(now, event.time.start), 0)}};
}

std::string eventLines(const Piece<EventReport> &piece, std::time_t now, const Style &style) {
    if (!piece.value)
        return unknown("event", piece.missing, style);
    if (!piece.value->details)
        return labelled("event", piece.value->stored ? style.notable("one is stored") : "none") +
               (piece.note.empty() ? "" : remark("", piece.note, style));
    const StoredEvent &event = *piece.value->details;
    const std::string progress =
        "level " + std::to_string(event.level) + ", " + progressText(event.time, now);
    const bool running = !event.time.isWaiting(now) && !event.time.isOver(now);
    return labelled("event", style.notable(progress) +
                                 (running ? "  " + progressBar(event.time, now) : "")) +
           labelled("", spanText(event.time, now, formatUtc) + " UTC") +
           labelled("", spanText(event.time, now, formatLocal) + " local time");
}

} // namespace

std::string orderedText(int level, const EventTime &time, std::time_t now, const Style &style) {
    return style.strong("Ordered level " + std::to_string(level)) + " for " +
           lengthText(time.end - time.start) + "; " + progressText(time, now) + ".\n" +
           labelled("UTC", spanText(time, now, formatUtc)) +
           labelled("local time", spanText(time, now, formatLocal));
}

Json orderedJson(int level, const EventTime &time, std::time_t now) {
    return eventJson({level, time}, now);
}

/* --- the status screen --- */

std::string statusScreen(const StatusReport &report, const Style &style) {
    const auto onOff = [&](int value) {
        return value == 0 ? std::string("off") : style.notable("on");
    };
    const auto yesNo = [&](int value) {
        return value == 0 ? std::string("no") : style.good("yes");
    };

    const std::string title = "Corvane at " + fitted(report.url, 45);
    const std::string time = formatLocal(report.now, "%F %T %Z");
    const std::size_t gap = charactersIn(title) + charactersIn(time) + 2 <= kColumns
                                ? kColumns - charactersIn(title) - charactersIn(time)
                                : 2;
    std::string screen = style.strong(title) + std::string(gap, ' ') + style.dim(time) + "\n\n";

    screen += heading("Demand response", style);
    screen += labelled("level", report.level, style, [&](int level) {
        const std::string text = std::to_string(level) + "  " + levelText(level);
        return level == 0 ? text : style.notable(text);
    });
    screen += labelled("override", report.override, style, onOff);
    screen += labelled("defrost block", report.block, style, onOff);
    screen += eventLines(report.event, report.now, style);

    screen += "\n" + heading("Defrost delay", style);
    screen += labelled("enabled", report.defrostEnabled, style, yesNo);
    screen += labelled("active", report.defrostActive, style, [&](int active) {
        return active == 0 ? std::string("no") : style.notable("yes, defrost is held");
    });
    if (report.reservations.value)
        screen += "  reservations, in local time:\n" +
                  reservationTable(*report.reservations.value, report.now, style);
    else
        screen += unknown("reservations", report.reservations.missing, style);

    screen += "\n" + heading("Consumption", style);
    screen += labelled("this month", report.consumption, style,
                       [](const Consumption &figures) { return energyText(figures.cumulative); });
    if (report.consumption.value)
        screen += labelled("last month", energyText(report.consumption.value->monthly));
    return screen;
}

Json statusJson(const StatusReport &report) {
    Json missing = Json::object();
    Json notes = Json::object();
    const auto note = [&](const char *name, const auto &piece) {
        if (!piece.value)
            missing[name] = piece.missing;
        else if (!piece.note.empty())
            notes[name] = piece.note;
    };
    note("level", report.level);
    note("override", report.override);
    note("block", report.block);
    note("event", report.event);
    note("defrost.enabled", report.defrostEnabled);
    note("defrost.active", report.defrostActive);
    note("defrost.reservations", report.reservations);
    note("consumption", report.consumption);

    Json event;
    if (report.event.value) {
        event["stored"] = report.event.value->stored;
        if (report.event.value->details)
            event.update(eventJson(*report.event.value->details, report.now));
    }
    Json consumption;
    if (report.consumption.value)
        consumption = {{"cumulative", report.consumption.value->cumulative},
                       {"monthly", report.consumption.value->monthly}};
    return {{"url", report.url},
            {"at", formatUtc(report.now, kUtcFormat)},
            {"level", valueOrNull(report.level)},
            {"override", valueOrNull(report.override)},
            {"block", valueOrNull(report.block)},
            {"event", event},
            {"defrost",
             {{"enabled", valueOrNull(report.defrostEnabled)},
              {"active", valueOrNull(report.defrostActive)},
              {"reservations", report.reservations.value
                                   ? reservationsJson(*report.reservations.value, report.now)
                                   : Json()}}},
            {"consumption", consumption},
            {"missing", missing},
            {"notes", notes}};
}

/* --- notifications --- */

namespace {

/* The number of a member that may also be a truth value. */
int numberOf(const nlohmann::json &body, const char *name) {
    const auto found = body.find(name);
    if (found == body.end())
        return -1;
    return found->is_boolean()          ? (found->get<bool>() ? 1 : 0)
           : found->is_number_integer() ? found->get<int>()
                                        : -1;
}

/* A text member of what should be an object; empty when it is not there. */
std::string textOf(const nlohmann::json &entry, const char *name) {
    const bool there = entry.is_object() && entry.contains(name) && entry[name].is_string();
    return there ? printable(entry[name].get<std::string>(), kColumns) : "";
}

std::string reservationNews(const nlohmann::json &body) {
    const int action = numberOf(body, "action");
    std::string text = action == 0 ? "created" : action == 2 ? "removed" : "changed";
    const auto entries = body.find("entries");
    if (entries == body.end() || !entries->is_array())
        return text;
    for (const nlohmann::json &entry : *entries) {
        text += " " + textOf(entry, "id");
        const std::string description = textOf(entry, "description");
        if (!description.empty())
            text += " \"" + description + "\"";
    }
    return text;
}

struct Subject {
    const char *name;
    const char *member; // the one that holds the value
    std::string (*meaning)(int value);
};

const std::map<std::string, Subject> &subjects() {
    static const std::map<std::string, Subject> kSubjects{
        {"SendDRLCNotify", {"level", "level", levelText}},
        {"SendOverrideNotify",
         {"override", "override",
          [](int value) -> std::string {
              return value == 0 ? "off, events are followed" : "on, events are not followed";
          }}},
        {"SendDefrostBlockNotify",
         {"block", "block",
          [](int value) -> std::string {
              return value == 0 ? "off, no event is stored" : "on, an event is stored";
          }}},
        {"SendDelayDefrostNotify",
         {"defrost", "enabled",
          [](int value) -> std::string {
              return value == 0 ? "defrost delay is off" : "defrost delay is on";
          }}},
    };
    return kSubjects;
}

} // namespace

std::string notificationLine(const std::string &resource, const Notification &notification,
                             const Style &style) {
    const auto at = parseUtc(notification.at);
    const std::string time = at ? formatLocal(*at, "%F %T") : fitted(notification.at, 19);
    const auto subject = subjects().find(resource);
    const std::string name = subject == subjects().end() ? "reservation" : subject->second.name;
    const std::string meaning =
        subject == subjects().end()
            ? reservationNews(notification.body)
            : subject->second.meaning(numberOf(notification.body, subject->second.member));
    return style.dim(padded(time, 19)) + "  " + style.strong(padded(name, kSubjectColumns)) + "  " +
           meaning + "\n";
}

Json notificationJson(const std::string &resource, const Notification &notification) {
    Json line{{"resource", resource}, {"seq", notification.seq}, {"at", notification.at}};
    for (const auto &[name, value] : notification.body.items())
        if (!line.contains(name))
            line[name] = value;
    return line;
}

std::string watchLine(std::time_t now, const std::string &who, const std::string &what,
                      const Style &style) {
    return style.dim(formatLocal(now, "%F %T") + "  " + padded(who, kSubjectColumns) + "  " +
                     what) +
           "\n";
}

} // namespace corvane::client
