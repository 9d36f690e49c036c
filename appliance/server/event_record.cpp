/* The ledger's conclusions, and the forms of a record; see the header. */
#include "event_record.h"

#include "json_values.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include <nlohmann/json.hpp>

namespace corvane::appliance {
namespace {

using nlohmann::ordered_json;

constexpr TimeMs kTrailGapMs = 300'000;         // over a longer one the counter is not interpolated
constexpr TimeMs kRestartEndsWithinMs = 30'000; // the service reacts a second after the echo

TimeMs toMs(const nlohmann::json &seconds) { return std::llround(seconds.get<double>() * 1000); }

std::optional<TimeMs> readMoment(const nlohmann::json &json, const char *name) {
    return json.at(name).is_null() ? std::nullopt : std::optional(toMs(json.at(name)));
}

std::optional<double> readNumber(const nlohmann::json &json, const char *name) {
    return json.at(name).is_null() ? std::nullopt : std::optional(json.at(name).get<double>());
}

std::string readText(const nlohmann::json &json, const char *name) {
    return json.at(name).is_null() ? "" : json.at(name).get<std::string>();
}

/* "on 2026-07-31T13:20:00.000Z by display; off …", as one cell. */
std::string overridesText(const std::vector<OverrideChange> &overrides) {
    std::string text;
    for (const OverrideChange &change : overrides)
        text += (text.empty() ? "" : "; ") + std::string(change.on ? "on " : "off ") +
                utcText(change.atMs) + " by " + change.by;
    return text;
}

} // namespace

TimeMs EventRecord::lastKnownMs() const {
    return std::max({storedAtMs, commandedAtMs.value_or(0), confirmedAtMs.value_or(0),
                     reportedAtMs.value_or(0), endedAtMs.value_or(0)});
}

// ---- forms --------------------------------------------------------------------------------------

ordered_json recordJson(const EventRecord &record) {
    ordered_json overrides = ordered_json::array();
    for (const OverrideChange &change : record.overrides)
        overrides.push_back({{"on", change.on}, {"at", secondsOf(change.atMs)}, {"by", change.by}});
    return {{"id", record.id},
            {"level", record.plan.level},
            {"orderedAt", momentOrNull(record.orderedAtMs)},
            {"orderedBy", record.orderedBy},
            {"storedAt", secondsOf(record.storedAtMs)},
            {"startAt", secondsOf(record.plan.startMs)},
            {"plannedEndAt", secondsOf(record.plan.endMs)},
            {"commandedAt", momentOrNull(record.commandedAtMs)},
            {"confirmedAt", momentOrNull(record.confirmedAtMs)},
            {"reportedAt", momentOrNull(record.reportedAtMs)},
            {"endedAt", momentOrNull(record.endedAtMs)},
            {"endedBy", textOrNull(record.endedBy)},
            {"overrides", overrides},
            {"energyBeforeWh", orNull(record.energyBeforeWh)},
            {"energyDuringWh", orNull(record.energyDuringWh)},
            {"energyAfterWh", orNull(record.energyAfterWh)},
            {"averageWatt", orNull(record.averageWatt)},
            {"peakWatt", orNull(record.peakWatt)},
            {"baselineAverageWatt", orNull(record.baselineAverageWatt)},
            {"baselinePeakWatt", orNull(record.baselinePeakWatt)},
            {"baselineDays", record.baselineDays},
            {"defrostsHeld", record.defrostsHeld},
            {"clockSetBack", record.clockSetBack},
            {"open", record.isOpen()}};
}

EventRecord recordFromJson(const nlohmann::json &json) {
    EventRecord record;
    record.id = json.at("id").get<std::int64_t>();
    record.plan = {json.at("level").get<int>(), toMs(json.at("startAt")),
                   toMs(json.at("plannedEndAt"))};
    record.orderedAtMs = readMoment(json, "orderedAt");
    record.orderedBy = json.at("orderedBy").get<std::string>();
    record.storedAtMs = toMs(json.at("storedAt"));
    record.commandedAtMs = readMoment(json, "commandedAt");
    record.confirmedAtMs = readMoment(json, "confirmedAt");
    record.reportedAtMs = readMoment(json, "reportedAt");
    record.endedAtMs = readMoment(json, "endedAt");
    record.endedBy = readText(json, "endedBy");
    for (const nlohmann::json &change : json.at("overrides"))
        record.overrides.push_back({change.at("on").get<bool>(), toMs(change.at("at")),
                                    change.at("by").get<std::string>()});
    record.energyBeforeWh = readNumber(json, "energyBeforeWh");
    record.energyDuringWh = readNumber(json, "energyDuringWh");
    record.energyAfterWh = readNumber(json, "energyAfterWh");
    record.averageWatt = readNumber(json, "averageWatt");
    record.peakWatt = readNumber(json, "peakWatt");
    record.baselineAverageWatt = readNumber(json, "baselineAverageWatt");
    record.baselinePeakWatt = readNumber(json, "baselinePeakWatt");
    record.baselineDays = json.at("baselineDays").get<int>();
    record.defrostsHeld = json.at("defrostsHeld").get<int>();
    record.clockSetBack = json.value("clockSetBack", false); // older records know nothing of it
    return record;
}

std::string recordsCsv(const std::vector<EventRecord> &records) {
    // The members of the JSON form in their order; moments as UTC text.
    std::string csv;
    const nlohmann::ordered_json heads = recordJson({}); // items() only refers to it
    for (const auto &[name, value] : heads.items())
        csv += (csv.empty() ? "" : ",") + name;
    csv += "\r\n";
    for (const EventRecord &record : records) {
        std::string line;
        const nlohmann::ordered_json members = recordJson(record);
        for (const auto &[name, value] : members.items()) {
            line += line.empty() ? "" : ",";
            if (name.size() > 2 && name.ends_with("At") && !value.is_null())
                line += utcText(toMs(value));
            else if (value.is_array())
                line += csvField(overridesText(record.overrides));
            else if (value.is_string())
                line += csvField(value.get<std::string>());
            else if (!value.is_null())
                line += value.dump();
        }
        csv += line + "\r\n";
    }
    return csv;
}

// ---- energy -------------------------------------------------------------------------------------

void EnergyTrail::add(TimeMs atMs, double counterWh) {
    if (newest_ && (atMs < newest_->atMs || counterWh < newest_->counterWh)) {
        fine_.points.clear();
        coarse_.points.clear();
    }
    newest_ = Point{atMs, counterWh};
    fine_.add(*newest_);
    coarse_.add(*newest_);
}

void EnergyTrail::Series::add(const Point &point) {
    if (!points.empty() && point.atMs < points.back().atMs + stepMs)
        return;
    points.push_back(point);
    while (points.front().atMs < point.atMs - keptMs)
        points.pop_front();
}

std::optional<double> EnergyTrail::Series::at(TimeMs atMs, const Point &newest) const {
    if (points.empty() || atMs < points.front().atMs || atMs > newest.atMs)
        return std::nullopt;
    const auto after =
        std::upper_bound(points.begin(), points.end(), atMs,
                         [](TimeMs moment, const Point &point) { return moment < point.atMs; });
    const Point &left = *std::prev(after);
    const Point &right = after != points.end() ? *after : newest;
    if (right.atMs == left.atMs)
        return left.counterWh;
    if (right.atMs - left.atMs > kTrailGapMs)
        return std::nullopt;
    const double share =
        static_cast<double>(atMs - left.atMs) / static_cast<double>(right.atMs - left.atMs);
    return left.counterWh + share * (right.counterWh - left.counterWh);
}

std::optional<double> EnergyTrail::at(TimeMs atMs) const {
    if (!newest_)
        return std::nullopt;
    const auto found = fine_.at(atMs, *newest_);
    return found ? found : coarse_.at(atMs, *newest_);
}

std::optional<double> EnergyTrail::between(TimeMs fromMs, TimeMs toMs) const {
    const auto from = at(fromMs);
    const auto to = at(toMs);
    return from && to ? std::optional(*to - *from) : std::nullopt;
}

// ---- the ledger ---------------------------------------------------------------------------------

EventLedger::EventLedger(std::int64_t nextId, std::optional<EventRecord> open)
    : nextId_(nextId), open_(std::move(open)) {}

void EventLedger::resume(const EventRecord &ended) {
    settling_.push_back({ended});
    ended_.push_back(ended);
}

void EventLedger::ordered(int level, TimeMs atMs) {
    lastOrder_ = Order{level, atMs, "page"};
    if (level == 0)
        isCancelled_ = true;
    else
        pending_ = lastOrder_;
}

void EventLedger::refused() {
    pending_.reset();
    isCancelled_ = false;
}

void EventLedger::stored(const std::optional<PlannedEvent> &event, TimeMs atMs) {
    const bool isFirst = !adopted_;
    adopted_ = true;
    if (open_ && event && open_->plan == *event)
        return;
    if (open_)
        end(atMs, isFirst ? "restart" : causeOfEnd(event.has_value(), atMs));
    if (event)
        begin(*event, atMs);
}

/* Why the stored event is gone, when the appliance has been there to see. */
const char *EventLedger::causeOfEnd(bool isReplaced, TimeMs atMs) const {
    if (isCancelled_)
        return "cancel";
    if (isReplaced)
        return "replaced";
    if (atMs >= open_->plan.endMs)
        return "schedule";
    const bool hasRestarted = micomRestartMs_ && atMs - *micomRestartMs_ <= kRestartEndsWithinMs;
    return hasRestarted ? "restart" : "cancel";
}

void EventLedger::begin(const PlannedEvent &event, TimeMs atMs) {
    EventRecord record;
    record.id = nextId_++;
    record.plan = event;
    record.storedAtMs = atMs;
    if (pending_ && pending_->level == event.level) {
        record.orderedAtMs = pending_->atMs;
        record.orderedBy = pending_->by;
    } else {
        record.orderedBy = "remote";
        lastOrder_ = Order{event.level, atMs, "remote"};
    }
    for (const Early &each : std::exchange(early_, {}))
        // One from after this moment is of a time that the clock has gone back over.
        if (each.level == event.level && each.atMs >= event.startMs && each.atMs <= atMs)
            record.*each.stage = each.atMs;
    pending_.reset();
    isCancelled_ = false;
    open_ = record;
    changed(record);
}

void EventLedger::end(TimeMs atMs, const std::string &by) {
    if (by == "cancel" && !isCancelled_)
        lastOrder_ = Order{0, atMs, "remote"};
    isCancelled_ = false;
    EventRecord record = *open_;
    open_.reset();
    record.endedAtMs = atMs;
    record.endedBy = by;
    const TimeMs beganMs = record.beganMs();
    const TimeMs lengthMs = std::min(atMs, record.plan.endMs) - beganMs;
    if (lengthMs > 0) { // else it ended before its start
        record.energyBeforeWh = trail_.between(beganMs - lengthMs, beganMs);
        record.energyDuringWh = trail_.between(beganMs, beganMs + lengthMs);
        if (record.energyDuringWh)
            record.averageWatt = *record.energyDuringWh * 3'600'000 / static_cast<double>(lengthMs);
        resume(record);
    }
    changed(record);
}

void EventLedger::reached(Stage stage, int level, TimeMs atMs) {
    if (!open_ || level != open_->plan.level) {
        // It may be of an event whose storing is seen a little later.
        std::erase_if(early_, [&](const Early &each) { return level == 0 || each.stage == stage; });
        if (level != 0)
            early_.push_back({stage, level, atMs});
    } else if (!((*open_).*stage)) {
        (*open_).*stage = atMs;
        changed(*open_);
    }
}

void EventLedger::commanded(int level, TimeMs atMs) {
    reached(&EventRecord::commandedAtMs, level, atMs);
}

void EventLedger::confirmed(int level, TimeMs atMs) {
    reached(&EventRecord::confirmedAtMs, level, atMs);
}

void EventLedger::reported(int level, TimeMs atMs) {
    reached(&EventRecord::reportedAtMs, level, atMs);
}

void EventLedger::overridden(bool on, const std::string &by, TimeMs atMs) {
    if (open_ && atMs >= open_->beganMs()) {
        open_->overrides.push_back({on, atMs, by});
        changed(*open_);
    }
}

void EventLedger::micomRestarted(TimeMs atMs) { micomRestartMs_ = atMs; }

void EventLedger::defrostHeld(TimeMs atMs) {
    if (open_ && atMs >= open_->beganMs()) {
        ++open_->defrostsHeld;
        changed(*open_);
    }
}

void EventLedger::sample(TimeMs atMs, double powerWatt, double counterWh) {
    trail_.add(atMs, counterWh);
    if (open_ && atMs >= open_->beganMs() && atMs < open_->plan.endMs)
        open_->peakWatt = std::max(powerWatt, open_->peakWatt.value_or(0));
    for (Settling &each : settling_) {
        const TimeMs beganMs = each.record.beganMs();
        const TimeMs stopMs = std::min(*each.record.endedAtMs, each.record.plan.endMs);
        const TimeMs knownMs = stopMs + (stopMs - beganMs);
        if (each.isAfterKnown || atMs < knownMs)
            continue;
        each.isAfterKnown = true;
        each.record.energyAfterWh = trail_.between(stopMs, knownMs);
        changed(each.record);
    }
    forgetSettled();
}

void EventLedger::baseline(std::int64_t id, std::optional<double> averageWatt,
                           std::optional<double> peakWatt, int days) {
    for (Settling &each : settling_) {
        if (each.record.id != id)
            continue;
        each.isBaselineKnown = true;
        each.record.baselineAverageWatt = averageWatt;
        each.record.baselinePeakWatt = peakWatt;
        each.record.baselineDays = days;
        changed(each.record);
    }
    forgetSettled();
}

void EventLedger::forgetSettled() {
    std::erase_if(settling_,
                  [](const Settling &each) { return each.isAfterKnown && each.isBaselineKnown; });
}

void EventLedger::changed(const EventRecord &record) {
    std::erase_if(changed_, [&](const EventRecord &other) { return other.id == record.id; });
    changed_.push_back(record);
}

std::vector<EventRecord> EventLedger::takeChanged() { return std::exchange(changed_, {}); }

std::vector<EventRecord> EventLedger::takeEnded() { return std::exchange(ended_, {}); }

} // namespace corvane::appliance
