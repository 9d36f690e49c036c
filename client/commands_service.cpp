/*
 * The commands that ask or order once: status, dr, override, defrost, energy.
 *
 * The service answers "done" to some orders that it does not follow, and some take effect only when
 * the appliance confirms them. Where it costs one more question, the command asks and says so.
 */
#include "commands.h"

#include "answers.h"
#include "calendar.h"
#include "errors.h"
#include "local_state.h"

#include <algorithm>
#include <ctime>

namespace corvane::client {
namespace {

constexpr const char *kOnlyLocal = "known on the service's own machine only";

std::vector<Reservation> readReservations(const nlohmann::json &answer) {
    std::vector<Reservation> reservations;
    const std::string resource = "GetDefrostReservations";
    for (const nlohmann::json &entry : member<nlohmann::json>(answer, "reservations", resource))
        reservations.push_back({member<std::string>(entry, "id", resource),
                                member<std::string>(entry, "description", resource),
                                member<std::string>(entry, "startTime", resource),
                                member<std::string>(entry, "endTime", resource),
                                member<std::string>(entry, "period", resource)});
    return reservations;
}

Consumption readConsumption(const nlohmann::json &answer) {
    const std::string resource = "GetEnergyConsumption";
    return {member<std::string>(answer, "cumulative", resource),
            member<std::string>(answer, "monthly", resource)};
}

/* The answer, or the sentence why there is none; what the network says still throws. */
Piece<nlohmann::json> tryToAsk(CoapClient &client, const std::string &resource) {
    const Reply reply = client.get(resource);
    if (!reply.isGood())
        return {{}, sentenceFor(reply, resource, client.endpoint()), {}};
    return {reply.object(), {}, {}};
}

/* A member of an answer. An override or a defrost delay of -1 is one whose setting holds no state;
 * a level is never negative. */
Piece<int> numberOf(const Piece<nlohmann::json> &answer, const char *name,
                    const std::string &resource) {
    if (!answer.value)
        return {{}, answer.missing, {}};
    const int value = member<int>(*answer.value, name, resource);
    if (value < 0)
        return {{}, "the service does not know it", {}};
    return {value, {}, {}};
}

/* The setting in which the service keeps the value, where there is no answer. */
void fallBackTo(const Piece<int> &stored, Piece<int> &piece) {
    if (!piece.value && stored.value && *stored.value >= 0)
        piece = {stored.value, {}, "as last stored, not yet confirmed"};
}

/* After its start the service answers level 0 until the appliance confirms one; that this is not
 * what the appliance last did is told by the setting alone. */
void compareLevel(const Piece<int> &stored, Piece<int> &level) {
    if (level.value && stored.value && *level.value != *stored.value)
        level.note = "last stored: " + std::to_string(*stored.value) +
                     "; not confirmed since the service started";
}

Piece<EventReport> eventByBlock(const Piece<int> &block) {
    if (!block.value)
        return {{}, block.missing, {}};
    return {EventReport{*block.value == 1, {}}, {}, std::string("its times are ") + kOnlyLocal};
}

/* Takes the event from the service's table, unless the block tells that it is another service's. */
void addDetails(const Piece<EventReport> &stored, StatusReport &report) {
    if (!stored.value) {
        if (!report.event.value || report.event.value->stored)
            report.event.missing = report.event.note = stored.missing;
    } else if (report.block.value && stored.value->stored != (*report.block.value == 1)) {
        report.event.note = "the files tell otherwise: is CORVANE_STATE_DIR this service's?";
    } else {
        report.event = stored;
    }
}

StatusReport collectStatus(const Context &context) {
    CoapClient client = context.connect();
    const auto override = tryToAsk(client, "GetDRLCOverride");
    const auto block = tryToAsk(client, "GetDefrostBlock");
    const auto defrost = tryToAsk(client, "GetDelayDefrost");
    const auto reservations = tryToAsk(client, "GetDefrostReservations");
    const auto energy = tryToAsk(client, "GetEnergyConsumption");
    if (!override.value && !block.value && !defrost.value && !reservations.value && !energy.value)
        throw CommandFailed(block.missing);

    StatusReport report;
    report.url = context.endpoint.url();
    report.level = numberOf(override, "level", "GetDRLCOverride");
    report.override = numberOf(override, "override", "GetDRLCOverride");
    report.block = numberOf(block, "block", "GetDefrostBlock");
    report.defrostEnabled = numberOf(defrost, "enabled", "GetDelayDefrost");
    report.reservations.missing = reservations.missing;
    if (reservations.value)
        report.reservations.value = readReservations(*reservations.value);
    report.consumption.missing = energy.missing;
    if (energy.value)
        report.consumption.value = readConsumption(*energy.value);

    report.event = eventByBlock(report.block);
    report.defrostActive.missing = kOnlyLocal;
    if (context.endpoint.isLoopback()) {
        const LocalState local(environmentFolders());
        const Piece<int> storedLevel = local.integer("db/corvane/dr/level");
        fallBackTo(storedLevel, report.level);
        compareLevel(storedLevel, report.level);
        fallBackTo(local.integer("db/corvane/dr/override"), report.override);
        report.defrostActive = local.integer("db/corvane/defrost/activate");
        addDetails(local.event(), report);
    }
    report.now = std::time(nullptr);
    return report;
}

} // namespace

CoapClient Context::connect() const {
    std::optional<Credentials> credentials;
    if (endpoint.secure)
        credentials = readCredentials(pskFile, identity);
    return {endpoint, credentials, timeoutSec};
}

void Context::print(const Json &object, bool asLine) const {
    out << object.dump(asLine ? -1 : 2, ' ', false, Json::error_handler_t::replace) << "\n"
        << std::flush;
}

void showStatus(const Context &context) {
    const StatusReport report = collectStatus(context);
    if (context.json)
        context.print(statusJson(report));
    else
        context.out << statusScreen(report, context.style);
}

void startEvent(const Context &context, const EventOrder &order) {
    CoapClient client = context.connect();
    nlohmann::json body{{"level", order.level}};
    if (order.length)
        body["duration"] = *order.length;
    if (order.start)
        body["start"] = *order.start;
    client::order(client, "ControlDRLC", body);

    const std::time_t now = std::time(nullptr);
    const int length = order.length ? parseTimeOfDay(*order.length).value() : kDefaultEventSec;
    const EventTime time =
        placeEvent(order.start ? parseTimeOfDay(*order.start) : std::nullopt, length, now);
    if (context.json)
        context.print(orderedJson(order.level, time, now));
    else
        context.out << orderedText(order.level, time, now, context.style);
}

void cancelEvent(const Context &context) {
    CoapClient client = context.connect();
    order(client, "ControlDRLC", {{"level", 0}});
    if (context.json)
        context.print({{"cancelled", true}});
    else
        context.out << "Cancelled; the appliance returns to normal operation.\n";
}

void setOverride(const Context &context, bool on) {
    CoapClient client = context.connect();
    order(client, "ControlOverride", {{"override", on ? 1 : 0}});
    if (context.json)
        context.print({{"requested", on ? 1 : 0}});
    else
        context.out << "Override " << (on ? "on" : "off")
                    << " is requested; it holds once the appliance confirms it "
                       "(corvanectl status).\n";
}

void setDefrostDelay(const Context &context, bool on) {
    CoapClient client = context.connect();
    order(client, "SetDelayDefrost", {{"enabled", on ? 1 : 0}});
    const int enabled = member<int>(ask(client, "GetDelayDefrost"), "enabled", "GetDelayDefrost");
    if (on && enabled == 0)
        throw CommandFailed("defrost delay stays off: a demand-response event is stored; repeat "
                            "when it has ended, or end it with: corvanectl dr cancel");
    if (context.json)
        context.print({{"enabled", enabled}});
    else
        context.out << "Defrost delay is " << (enabled == 0 ? "off" : "on") << ".\n";
}

void listReservations(const Context &context) {
    CoapClient client = context.connect();
    const auto reservations = readReservations(ask(client, "GetDefrostReservations"));
    const std::time_t now = std::time(nullptr);
    if (context.json)
        context.print({{"reservations", reservationsJson(reservations, now)}});
    else
        context.out << reservationTable(reservations, now, context.style);
}

void addReservation(const Context &context, const Reservation &reservation) {
    CoapClient client = context.connect();
    const nlohmann::json answer = order(client, "CreateDefrostReservations",
                                        {{"startTime", reservation.startTime},
                                         {"endTime", reservation.endTime},
                                         {"period", reservation.period},
                                         {"description", reservation.description}});
    const auto id = member<std::string>(answer, "id", "CreateDefrostReservations");
    if (context.json)
        context.print({{"id", id}});
    else
        context.out << "Added as reservation " << printable(id, 4) << ".\n";
}

void removeReservation(const Context &context, const std::string &id) {
    CoapClient client = context.connect();
    const auto reservations = readReservations(ask(client, "GetDefrostReservations"));
    if (std::none_of(reservations.begin(), reservations.end(),
                     [&](const Reservation &reservation) { return reservation.id == id; }))
        throw CommandFailed("there is no reservation " + id +
                            "; see which there are with: corvanectl defrost list");
    order(client, "DelDefrostReservations", {{"id", id}});
    if (context.json)
        context.print({{"removed", id}});
    else
        context.out << "Removed reservation " << id << ".\n";
}

void showEnergy(const Context &context) {
    CoapClient client = context.connect();
    const Consumption consumption = readConsumption(ask(client, "GetEnergyConsumption"));
    if (context.json) {
        context.print({{"cumulative", consumption.cumulative}, {"monthly", consumption.monthly}});
        return;
    }
    const std::string thisMonth = energyText(consumption.cumulative);
    const std::string lastMonth = energyText(consumption.monthly);
    const std::size_t width = std::max(thisMonth.size(), lastMonth.size());
    const auto figure = [&](const char *label, const std::string &text) {
        context.out << "  " << label << std::string(width - text.size(), ' ') << text << "\n";
    };
    figure("this month so far  ", thisMonth);
    figure("last month         ", lastMonth);
}

} // namespace corvane::client
