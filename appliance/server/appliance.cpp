/*
 * The engine's life: taking what comes in, moving the models on, telling what came of it. How the
 * state is told is in appliance_state.cpp.
 */
#include "appliance.h"

#include "json_values.h"
#include "memory.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <thread>

#include <poll.h>

namespace corvane::appliance {
namespace {

using platform::Status;
using std::chrono::milliseconds;

constexpr const char *kWifiKey = "memory/wifi/connected";
constexpr const char *kServiceLevelKey = "db/corvane/dr/level";
constexpr const char *kServiceOverrideKey = "db/corvane/dr/override";
constexpr const char *kDefrostEnabledKey = "db/corvane/defrost/status";
constexpr const char *kDefrostActiveKey = "db/corvane/defrost/activate";

constexpr const char *kModelsText = "models";
constexpr const char *kOverrideText = "override";
constexpr const char *kMeteringText = "metering";

constexpr TimeMs kMinuteMs = 60'000;
/* So long the models live between two looks at them, when time runs fast or was missed. */
constexpr TimeMs kLongestStepMs = 10'000;
/* Beyond this nobody looked: the models catch up in one go. */
constexpr TimeMs kCatchUpMs = 600'000;
constexpr TimeMs kStepMs = 100;
constexpr int kShortestWaitMs = 20; // real; bounds the work at high speed
constexpr milliseconds kPublishAtMostEach{40};
constexpr milliseconds kPublishAtLeastEach{1000};
constexpr milliseconds kAskEach{5000};
constexpr TimeMs kTrailLoadedMs = TimeMs{49} * 3'600'000;
/* By then the Micom has applied the first command that it heard. In real time, the service has by
 * then begun to watch for the answer. */
constexpr TimeMs kFirstCommandAppliedMs = 900;
constexpr TimeMs kFirstCommandRealMs = 500;

/* Each model draws from a sequence of its own. */
enum class Part : std::uint64_t { Refrigerator = 1, Micom, Metering };

std::uint64_t seedOf(std::uint64_t seed, Part part) {
    return seed * 16 + static_cast<std::uint64_t>(part);
}

const std::map<std::string, int> kLevelCommands = {
    {"SET_SMARTGRID_LEVEL_NORMAL", 0}, {"SET_SMARTGRID_LEVEL1", 1}, {"SET_SMARTGRID_LEVEL2", 2},
    {"SET_SMARTGRID_LEVEL3", 3},       {"SET_SMARTGRID_LEVEL4", 4},
};

/* What a command decides: one that says again what was said last of its kind is a repetition. */
std::string kindOf(const std::string &command) {
    for (const char *kind : {"SET_SMARTGRID_LEVEL", "SET_SMARTGRID_OVERRIDE"})
        if (command.starts_with(kind))
            return kind;
    return "defrost";
}

const char *onOff(bool on) { return on ? "on" : "off"; }

/* A member of a notification; nothing when it is not of that kind. */
std::optional<int> intMember(const nlohmann::json &body, const char *name) {
    const auto found = body.find(name);
    if (found == body.end() || !(found->is_number_integer() || found->is_boolean()))
        return std::nullopt;
    return found->is_boolean() ? static_cast<int>(found->get<bool>()) : found->get<int>();
}

/* A record of a time that the clock has gone back over. One that was open ended at the last moment
 * that is known of it; nobody else would ever end it. */
EventRecord abandoned(EventRecord record) {
    if (record.isOpen()) {
        record.endedAtMs = record.lastKnownMs();
        record.endedBy = "restart";
    }
    record.clockSetBack = true;
    return record;
}

std::string membersText(const nlohmann::json &body) {
    std::string text;
    for (const auto &[name, value] : body.items())
        if (name != "seq" && name != "at" && name != "recent")
            text +=
                " " + name + " " + (value.is_string() ? value.get<std::string>() : value.dump());
    return text;
}

} // namespace

// ---- start and end ------------------------------------------------------------------------------

Appliance::Appliance(Options options, platform::SettingsStore &store, History &history,
                     StreamHub &hub, Terminal &terminal)
    : options_(std::move(options)), store_(store), watcher_(store), history_(history), hub_(hub),
      terminal_(terminal), nowMs_(clockNowMs()), reachedMs_(nowMs_),
      refrigerator_(seedOf(options_.seed, Part::Refrigerator), nowMs_),
      micom_(refrigerator_, seedOf(options_.seed, Part::Micom), nowMs_), display_(refrigerator_),
      metering_(seedOf(options_.seed, Part::Metering)), overrideClaim_(options_.speed) {
    Status status = watcher_.open();
    for (const char *key : {kCommandKey, kDisplayOverrideKey, kOverrideKey, kServiceLevelKey,
                            kServiceOverrideKey, kDefrostEnabledKey, kDefrostActiveKey})
        if (status.ok())
            status = watcher_.watch(key);
    if (status.ok())
        status = store_.write(kWifiKey, 1);
    if (!status.ok())
        throw ApplianceError(status.text);
    override_ = setting(kServiceOverrideKey);
    defrostEnabled_ = setting(kDefrostEnabledKey);
    defrostActive_ = setting(kDefrostActiveKey);
    restore();
    everyMinute(nowMs_);
    step(nowMs_);
    publishIfDue();
}

Appliance::~Appliance() {
    mailbox_.shut();
    history_.flush(); // its tasks know this object
}

/* Goes on where the last run has stopped, as far as that can be known. */
void Appliance::restore() {
    lastTraceId_ = history_.lastTraceId();
    restoreRecords();
    restoreOverride();
    if (const auto text = history_.text(kModelsText)) {
        if (const auto memory = fromText(*text)) {
            refrigerator_.restore(memory->refrigerator);
            micom_.restore(memory->micom);
        } else {
            std::fprintf(stderr, "corvane-appliance: the saved refrigerator cannot be read; a new "
                                 "one takes its place\n");
        }
    }
    if (const auto text = history_.text(kMeteringText)) {
        const auto json = nlohmann::json::parse(*text, nullptr, false);
        if (json.is_object())
            metering_.restore(
                {json.value("posts", std::int64_t{0}), json.value("refused", std::int64_t{0}),
                 json.value("lastAtMs", TimeMs{0}), json.value("lastFigure", std::string()),
                 json.value("lastStatus", 0), json.value("totalCounts", std::int64_t{0})});
    }
}

/* Who has overridden and since when, unless that has changed while nobody looked. */
void Appliance::restoreOverride() {
    const auto text = history_.text(kOverrideText);
    const auto saved = nlohmann::json::parse(text.value_or(""), nullptr, false);
    if (!saved.is_object() || saved.value("value", -1) != override_ ||
        saved.value("sinceMs", TimeMs{0}) > nowMs_) // the clock has gone back since
        return;
    overrideBy_ = saved.value("by", "");
    overrideSinceMs_ = saved.value("sinceMs", TimeMs{0});
}

void Appliance::saveOverride() {
    history_.saveText(
        kOverrideText,
        nlohmann::json{{"value", *override_}, {"by", overrideBy_}, {"sinceMs", *overrideSinceMs_}}
            .dump());
}

/* The event that was stored, and those whose time after is not over or was not looked at. */
void Appliance::restoreRecords() {
    const auto records = history_.records(History::kRecords);
    for (const EventRecord &record : records)
        if (record.lastKnownMs() > nowMs_ && !record.clockSetBack)
            history_.saveRecord(abandoned(record));
    std::optional<EventRecord> open;
    if (!records.empty() && records[0].isOpen() && records[0].lastKnownMs() <= nowMs_)
        open = records[0];
    ledger_.emplace(history_.lastRecordId() + 1, open);
    for (const HistoryRow &row : history_.rows((nowMs_ - kTrailLoadedMs) / 1000, nowMs_ / 1000, 60))
        ledger_->trail().add((row.atSec + 60) * 1000, row.counterWh);
    for (const EventRecord &record : records)
        if (!record.isOpen() && record.energyDuringWh && !record.energyAfterWh &&
            !record.clockSetBack && *record.endedAtMs <= nowMs_ &&
            *record.endedAtMs > nowMs_ - kTrailLoadedMs)
            ledger_->resume(record);
}

void Appliance::save() {
    history_.saveText(kModelsText, toText({refrigerator_.memory(), micom_.memory()}));
    const MeteringTotals &totals = metering_.totals();
    history_.saveText(kMeteringText, nlohmann::json{{"posts", totals.posts},
                                                    {"refused", totals.refused},
                                                    {"lastAtMs", totals.lastAt},
                                                    {"lastFigure", totals.lastFigure},
                                                    {"lastStatus", totals.lastStatus},
                                                    {"totalCounts", totals.totalCounts}}
                                         .dump());
}

void Appliance::run(int stopFd) {
    terminal_.say(nowMs_, "Micom", "ready");
    std::array<pollfd, 3> waits{
        {{stopFd, POLLIN, 0}, {watcher_.fd(), POLLIN, 0}, {mailbox_.fd(), POLLIN, 0}}};
    while ((waits[0].revents & POLLIN) == 0) {
        if (poll(waits.data(), waits.size(), waitMs()) < 0 && errno != EINTR)
            throw ApplianceError(platform::systemFailure(errno, "cannot wait for commands").text);
        advance(clockNowMs());
        takeSettings();
        mailbox_.run();
        answerFirstCommand();
        settleRecords();
        publishIfDue();
    }
    mailbox_.shut();
    save();
    terminal_.say(nowMs_, "Micom", "stopped");
}

/* Until the models have something to do, or somebody wants to see them move. */
int Appliance::waitMs() const {
    const TimeMs next = std::min({micom_.nextAt(), display_.nextAt(), reachedMs_ + kStepMs});
    const TimeMs realMs = (next - clockNowMs()) / options_.speed;
    const TimeMs longestMs = isChanged_ ? kPublishAtMostEach.count() : kStepMs;
    return static_cast<int>(
        std::clamp<TimeMs>(realMs, options_.speed == 1 ? 1 : kShortestWaitMs, longestMs));
}

// ---- the settings store -------------------------------------------------------------------------

std::optional<int> Appliance::setting(const char *key) const {
    platform::SettingValue value;
    if (!store_.read(key, value).ok() || !std::holds_alternative<int>(value))
        return std::nullopt;
    return std::get<int>(value);
}

void Appliance::takeSettings() {
    const Status status =
        watcher_.drain([this](const platform::SettingChange &change) { hear(change); });
    if (!status.ok())
        throw ApplianceError(status.text);
}

void Appliance::hear(const platform::SettingChange &change) {
    if (!change.value)
        return;
    if (change.key == kCommandKey) {
        if (const auto *command = std::get_if<std::string>(&*change.value))
            hearCommand(*command);
        return;
    }
    const int *value = std::get_if<int>(&*change.value);
    if (value == nullptr)
        return;
    isChanged_ = true;
    if (change.key == kDisplayOverrideKey)
        overrideClaim_.pressed(*value, nowMs_);
    else if (change.key == kDefrostEnabledKey)
        defrostEnabled_ = *value;
    else if (change.key == kDefrostActiveKey)
        defrostActive_ = *value;
    else if (change.key == kServiceOverrideKey)
        hearOverride(*value);
}

void Appliance::hearOverride(int value) {
    const int before = std::exchange(override_, value).value_or(0);
    if (before == value)
        return;
    overrideBy_ = overrideClaim_.authorOf(value, nowMs_);
    overrideSinceMs_ = nowMs_;
    ledger_->overridden(value == 1, overrideBy_, nowMs_);
    saveOverride();
}

void Appliance::hearCommand(const std::string &command) {
    const auto level = kLevelCommands.find(command);
    if (level != kLevelCommands.end()) {
        commanded_ = Level{level->second, nowMs_};
        ledger_->commanded(level->second, nowMs_);
    }
    switch (micom_.hear(command, nowMs_)) {
    case Heard::Accepted:
        heardMs_ = nowMs_;
        if (level != kLevelCommands.end() && !firstCommandMs_)
            firstCommandMs_ = nowMs_;
        trace("micom", "in", "heard " + command, {},
              std::exchange(lastHeard_[kindOf(command)], command) == command);
        break;
    case Heard::Unknown:
        trace("micom", "in", "ignored " + platform::inQuotes(command));
        break;
    case Heard::Dropped:
        trace("micom", "in", "dropped " + command);
        break;
    case Heard::Deaf:
        trace("micom", "in", "missed " + command);
        break;
    case Heard::Overrun:
        trace("micom", "in", "overrun " + command);
        break;
    }
    isChanged_ = true;
}

/*
 * A service that starts learns its level from the appliance's first report. A Micom whose level is
 * what it was would never give one, so the first command after our own start is confirmed in any
 * case.
 */
void Appliance::answerFirstCommand() {
    if (hasReportedLevel_ || !firstCommandMs_ || !micom_.alive() ||
        nowMs_ - *firstCommandMs_ <
            std::max(kFirstCommandAppliedMs, kFirstCommandRealMs * options_.speed))
        return;
    write({nowMs_, kLevelKey, refrigerator_.level()});
}

void Appliance::write(const SettingsWrite &write) {
    const Status status = store_.write(write.key, write.value);
    if (!status.ok() && !settingsFail_)
        std::fprintf(stderr, "corvane-appliance: %s\n", status.text.c_str());
    settingsFail_ = !status.ok();
    if (write.key == kLevelKey) {
        hasReportedLevel_ = true;
        confirmed_ = Level{write.value, write.at};
        ledger_->confirmed(write.value, write.at);
        trace("micom", "out", "applied level " + std::to_string(write.value));
    } else if (write.key == kOverrideKey) {
        trace("micom", "out", "applied override " + std::to_string(write.value));
    } else if (write.key == kDisplayOverrideKey) {
        trace("display", "out", "pressed override " + std::string(onOff(write.value != 0)));
    }
    if (write.key != kDisplayPowerKey && write.key != kDisplayOverrideKey)
        reportMs_ = write.at;
}

// ---- time ---------------------------------------------------------------------------------------

void Appliance::advance(TimeMs nowMs) {
    const bool isFar = nowMs < reachedMs_ || nowMs - reachedMs_ > kCatchUpMs;
    while (reachedMs_ != nowMs)
        step(isFar ? nowMs : std::min(nowMs, reachedMs_ + kLongestStepMs));
}

void Appliance::step(TimeMs toMs) {
    nowMs_ = reachedMs_ = toMs;
    int counts = 0;
    for (const SettingsWrite &each : micom_.advance(toMs)) {
        write(each);
        for (const char *key : kEnergyKeys)
            if (each.key == key)
                counts = counts * 256 + each.value;
        if (each.key == kEnergyKeys.back()) {
            // Divided, since 70 counts times 0.01 are 0.7000000000000001.
            const double wh = counts / (1 / Micom::kCountWh);
            counts = 0;
            trace("micom", "out", "published " + nlohmann::json(wh).dump() + " Wh", wh, true);
        }
    }
    if (const auto reading = display_.advance(toMs))
        write(*reading);
    sample(toMs);
    if (toMs / kMinuteMs != savedMinute_)
        everyMinute(toMs);
}

void Appliance::sample(TimeMs atMs) {
    // The refrigerator shows its last step's end; since then its power is constant.
    RefrigeratorState state = refrigerator_.state();
    state.energyWh += state.powerWatt * static_cast<double>(atMs - state.at) / 3'600'000;
    state.at = atMs;
    if (const auto row =
            minutes_.add(state, refrigerator_.level(), override_ == 1, defrostActive_ == 1))
        history_.addMinute(*row);
    ledger_->sample(atMs, state.powerWatt, state.energyWh);
    const bool isDefrostHeld = state.defrost.held && state.defrost.due;
    if (isDefrostHeld && !wasDefrostHeld_)
        ledger_->defrostHeld(atMs);
    wasDefrostHeld_ = isDefrostHeld;
}

void Appliance::everyMinute(TimeMs nowMs) {
    const auto seconds = static_cast<std::time_t>(nowMs / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    refrigerator_.setUtcOffsetSec(static_cast<int>(local.tm_gmtoff));
    savedMinute_ = nowMs / kMinuteMs;
    save();
    if (!told_ || told_->hour != local.tm_hour)
        tellHour(nowMs, local);
}

/* A sign of life where nothing else happens, and what the hour was like. */
void Appliance::tellHour(TimeMs nowMs, const std::tm &local) {
    const RefrigeratorState state = refrigerator_.state();
    if (told_) {
        std::array<char, 96> text{};
        std::snprintf(text.data(), text.size(),
                      "used %.0f Wh since %02d:%02d; fridge %.1f, freezer %.1f °C",
                      state.energyWh - told_->energyWh, told_->hour, told_->minute,
                      state.fridgeCelsius, state.freezerCelsius);
        terminal_.say(nowMs, "Appliance", text.data());
    }
    told_ = Told{local.tm_hour, local.tm_min, state.energyWh};
}

// ---- the service --------------------------------------------------------------------------------

void Appliance::serviceLink(bool reachable, const std::string &reason) {
    if (reachable != isReachable_ || !linkSinceMs_) {
        trace("service", "out",
              reachable ? "reachable at " + options_.serviceUrl : "gone: " + reason);
        linkSinceMs_ = nowMs_;
        askedAt_ = {};
    }
    isReachable_ = reachable;
    unreachableReason_ = reason;
    isChanged_ = true;
}

void Appliance::servicePresents(const std::string &resource, const nlohmann::json &body) {
    if (resource == "SendDefrostBlockNotify")
        block_ = intMember(body, "block");
    if (resource == "SendDRLCNotify")
        if (const auto level = intMember(body, "level")) {
            reported_ = Level{*level, nowMs_};
            trace("remote", "in", resource + membersText(body));
        }
    isChanged_ = true;
}

void Appliance::serviceNotifies(const std::string &resource, const nlohmann::json &body) {
    trace("remote", "in", resource + membersText(body));
    if (resource == "SendDRLCNotify") {
        if (const auto level = intMember(body, "level")) {
            reported_ = Level{*level, nowMs_};
            ledger_->reported(*level, nowMs_);
        }
    } else if (resource == "SendDefrostBlockNotify") {
        block_ = intMember(body, "block");
    } else if (resource == "SendDefrostReservationsNotify") {
        askedAt_ = {};
    }
    isChanged_ = true;
}

void Appliance::serviceStores(const std::optional<PlannedEvent> &event, TimeMs atMs) {
    const bool wasOpen = ledger_->open().has_value();
    ledger_->stored(event, atMs);
    if (event)
        trace("service", "out",
              "stored level " + std::to_string(event->level) + " from " + utcText(event->startMs) +
                  " to " + utcText(event->endMs));
    else if (wasOpen)
        trace("service", "out", "cleared the event");
    isChanged_ = true;
}

void Appliance::serviceTellsReservations(std::vector<client::Reservation> reservations) {
    reservations_ = std::move(reservations);
    isChanged_ = true;
}

void Appliance::serviceTellsConsumption(std::optional<double> thisMonthKwh,
                                        std::optional<double> previousMonthKwh) {
    thisMonthKwh_ = thisMonthKwh;
    previousMonthKwh_ = previousMonthKwh;
    consumptionMs_ = nowMs_;
}

void Appliance::remoteOrders(const std::string &resource, const nlohmann::json &body) {
    trace("remote", "out", "ordered " + resource + membersText(body));
    if (resource == "ControlDRLC")
        ledger_->ordered(body.at("level").get<int>(), nowMs_);
    else if (resource == "ControlOverride")
        overrideClaim_.ordered();
    isChanged_ = true;
}

void Appliance::remoteAnswered(const std::string &resource, bool isGood,
                               const std::string &reason) {
    if (isGood)
        trace("remote", "in", "done " + resource);
    else
        trace("remote", "in", "refused " + resource + ": " + reason);
    if (!isGood && resource == "ControlDRLC")
        ledger_->refused();
    askedAt_ = {};
    isChanged_ = true;
}

// ---- the page -----------------------------------------------------------------------------------

void Appliance::pressOverride(bool on) { write(display_.pressOverride(on, nowMs_)); }

void Appliance::setDoor(Compartment compartment, bool open) {
    refrigerator_.setDoor(compartment, open, nowMs_);
    trace("page", "in",
          std::string(open ? "opened" : "closed") + " the " +
              (compartment == Compartment::Fridge ? "fridge" : "freezer") + " door");
    isChanged_ = true;
}

bool Appliance::setFault(const std::string &name, bool on) {
    MicomFaults micom = micom_.faults();
    MeteringFaults metering = metering_.faults();
    const std::map<std::string, bool *> switches{{"micomSilent", &micom.silent},
                                                 {"micomSlow", &micom.slow},
                                                 {"micomDropsCommands", &micom.dropsCommands},
                                                 {"micomWrongEcho", &micom.wrongEcho},
                                                 {"meteringRefuses", &metering.refuses},
                                                 {"meteringSlow", &metering.slow},
                                                 {"meteringNeverAnswers", &metering.neverAnswers},
                                                 {"meteringGarbage", &metering.garbage}};
    if (name == "micomRestart") {
        if (on) {
            ledger_->micomRestarted(nowMs_);
            micom_.restart(nowMs_);
            lastHeard_.clear();
            trace("page", "in", "restarted the Micom");
        }
    } else if (const auto found = switches.find(name);
               found != switches.end() && (options_.hasMetering || !name.starts_with("metering"))) {
        *found->second = on;
        micom_.setFaults(micom);
        metering_.setFaults(metering);
        trace("page", "in", "switched " + name + " " + onOff(on));
        if (onMeteringFault && name.starts_with("metering"))
            onMeteringFault();
    } else {
        return false;
    }
    isChanged_ = true;
    return true;
}

MeteringAnswer Appliance::meter(const std::string &method, const std::string &target) {
    const std::int64_t before = metering_.totals().totalCounts;
    MeteringAnswer answer = metering_.take(method, target, nowMs_);
    const std::int64_t counts = metering_.totals().totalCounts - before;
    const std::string outcome =
        answer.delayMs ? "answered " + std::to_string(answer.status) : "never answered";
    if (counts > 0)
        trace("metering", "in", "took " + metering_.totals().lastFigure + " Wh, " + outcome,
              static_cast<double>(counts) / 100, true);
    else
        trace("metering", "in", "kept nothing of " + platform::inQuotes(target) + ", " + outcome,
              {}, true);
    return answer;
}

// ---- telling ------------------------------------------------------------------------------------

void Appliance::trace(const char *source, const char *direction, const std::string &text,
                      std::optional<double> value, bool isRoutine) {
    static const std::map<std::string, std::string> kNames{
        {"micom", "Micom"},       {"display", "Display"}, {"remote", "Remote side"},
        {"metering", "Metering"}, {"service", "Service"}, {"page", "Page"}};
    const TraceEntry entry{++lastTraceId_, nowMs_, source, direction, text, value};
    history_.addTrace(entry);
    hub_.publish(streamEvent("trace", textOf(traceJson(entry)), entry.id));
    if (!isRoutine)
        terminal_.say(nowMs_, kNames.at(source), text);
}

/* Saves and shows what the ledger has concluded; baselines are looked up where a wait does no
 * harm. */
void Appliance::settleRecords() {
    for (const EventRecord &record : ledger_->takeChanged()) {
        history_.saveRecord(record);
        hub_.publish(streamEvent("record", textOf(recordJson(record))));
        isChanged_ = true;
    }
    for (const EventRecord &record : ledger_->takeEnded()) {
        history_.afterWrites([this, record] {
            Baseline found;
            try {
                found = history_.baseline(record.beganMs(),
                                          std::min(*record.endedAtMs, record.plan.endMs));
            } catch (const HistoryError &error) {
                std::fprintf(stderr, "corvane-appliance: no baseline for event %lld: %s\n",
                             static_cast<long long>(record.id), error.what());
            }
            mailbox_.post([this, id = record.id, found] {
                ledger_->baseline(id, found.averageWatt, found.peakWatt, found.days);
            });
        });
    }
}

void Appliance::publishIfDue() {
    const auto now = Steady::now();
    if (onAskService && isReachable_ && now - askedAt_ >= kAskEach) {
        askedAt_ = now;
        onAskService();
    }
    const auto since = now - publishedAt_;
    if (since < kPublishAtMostEach)
        return;
    std::vector<int> seen = visible();
    if (!isChanged_ && seen == visible_ && since < kPublishAtLeastEach)
        return;
    visible_ = std::move(seen);
    isChanged_ = false;
    publishedAt_ = now;
    auto snapshot = std::make_shared<Snapshot>();
    snapshot->json = compose();
    snapshot->text = textOf(snapshot->json);
    snapshot->takenAt = now;
    hub_.publishState(streamEvent("state", snapshot->text));
    const std::lock_guard<std::mutex> lock(snapshotMutex_);
    snapshot_ = std::move(snapshot);
}

std::string Appliance::stateText() const { return textOf(compose()); }

std::shared_ptr<const Snapshot> Appliance::snapshot() const {
    const std::lock_guard<std::mutex> lock(snapshotMutex_);
    return snapshot_;
}

} // namespace corvane::appliance
