/* How the engine tells its state; the members are those of the HTTP interface. */
#include "appliance.h"
#include "json_values.h"

#include <array>
#include <ctime>

namespace corvane::appliance {
namespace {

using nlohmann::ordered_json;

/* A command that is not confirmed by then is worth a word. */
constexpr TimeMs kConfirmedWithinMs = 20'000;

std::string localText(TimeMs atMs, int &utcOffsetSec) {
    const auto seconds = static_cast<std::time_t>(atMs / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    utcOffsetSec = static_cast<int>(local.tm_gmtoff);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%F %T", &local);
    return text.data();
}

/* Noon of the local day of the moment, and of the days after it. */
std::time_t noonOfDay(TimeMs atMs, int daysLater) {
    const auto seconds = static_cast<std::time_t>(atMs / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    local.tm_mday += daysLater;
    local.tm_hour = 12;
    local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return mktime(&local);
}

std::time_t midnightAfter(std::time_t moment) {
    std::tm local{};
    localtime_r(&moment, &local);
    local.tm_mday += 1;
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return mktime(&local);
}

/* The windows that the service will hold: each day the one of the reservation that it follows when
 * that window begins, and no longer than that day. */
ordered_json windowsOf(const std::vector<client::Reservation> &reservations, TimeMs nowMs) {
    ordered_json windows = ordered_json::array();
    for (const int day : {0, 1}) {
        const std::time_t noon = noonOfDay(nowMs, day);
        for (const client::Reservation &reservation : reservations) {
            const auto window = client::windowOfDay(reservation, noon);
            if (!window ||
                client::currentReservation(reservations, window->start) != reservation.id)
                continue;
            windows.push_back({{"reservationId", reservation.id},
                               {"from", window->start},
                               {"to", std::min(window->end, midnightAfter(window->start))},
                               {"day", day == 0 ? "today" : "tomorrow"}});
        }
    }
    return windows;
}

struct Fault {
    const char *name;
    const char *label;
    const char *description;
    const char *group;
};

constexpr const char *kMicom = "Micom";
constexpr const char *kMetering = "Metering service";

constexpr std::array kFaults{
    Fault{"micomSilent", "Silent", "Hears nothing and reports nothing.", kMicom},
    Fault{"micomSlow", "Slow", "Applies commands after 5 to 15 seconds.", kMicom},
    Fault{"micomDropsCommands", "Drops commands", "Loses every second command.", kMicom},
    Fault{"micomWrongEcho", "Wrong echo", "Reports another level than it has applied.", kMicom},
    Fault{"micomRestart", "Restart", "Starts anew and forgets level, override and hold.", kMicom},
    Fault{"meteringRefuses", "Refuses", "Answers 503 and keeps nothing.", kMetering},
    Fault{"meteringSlow", "Slow", "Answers after 20 seconds.", kMetering},
    Fault{"meteringNeverAnswers", "Never answers", "Takes the figure and never answers.",
          kMetering},
    Fault{"meteringGarbage", "Garbage", "Answers with bytes that mean nothing.", kMetering},
};

} // namespace

ordered_json Appliance::compose() const {
    int utcOffsetSec = 0;
    const std::string local = localText(nowMs_, utcOffsetSec);
    const MeteringTotals &totals = metering_.totals();
    return {{"at", secondsOf(nowMs_)},
            {"zone", options_.zone},
            {"localText", local},
            {"utcOffsetSec", utcOffsetSec},
            {"speed", options_.speed},
            {"version", options_.version},
            {"service",
             {{"reachable", isReachable_},
              {"sinceAt", momentOrNull(linkSinceMs_)},
              {"reason", isReachable_ ? ordered_json(nullptr) : ordered_json(unreachableReason_)},
              {"url", options_.serviceUrl}}},
            {"micom", composeMicom()},
            {"refrigerator", composeRefrigerator()},
            {"demandResponse", composeDemandResponse()},
            {"defrostDelay", composeDefrostDelay()},
            {"consumption",
             {{"thisMonthKwh", orNull(thisMonthKwh_)},
              {"previousMonthKwh", orNull(previousMonthKwh_)},
              {"at", momentOrNull(consumptionMs_)}}},
            {"metering",
             {{"present", options_.hasMetering},
              {"posts", totals.posts},
              {"refused", totals.refused},
              {"lastAt", totals.posts > 0 ? ordered_json(secondsOf(totals.lastAt)) : nullptr},
              {"lastFigure", textOrNull(totals.lastFigure)},
              {"totalWh", totals.totalWh()},
              {"lastStatus", totals.posts > 0 ? ordered_json(totals.lastStatus) : nullptr}}},
            {"faults", composeFaults()}};
}

ordered_json Appliance::composeMicom() const {
    std::string reason;
    if (micom_.faults().silent)
        reason = "it is silent: the fault is switched on";
    else if (!micom_.alive())
        reason = "it starts anew";
    else if (commanded_ && (!confirmed_ || confirmed_->level != commanded_->level) &&
             refrigerator_.level() != commanded_->level &&
             nowMs_ - commanded_->atMs > kConfirmedWithinMs)
        reason = "it has not confirmed level " + std::to_string(commanded_->level);
    return {{"alive", micom_.alive()},
            {"reason", textOrNull(reason)},
            {"lastHeardAt", momentOrNull(heardMs_)},
            {"lastReportAt", momentOrNull(reportMs_)}};
}

ordered_json Appliance::composeRefrigerator() const {
    const RefrigeratorState state = refrigerator_.state();
    const double sinceWh = state.powerWatt * static_cast<double>(nowMs_ - state.at) / 3'600'000;
    return {{"powerWatt", rounded(state.powerWatt)},
            {"energyWh", rounded(state.energyWh + sinceWh)},
            {"fridgeCelsius", rounded(state.fridgeCelsius)},
            {"freezerCelsius", rounded(state.freezerCelsius)},
            {"fridgeFoodCelsius", rounded(state.fridgeFoodCelsius)},
            {"freezerFoodCelsius", rounded(state.freezerFoodCelsius)},
            {"fridgeSetCelsius", rounded(state.fridgeSetCelsius)},
            {"freezerSetCelsius", rounded(state.freezerSetCelsius)},
            {"ambientCelsius", rounded(state.ambientCelsius)},
            {"compressor",
             {{"on", state.compressor.on},
              {"capacity", rounded(state.compressor.capacity)},
              {"watt", rounded(state.compressor.watt)},
              {"reason", orNull(state.compressor.reason)}}},
            {"fanOn", state.fanOn},
            {"antiSweatOn", state.antiSweatOn},
            {"iceMakerOn", state.iceMakerOn},
            {"displayWatt", rounded(state.displayWatt)},
            {"defrost",
             {{"heaterOn", state.defrost.heaterOn},
              {"held", state.defrost.held},
              {"due", state.defrost.due},
              {"heldSinceAt", momentOrNull(state.defrost.heldSinceAt)},
              {"nextInCompressorHours", rounded(state.defrost.nextInCompressorHours)}}},
            {"doors",
             {{"fridgeOpen", state.doors.fridgeOpen}, {"freezerOpen", state.doors.freezerOpen}}},
            {"mode", modeName(state.mode)},
            {"foodLimitActive", state.foodLimitActive}};
}

ordered_json Appliance::composeDemandResponse() const {
    const auto levelJson = [](const std::optional<Level> &level) -> ordered_json {
        if (!level)
            return nullptr;
        return {{"level", level->level}, {"at", secondsOf(level->atMs)}};
    };
    ordered_json ordered = nullptr;
    if (const auto &order = ledger_->lastOrder())
        ordered = {{"level", order->level}, {"at", secondsOf(order->atMs)}, {"by", order->by}};
    ordered_json event = nullptr;
    if (const auto &open = ledger_->open()) {
        const PlannedEvent &plan = open->plan;
        const char *state = nowMs_ < plan.startMs  ? "waiting"
                            : nowMs_ <= plan.endMs ? "running"
                                                   : "ending";
        event = {{"level", plan.level},
                 {"startAt", secondsOf(plan.startMs)},
                 {"endAt", secondsOf(plan.endMs)},
                 {"durationSec", (plan.endMs - plan.startMs) / 1000},
                 {"state", state},
                 {"remainingSec",
                  std::max<TimeMs>(0, (plan.endMs - std::max(nowMs_, plan.startMs)) / 1000)}};
    }
    return {{"ordered", ordered},
            {"commanded", levelJson(commanded_)},
            {"confirmed", levelJson(confirmed_)},
            {"reported", levelJson(reported_)},
            {"event", event},
            {"override",
             {{"on", override_ == 1},
              {"by", textOrNull(overrideBy_)},
              {"sinceAt", momentOrNull(overrideSinceMs_)}}},
            {"block", orNull(block_)}};
}

ordered_json Appliance::composeDefrostDelay() const {
    const auto current = client::currentReservation(reservations_, nowMs_ / 1000);
    ordered_json reservations = ordered_json::array();
    for (const client::Reservation &each : reservations_)
        reservations.push_back({{"id", each.id},
                                {"description", each.description},
                                {"startTime", each.startTime},
                                {"endTime", each.endTime},
                                {"period", each.period},
                                {"current", current == each.id}});
    return {{"enabled", orNull(defrostEnabled_)},
            {"active", orNull(defrostActive_)},
            {"reservations", reservations},
            {"windows", windowsOf(reservations_, nowMs_)}};
}

ordered_json Appliance::composeFaults() const {
    const MicomFaults &micom = micom_.faults();
    const MeteringFaults &metering = metering_.faults();
    const std::array<bool, kFaults.size()> on{micom.silent,
                                              micom.slow,
                                              micom.dropsCommands,
                                              micom.wrongEcho,
                                              !micom_.alive() &&
                                                  !micom.silent, // for as long as the restart takes
                                              metering.refuses,
                                              metering.slow,
                                              metering.neverAnswers,
                                              metering.garbage};
    ordered_json faults = ordered_json::array();
    for (std::size_t i = 0; i < kFaults.size(); ++i)
        if (options_.hasMetering || std::string_view(kFaults[i].group) != kMetering)
            faults.push_back({{"name", kFaults[i].name},
                              {"label", kFaults[i].label},
                              {"description", kFaults[i].description},
                              {"group", kFaults[i].group},
                              {"on", on[i]},
                              {"momentary", std::string_view(kFaults[i].name) == "micomRestart"}});
    return faults;
}

/* What a person notices at once when it changes; the rest may wait a second. */
std::vector<int> Appliance::visible() const {
    const RefrigeratorState state = refrigerator_.state();
    const auto &open = ledger_->open();
    return {static_cast<int>(state.mode),
            state.compressor.on,
            state.fanOn,
            state.antiSweatOn,
            state.iceMakerOn,
            state.defrost.heaterOn,
            state.defrost.held,
            state.defrost.due,
            state.doors.fridgeOpen,
            state.doors.freezerOpen,
            state.foodLimitActive,
            micom_.alive(),
            !open                         ? 0
            : nowMs_ < open->plan.startMs ? 1
            : nowMs_ <= open->plan.endMs  ? 2
                                          : 3};
}

} // namespace corvane::appliance
