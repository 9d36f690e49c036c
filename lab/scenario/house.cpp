/*
 * The house, in this order: a life from begin to end, the appliance, what the service says, faults,
 * the operator.
 */
#include "house.h"

#include "memory.h" // of the models
#include <life.h>
#include <shared_memory.h>
#include <storage.h>
#include <virtual_time.h>

#include <display_board.h>
#include <micom.h>
#include <refrigerator.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include <unistd.h>

namespace corvane::lab {
namespace {

constexpr std::int64_t kSecMs = 1'000;
constexpr std::int64_t kNever = INT64_MAX;
constexpr std::int64_t kStepMs = 10 * kSecMs; // of the refrigerator's model
constexpr std::int64_t kRetryMs = kMinuteMs;
constexpr std::int64_t kSetUpMs = 30 * kSecMs;
constexpr std::int64_t kAwayMs = 10 * kSecMs; // between two lives
constexpr std::int64_t kDelayAfterEndMs = 2 * kMinuteMs;
constexpr std::size_t kMostNotes = 20'000;
constexpr int kStatementsFailing = 20; // a minute, while the store is in trouble
constexpr double kHangSec = 20;
constexpr int kBroken = 42; // exit status of a life
constexpr std::string_view kLevelCommand = "SET_SMARTGRID_LEVEL";

appliance::Parameters parametersOf(const Scenario &scenario, const RunOptions &options) {
    appliance::Parameters parameters = scenario.parameters;
    parameters.ambientMeanCelsius = scenario.ambientCelsius;
    if (!options.spreadReturn) {
        parameters.returnDelayLongestSec = 0;
        parameters.returnRampLongestSec = 0;
        parameters.returnExtrasLongestSec = 0;
        parameters.returnCapacityLimit = 1;
    }
    return parameters;
}

/* hh:mm:ss, as orders carry it. */
std::string longClock(std::int64_t sec) {
    char text[40];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(sec / 3600),
                  static_cast<int>(sec / 60 % 60), static_cast<int>(sec % 60));
    return text;
}

bool startsWith(const std::string &text, std::string_view begin) {
    return text.compare(0, begin.size(), begin) == 0;
}

/* The level that a command orders; -1 for another command. */
int levelOf(const std::string &command) {
    if (!startsWith(command, kLevelCommand))
        return -1;
    const std::string rest = command.substr(kLevelCommand.size());
    return rest == "_NORMAL" ? 0 : rest.size() == 1 ? rest.front() - '0' : -1;
}

} // namespace

/* The part of a life that does not outlive it, on the ordinary heap. */
struct House::InLife {
    InLife(std::uint64_t seed, std::int64_t nowMs, const appliance::Parameters &parameters)
        : refrigerator(seed, nowMs, parameters), micom(refrigerator, seed, nowMs),
          board(refrigerator) {}

    appliance::Refrigerator refrigerator;
    appliance::Micom micom;
    appliance::DisplayBoard board;
    std::thread loop, operatorThread;
    std::mutex mutex; // of the conditions alone
    std::condition_variable bodyWakes, operatorWakes;
    bool bodyIsWanted = false;
    bool operatorEnds = false;
    int month = 0;
    std::int64_t placeMs = 0; // until when the local time's offset is known
};

House::House(const Scenario &scenario, const RunOptions &options,
             const std::vector<PlannedEvent> &events)
    : scenario_(scenario), options_(options), events_(events), disk_(options.seed),
      lifeBeginMs_(scenario.beginMs()), minuteEndMs_(scenario.beginMs() + kMinuteMs),
      setUpMs_(scenario.beginMs() + kSetUpMs) {
    for (const PlannedEvent &event : events_)
        attempts_.push_back({event.orderMs, false});
    fates_.resize(events_.size());
    minutes_.reserve(static_cast<std::size_t>((scenario.endMs() - scenario.beginMs()) / kMinuteMs));
    delayDueMs_ = scenario.defrostDelay ? setUpMs_ : 0;
    planFaults();
}

RunResult House::result() const {
    RunResult result;
    result.seed = options_.seed;
    result.beginMs = scenario_.beginMs();
    result.minutes.assign(minutes_.begin(), minutes_.end());
    result.fates.assign(fates_.begin(), fates_.end());
    for (const KeptNote &note : notes_)
        result.notes.push_back({note.atMs, note.kind, note.isRefusal, std::string(note.text)});
    result.notesLeftOut = notesLeftOut_;
    result.commands = commands_;
    result.requests = requests_;
    result.refusals = refusals_;
    result.posts = posts_;
    result.postedCounts = postedCounts_;
    result.lives = lives_;
    result.judgedSteps = judge_.steps();
    result.isService = true;
    return result;
}

std::int64_t House::nowMs() const {
    return lifeBeginMs_ + (timeRuns_ ? virtualtime::elapsedMs() : 0);
}

std::uint64_t House::storeFailures() const {
    return fakes::storage::failuresMet() + disk_.busyAnswers();
}

bool House::canLookInto(const std::string &file) const {
    const std::string path = fakes::storage::folder() + file;
    return disk_.exists(path) && disk_.isIdle(path);
}

void House::broken(const std::string &rule, const std::string &what) {
    broken_ = localText(nowMs()) + ": " + rule + ": " + what;
    _exit(kBroken);
}

void House::note(NoteKind kind, const std::string &text, bool isRefusal) {
    if (notes_.size() == kMostNotes)
        ++notesLeftOut_;
    else
        notes_.push_back({nowMs(), kind, isRefusal, std::pmr::string(text)});
}

// ---- A life ----

void House::beginLife() {
    ++lives_;
    preparePlatform(disk_);
    for (const auto &[key, value] : settings_)
        fakes::settings::set(std::string(key), value);
    fakes::clearRecords();
    fakes::wifi::State wifi;
    wifi.connected = !wifiLost_;
    fakes::wifi::set(wifi);
    useZone(scenario_.zone);

    silenceOutput();

    life_ = new InLife(options_.seed, lifeBeginMs_, parametersOf(scenario_, options_));
    // A leak checker does not look into shared memory, where the life is kept.
    [[maybe_unused]] static const InLife *volatile present = nullptr;
    present = life_;
    life_->refrigerator.setHouseholdPresent(scenario_.householdPresent);
    if (!applianceMemory_.empty()) {
        const auto memory = appliance::fromText(applianceMemory_);
        life_->refrigerator.restore(memory.value().refrigerator);
        life_->micom.restore(memory.value().micom);
    }
    const std::string start = virtualtime::formatUtc((lifeBeginMs_ + clockErrorMs_) * 1'000'000);
    virtualtime::start({start + (start.find('.') == std::string::npos ? ".000" : ""),
                        options_.seed * 1'000 + static_cast<std::uint64_t>(lives_), 1e9});
    timeRuns_ = true;
    followPlace();
    for (std::pmr::string &last : lastCommand_)
        last.clear(); // what a new life repeats is worth a line
    if (lives_ > 1)
        note(NoteKind::Life, "starts again");
    const auto key = [](const char *name) { return fakes::settings::getInt(name); };
    judge_.lifeBegins(*this, key("db/corvane/dr/level"), key("db/corvane/dr/override"),
                      key("db/corvane/defrost/status"), key("db/corvane/defrost/activate"));
    fakes::observe([this](const fakes::Entry &entry) { observe(entry); });
    if (powerWasCut_) {
        powerWasCut_ = false;
        life_->micom.restart(nowMs());
    }
    for (int kind = 0; kind < 4; ++kind)
        if (micomFaults_[kind] != 0)
            applyMicomFault(static_cast<FaultKind>(kind), true);
    fakes::metering::hangTransfers(meteringHangsSec_);
    fakes::metering::failTransfers(meteringRefuses_ ? INT32_MAX : 0);
}

bool House::liveOnce() {
    beginLife();
    life_->loop = startService();
    life_->operatorThread = std::thread([this] { operate(); });
    for (;;) {
        while (minuteEndMs_ <= nowMs())
            sampleMinute();
        advanceAppliance(nowMs());
        if (tickMs_ <= nowMs()) {
            tickMs_ = nowMs() + kSecMs;
            judge_.tick();
        }
        if (nowMs() >= scenario_.endMs()) {
            endLife(EndOfLife::Terminate);
            return true;
        }
        if (nextAction_ < actions_.size() && actions_[nextAction_].atMs <= nowMs()) {
            if (act(actions_[nextAction_++]))
                return false;
            continue;
        }
        const std::int64_t actionMs =
            nextAction_ < actions_.size() ? actions_[nextAction_].atMs : kNever;
        waitUntil(std::min({life_->micom.nextAt(), minuteEndMs_, actionMs, scenario_.endMs(),
                            tickMs_, (nowMs() / kStepMs + 1) * kStepMs}));
    }
}

/* Comes back earlier when the Micom has heard something. */
void House::waitUntil(std::int64_t timeMs) {
    std::unique_lock lock(life_->mutex);
    if (!life_->bodyIsWanted && timeMs > nowMs())
        life_->bodyWakes.wait_for(lock, std::chrono::milliseconds(timeMs - nowMs()));
    life_->bodyIsWanted = false;
}

void House::keepSettings() {
    settings_.clear();
    for (const char *key :
         {"db/corvane/dr/level", "db/corvane/dr/override", "db/corvane/dr/micom_override",
          "db/corvane/defrost/status", "db/corvane/defrost/activate"})
        if (const auto value = fakes::settings::getInt(key))
            settings_.emplace_back(key, *value);
    if (powerWasCut_)
        return;
    std::vector<const char *> micomKeys(appliance::kEnergyKeys.begin(),
                                        appliance::kEnergyKeys.end());
    micomKeys.insert(micomKeys.end(), {appliance::kLevelKey, appliance::kOverrideKey});
    for (const char *key : micomKeys)
        if (const auto value = fakes::settings::getInt(key))
            settings_.emplace_back(key, *value);
}

void House::terminate() {
    const std::int64_t begin = nowMs();
    const bool isHeldUp = isStoreTroubled() || isMeteringTroubled(); // which may be over meanwhile
    fakes::loop::requestStop();
    life_->loop.join();
    const std::int64_t tookMs = nowMs() - begin;
    life_->operatorEnds = true;
    life_->operatorWakes.notify_all();
    life_->operatorThread.join();
    keepLife(EndOfLife::Terminate);
    judge_.terminated(finishTime(), tookMs, isHeldUp);
}

void House::endLife(EndOfLife end) {
    judge_.lifeEnds(end);
    if (end == EndOfLife::Terminate)
        terminate();
    else
        keepLife(end);
}

/* What the next life finds. */
void House::keepLife(EndOfLife end) {
    powerWasCut_ = end == EndOfLife::PowerCut;
    fakes::observe(nullptr);
    keepSettings();
    applianceMemory_ = appliance::toText({life_->refrigerator.memory(), life_->micom.memory()});
    lifeBeginMs_ = nowMs() + kAwayMs;
    timeRuns_ = false;
    if (powerWasCut_)
        disk_.cutPower();
}

// ---- The appliance ----

void House::advanceAppliance(std::int64_t timeMs) {
    for (const appliance::SettingsWrite &write : life_->micom.advance(timeMs)) {
        judge_.micomWrites(write.key, write.value);
        fakes::settings::set(write.key, write.value);
    }
    fakes::power::set(life_->board.reading());
}

void House::sampleMinute() {
    advanceAppliance(minuteEndMs_);
    const appliance::Refrigerator &refrigerator = life_->refrigerator;
    const appliance::RefrigeratorMemory memory = refrigerator.memory();
    const appliance::Temperatures &temperatures = refrigerator.temperatures();
    Minute minute;
    minute.watt = static_cast<float>((refrigerator.energyWh() - minuteBeginWh_) * 60);
    minute.fridgeFood = static_cast<float>(temperatures.fridgeFood);
    minute.freezerFood = static_cast<float>(temperatures.freezerFood);
    minute.freezerAir = static_cast<float>(temperatures.freezerAir);
    minute.level = static_cast<std::int8_t>(memory.level);
    minute.override = memory.override;
    minute.defrostHeld = memory.held;
    minute.defrostHeating = refrigerator.defrost().heaterOn();
    minuteBeginWh_ = refrigerator.energyWh();
    if (minutes_.size() < minutes_.capacity())
        minutes_.push_back(minute);
    minuteEndMs_ += kMinuteMs;
    followPlace();
    troubleStore();
    if (options_.onProgress && minutes_.size() % 240 == 0)
        options_.onProgress(static_cast<double>(minutes_.size()) /
                            static_cast<double>(minutes_.capacity()));
}

/* What the kitchen learns of the calendar. */
void House::followPlace() {
    if (nowMs() < life_->placeMs)
        return;
    const LocalTime local = localTimeOf(nowMs());
    life_->placeMs = (nowMs() / kHourMs + 1) * kHourMs;
    life_->refrigerator.setUtcOffsetSec(local.offsetSec);
    if (local.date.month != life_->month && !scenario_.ambientByMonth.empty())
        life_->refrigerator.setAmbientMeanCelsius(
            scenario_.ambientByMonth.at(static_cast<std::size_t>(local.date.month - 1)));
    life_->month = local.date.month;
}

// ---- What the service says ----

void House::observe(const fakes::Entry &entry) {
    static const std::string commandKey = std::string(appliance::kCommandKey) + "=";
    if (entry.kind == fakes::Kind::Setting && startsWith(entry.text, commandKey))
        heardCommand(entry.text.substr(commandKey.size()));
    else if (entry.kind == fakes::Kind::Notification)
        heardNotification(entry.text);
    else if (entry.kind == fakes::Kind::Post) {
        int whole = 0;
        int hundredths = 0;
        const std::size_t figure = entry.text.find("cumulativepower=");
        ++posts_;
        if (figure != std::string::npos &&
            std::sscanf(entry.text.c_str() + figure, "cumulativepower=%d.%d", &whole,
                        &hundredths) == 2)
            postedCounts_ += whole * std::int64_t{100} + hundredths;
    }
    judge_.see(entry);
}

void House::heardCommand(const std::string &command) {
    ++commands_;
    (void)life_->micom.hear(command, nowMs());
    life_->bodyIsWanted = true;
    life_->bodyWakes.notify_all();
    const int level = levelOf(command);
    const bool isOverride = command.find("OVERRIDE") != std::string::npos;
    std::pmr::string &last = lastCommand_[level >= 0 ? 0 : isOverride ? 1 : 2];
    if (command != std::string_view(last)) // the service repeats itself every ten minutes
        note(NoteKind::Command, command);
    last = command;
    if (current_ < 0)
        return;
    const auto index = static_cast<std::size_t>(current_);
    if (level == events_[index].level && fates_[index].commandedMs == 0 &&
        nowMs() >= events_[index].startMs)
        fates_[index].commandedMs = nowMs();
}

void House::heardNotification(const std::string &text) {
    note(NoteKind::Notification, text);
    int level = 0;
    if (current_ < 0 || std::sscanf(text.c_str(), "SendDRLCNotify(%d)", &level) != 1)
        return;
    const auto index = static_cast<std::size_t>(current_);
    EventFate &fate = fates_[index];
    if (fate.commandedMs == 0)
        return;
    if (level == events_[index].level && fate.confirmedMs == 0)
        fate.confirmedMs = nowMs();
    if (level == 0 && fate.endedMs == 0)
        fate.endedMs = nowMs();
}

// ---- Faults ----

void House::planFaults() {
    for (const Fault &fault : scenario_.faults) {
        const std::int64_t begin = momentOf(fault.date, fault.startSec);
        actions_.push_back({begin, &fault, true});
        if (fault.durationSec > 0)
            actions_.push_back({begin + fault.durationSec * kSecMs, &fault, false});
    }
    std::stable_sort(actions_.begin(), actions_.end(),
                     [](const Action &a, const Action &b) { return a.atMs < b.atMs; });
}

bool House::act(const Action &action) {
    const Fault &fault = *action.fault;
    note(NoteKind::Fault, faultName(fault.kind) + (fault.durationSec == 0 ? ""
                                                   : action.begins        ? " begins"
                                                                          : " ends"));
    switch (fault.kind) {
    case FaultKind::MicomSilent:
    case FaultKind::MicomSlow:
    case FaultKind::MicomDrops:
    case FaultKind::MicomWrongEcho:
        applyMicomFault(fault.kind, action.begins);
        return false;
    case FaultKind::MicomRestart:
        life_->micom.restart(nowMs());
        return false;
    case FaultKind::WifiLost: {
        wifiLost_ = action.begins;
        fakes::wifi::State wifi;
        wifi.connected = !wifiLost_;
        fakes::wifi::set(wifi);
        return false;
    }
    case FaultKind::MeteringRefuses:
        meteringRefuses_ = action.begins;
        fakes::metering::failTransfers(action.begins ? INT32_MAX : 0);
        return false;
    case FaultKind::MeteringHangs:
        meteringHangsSec_ = action.begins ? kHangSec : 0;
        meteringHeldUpUntilMs_ = nowMs() + static_cast<std::int64_t>(kHangSec * 1000);
        fakes::metering::hangTransfers(meteringHangsSec_);
        return false;
    case FaultKind::DatabaseBusy:
    case FaultKind::DiskFull:
    case FaultKind::IoError:
        storeFault_ = action.begins ? &fault : nullptr;
        fakes::storage::heal();
        troubleStore();
        return false;
    case FaultKind::ClockWrong: {
        const int sec = action.begins ? fault.offsetSec : -fault.offsetSec;
        clockErrorMs_ += sec * kSecMs;
        virtualtime::jumpClock(sec);
        judge_.clockWasTouched();
        return false;
    }
    case FaultKind::Override: {
        const auto write = life_->board.pressOverride(action.begins, nowMs());
        fakes::settings::set(write.key, write.value);
        return false;
    }
    case FaultKind::Restart:
        endLife(EndOfLife::Terminate);
        return true;
    case FaultKind::Kill:
        endLife(EndOfLife::Kill);
        return true;
    case FaultKind::PowerCut:
        endLife(EndOfLife::PowerCut);
        return true;
    }
    return false;
}

void House::applyMicomFault(FaultKind kind, bool on) {
    micomFaults_[static_cast<int>(kind)] = on ? 1 : 0;
    life_->micom.setFaults({.silent = micomFaults_[0] != 0,
                            .slow = micomFaults_[1] != 0,
                            .dropsCommands = micomFaults_[2] != 0,
                            .wrongEcho = micomFaults_[3] != 0});
}

/* A part of each minute's statements fails: the service tries a failing insert again without end
 * and without a pause, which would never be over. */
void House::troubleStore() {
    using fakes::storage::Trouble;
    if (storeFault_ == nullptr)
        return;
    const Trouble trouble = storeFault_->kind == FaultKind::DatabaseBusy ? Trouble::Busy
                            : storeFault_->kind == FaultKind::DiskFull   ? Trouble::Full
                                                                         : Trouble::IoError;
    fakes::storage::failStatements(trouble, kStatementsFailing);
}

// ---- The operator ----

void House::operate() {
    virtualtime::nameThread("operator");
    std::unique_lock lock(life_->mutex);
    while (!life_->operatorEnds) {
        const std::int64_t next = nextOperationMs();
        if (next <= nowMs()) {
            lock.unlock();
            operateDue();
            lock.lock();
        } else if (next == kNever) {
            life_->operatorWakes.wait(lock, [this] { return life_->operatorEnds; });
        } else {
            life_->operatorWakes.wait_for(lock, std::chrono::milliseconds(next - nowMs()),
                                          [this] { return life_->operatorEnds; });
        }
    }
}

std::int64_t House::nextOperationMs() const {
    std::int64_t next = kNever;
    for (const Attempt &attempt : attempts_)
        if (!attempt.isSettled)
            next = std::min(next, attempt.nextMs);
    for (const std::int64_t due : {delayDueMs_, setUpMs_})
        if (due > 0)
            next = std::min(next, due);
    return next;
}

void House::operateDue() {
    if ((setUpMs_ > 0 && setUpMs_ <= nowMs()) || (delayDueMs_ > 0 && delayDueMs_ <= nowMs()))
        setUpDefrost();
    for (std::size_t i = 0; i < attempts_.size(); ++i)
        if (!attempts_[i].isSettled && attempts_[i].nextMs <= nowMs())
            order(i);
}

int House::ask(const std::string &request, const std::function<int()> &call) {
    const int answer = wifiLost_ ? fakes::proxy::kRefused : call();
    ++requests_;
    if (answer != 1)
        ++refusals_;
    note(NoteKind::Request,
         request + (answer == 1   ? " answered 1"
                    : answer == 0 ? " refused"
                                  : (wifiLost_ ? " not delivered: no Wi-Fi"
                                               : " not delivered: the service does not run")),
         answer != 1);
    return answer;
}

void House::order(std::size_t index) {
    const PlannedEvent &event = events_[index];
    EventFate &fate = fates_[index];
    Attempt &attempt = attempts_[index];
    const std::int64_t now = nowMs();
    const bool isBefore = now < event.startMs;
    const std::string level = std::to_string(event.level);
    const std::string duration =
        longClock((event.endMs - (isBefore ? event.startMs : now)) / kSecMs);
    const std::string start = isBefore ? longClock(event.startMs / kSecMs % 86'400) : "";
    ++fate.attempts;
    const int answer =
        ask("ControlDRLC(" + level + ", " + duration + ", " + (isBefore ? start : "now") + ")",
            [&] { return fakes::proxy::controlDrlc(level, duration, start); });
    attempt.nextMs = now + kRetryMs;
    attempt.isSettled = answer == 1 || attempt.nextMs >= event.endMs - kMinuteMs;
    if (answer != 1)
        return;
    if (current_ >= 0) {
        const auto before = static_cast<std::size_t>(current_);
        if (events_[before].endMs > now && fates_[before].endedMs == 0)
            fates_[before].replacedMs = now;
    }
    fate.acceptedMs = now;
    current_ = static_cast<int>(index);
    if (scenario_.defrostDelay) // an event switches it off
        delayDueMs_ = event.endMs + kDelayAfterEndMs;
}

/* Reservations and defrost delay, as the scenario wants them. Tries again until it is done. */
void House::setUpDefrost() {
    const std::int64_t now = nowMs();
    bool isDone = true;
    while (isDone && reservationsMade_ < scenario_.reservations.size()) {
        const ReservationOrder &order = scenario_.reservations[reservationsMade_];
        const auto entry = fakes::proxy::reservation(
            "0000-" + order.firstDay + "T" + longClock(order.startSec),
            "0000-" + order.lastDay + "T00:00:00", longClock(order.periodSec), order.description);
        isDone = ask("CreateDefrostReservations(" + order.firstDay + " to " + order.lastDay + ", " +
                         clockText(order.startSec) + ", " + clockText(order.periodSec) + ")",
                     [&] { return fakes::proxy::createDefrostReservation(entry).answer; }) == 1;
        if (isDone)
            ++reservationsMade_;
    }
    if (isDone && delayDueMs_ > 0 && delayDueMs_ <= now) {
        isDone = ask("SetDelayDefrost(1)", [] { return fakes::proxy::setDelayDefrost(1); }) == 1;
        delayDueMs_ = isDone ? 0 : now + kRetryMs;
    }
    setUpMs_ = isDone ? 0 : now + kRetryMs;
}

} // namespace corvane::lab
