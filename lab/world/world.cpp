/*
 * The world: its body, in this order: times and traces, a life from begin to end, what happens in
 * it, the remote side.
 */
#include "world.h"

#include "fakes.h"
#include "life.h"
#include "remote.h"
#include "storage.h"
#include "virtual_time.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include <unistd.h>

// Of the leak checker, where the program is built with one.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace corvane::lab {
namespace {

constexpr std::int64_t kSecMs = 1'000;
constexpr std::int64_t kHourMs = 3'600 * kSecMs;
constexpr std::int64_t kDayMs = 24 * kHourMs;
constexpr std::int64_t kNever = INT64_MAX;
constexpr std::int64_t kCalmLastsMs = 12 * kHourMs;
constexpr std::int64_t kSettlesMs = 30 * 60 * kSecMs;
constexpr std::int64_t kLongestHangMs = 120 * kSecMs; // of the metering service
constexpr std::size_t kLinesKept = 40;
constexpr int kStandstill = 2'000; // statements in no time
constexpr int kBroken = 3;         // exit status of a life

constexpr const char *kZones[] = {"UTC",        "Europe/Berlin",    "America/New_York",
                                  "Asia/Seoul", "Pacific/Auckland", "Australia/Lord_Howe"};

std::uint64_t hashed(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
    return hash ^ (hash >> 32); // a product's upper bits know of all bits below
}

std::uint64_t hashed(std::uint64_t hash, std::string_view text) {
    hash = hashed(hash, text.size());
    for (std::size_t at = 0; at < text.size(); at += sizeof hash) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + at, std::min(sizeof word, text.size() - at));
        hash = hashed(hash, word);
    }
    return hash;
}

std::string utcText(std::int64_t utcMs) { return virtualtime::formatUtc(utcMs * 1'000'000); }

std::string lineText(std::int64_t nowMs, std::int64_t utcMs, std::string_view line) {
    char head[80];
    std::snprintf(head, sizeof head, "%10.3f  %s  ", static_cast<double>(nowMs) / 1000,
                  utcText(utcMs).c_str());
    return std::string(head).append(line);
}

} // namespace

/* The part of a life that does not outlive it, on the ordinary heap. */
struct World::InLife {
    std::thread loop;
    std::thread remotes[2];
    bool remotesEnd = false;
    std::mutex mutex; // of the conditions; what they tell is not shared beside virtual time
    std::condition_variable bodyWakes;
    std::condition_variable remoteWakes;
    bool bodyIsWanted = false;
    std::unique_ptr<fakes::storage::Lock> otherProcess;
    int realOutput = -1;
    bool runs = false; // virtual time runs
    std::unique_ptr<Appliance> appliance;
};

World::World(const Setup &setup)
    : setup_(setup), weather_(setup.hasWeather ? drawWeather(setup.seed) : calmWeather(setup.seed)),
      draws_(setup.seed ^ 0x5eedU), remoteDraws_{Draws(draws_.next()), Draws(draws_.next())},
      disk_(draws_.next()), applianceSeed_(draws_.next()), zone_(weather_.zone) {
    endMs_ = static_cast<std::int64_t>(setup.days * static_cast<double>(kDayMs));
    calmMs_ = std::max<std::int64_t>(endMs_ - kCalmLastsMs, endMs_ / 2);
    plan();
}

// ---- Times and traces ----

std::int64_t World::nowMs() const {
    return pastMs_ + (life_ != nullptr && life_->runs ? virtualtime::elapsedMs() : 0);
}

std::int64_t World::utcMs() const { return weather_.startSec * kSecMs + nowMs() + clockErrorMs_; }

void World::trace(std::string_view line, bool isKept) {
    const std::int64_t times[] = {nowMs(), utcMs()};
    for (const std::int64_t time : times)
        hash_ = hashed(hash_, static_cast<std::uint64_t>(time));
    hash_ = hashed(hash_, line);
    if (setup_.printsTrace && life_ != nullptr)
        dprintf(life_->realOutput, "%s\n", lineText(times[0], times[1], line).c_str());
    if (!isKept)
        return;
    if (lastLines_.size() == kLinesKept) {
        lastLines_.push_back(std::move(lastLines_.front())); // with its memory
        lastLines_.pop_front();
    } else {
        lastLines_.emplace_back();
    }
    lastLines_.back().nowMs = times[0];
    lastLines_.back().utcMs = times[1];
    lastLines_.back().text = line;
}

std::string World::report() const {
    std::string text;
    for (const Line &line : lastLines_)
        text += "  " + lineText(line.nowMs, line.utcMs, line.text) + "\n";
    return text + "BROKEN: " + std::string(brokenRule_) + ": " + std::string(brokenWhat_) + "\n";
}

void World::broken(const std::string &rule, const std::string &what) {
    trace("broken: " + rule);
    brokenRule_ = rule;
    brokenWhat_ = what;
    pastMs_ = nowMs();
    _exit(kBroken);
}

void World::crashed(const std::string &how) {
    life_ = nullptr;
    brokenRule_ = "the service does not end by itself";
    brokenWhat_ = how;
}

void World::observe(const fakes::Entry &entry) {
    static constexpr const char *kKinds[] = {"log",   "set",    "watch",   "loop", "wifi",
                                             "proxy", "notify", "request", "post", "sql"};
    trace(std::string(kKinds[static_cast<int>(entry.kind)]) + "  " + entry.text,
          entry.kind != fakes::Kind::Log && entry.kind != fakes::Kind::Proxy);
    constexpr std::string_view kCommand = "memory/refrigerator/TxMessage=";
    if (entry.kind == fakes::Kind::Setting &&
        entry.text.compare(0, kCommand.size(), kCommand) == 0) {
        life_->appliance->hear(entry.text.substr(kCommand.size()), trueMs());
        planAppliance();
        life_->bodyIsWanted = true;
        life_->bodyWakes.notify_one();
    }
    judge_.see(entry);
    watchForStandstill(entry);
    if (entry.kind == fakes::Kind::Post && !life_->appliance->takesFigure(entry.text, trueMs()))
        broken("the metering service can read the figure", entry.text);
}

/* A loop in which no time passes never ends here; outside, the watchdog ends it. */
void World::watchForStandstill(const fakes::Entry &entry) {
    if (entry.kind != fakes::Kind::Sql)
        return;
    if (statementsMs_ != nowMs()) {
        statementsMs_ = nowMs();
        statementsNow_ = 0;
    }
    if (++statementsNow_ < kStandstill)
        return;
    if (!judge_.explainsEndlessInsert())
        broken("a failing statement is attempted ten times", entry.text);
    trace("world  the watchdog ends a service that is stuck");
    statementsNow_ = 0;
    nextEnd_ = EndOfLife::Kill;
    endLife();
    _exit(0);
}

std::uint64_t World::storeFailures() const {
    return fakes::storage::failuresMet() + disk_.busyAnswers();
}

bool World::isStoreTroubled() const {
    return life_->otherProcess != nullptr || storeTroubledUntilMs_ > nowMs();
}

bool World::canLookInto(const std::string &file) const {
    const std::string path = fakes::storage::folder() + file;
    return disk_.exists(path) && disk_.isIdle(path) && life_->otherProcess == nullptr;
}

// ---- A life ----

void World::plan() {
    std::fill(std::begin(nextMs_), std::end(nextMs_), kNever);
    nextMs_[kJudgeTick] = 0;
    planNext(kMicomTrouble, weather_.micomHours);
    planNext(kMicomRestarts, weather_.micomRestartHours);
    planNext(kDisplay, weather_.displayHours);
    planNext(kClockJumps, weather_.clockJumpHours);
    planNext(kZoneChanges, weather_.zoneHours);
    planNext(kDatabaseTrouble, weather_.databaseHours);
    planNext(kMeteringTrouble, weather_.meteringHours);
    nextMs_[kCalmBegins] = calmMs_;
    nextMs_[kRunEnds] = endMs_;
}

void World::planNext(Actor actor, double meanHours) {
    nextMs_[actor] = meanHours <= 0 || isCalm_
                         ? kNever
                         : nowMs() + static_cast<std::int64_t>(draws_.waiting(meanHours) *
                                                               static_cast<double>(kHourMs));
}

void World::setZone() {
    setenv("TZ", zone_, 1); // NOLINT(concurrency-mt-unsafe): one thread runs at a time
    tzset();
}

EndOfLife World::drawEnd() {
    const double rates[] = {weather_.killHours, weather_.powerCutHours, weather_.terminateHours};
    double first = 1e9;
    EndOfLife end = EndOfLife::Terminate;
    for (int kind = 0; kind < 3; ++kind) {
        const double hours = rates[kind] > 0 ? draws_.waiting(rates[kind]) : 1e9;
        if (hours < first) {
            first = hours;
            end = static_cast<EndOfLife>(kind);
        }
    }
    if (storm_ > 0 && first < 1e9) {
        --storm_;
        first = draws_.between(0, 20) / 3600; // also while the controllers are being built
    } else if (draws_.chance(weather_.stormShare)) {
        storm_ = draws_.whole(1, 8);
    }
    nextMs_[kLifeEnds] =
        isCalm_ || first >= 1e9
            ? kNever
            : nowMs() + static_cast<std::int64_t>(first * static_cast<double>(kHourMs));
    return end;
}

void World::beginLife() {
    ++lives_;
    preparePlatform(disk_);
    std::optional<int> keys[4];
    const char *const names[] = {"db/corvane/dr/level", "db/corvane/dr/override",
                                 "db/corvane/defrost/status", "db/corvane/defrost/activate"};
    for (const auto &[key, value] : settings_) {
        if (const int *number = std::get_if<int>(&value))
            fakes::settings::set(std::string(key), *number);
        else
            fakes::settings::set(std::string(key), std::string(std::get<std::pmr::string>(value)));
    }
    for (int i = 0; i < 4; ++i)
        keys[i] = fakes::settings::getInt(names[i]);
    if (lives_ == 1)
        writeHistory();
    fakes::clearRecords();
    setZone();

    nextEnd_ = drawEnd();
    wifiConnected_ = isCalm_ || weather_.wifiLateSec <= 0 || draws_.chance(0.3);
    const bool isNever = !wifiConnected_ && draws_.chance(0.03);
    nextMs_[kWifi] = kNever;
    if (isNever)
        nextMs_[kWifi] = calmMs_;
    else if (!wifiConnected_)
        nextMs_[kWifi] =
            nowMs() + static_cast<std::int64_t>(draws_.waiting(weather_.wifiLateSec) * 1000);
    fakes::wifi::State wifi;
    wifi.connected = wifiConnected_;
    fakes::wifi::set(wifi);
    if (!isCalm_ && draws_.chance(weather_.wrongClockShare)) {
        const std::int64_t wrong[] = {-trueMs(), 1'420'070'400'000 - trueMs(),
                                      draws_.whole(-72, 72) * kHourMs};
        clockErrorMs_ = draws_.oneOf(wrong);
        nextMs_[kClockMends] = nowMs() + draws_.whole(0, 300) * kSecMs;
    }

    std::fill(std::begin(remoteDueMs_), std::end(remoteDueMs_), kNever);
    life_ = new InLife;
    life_->appliance = std::make_unique<Appliance>(applianceSeed_, applianceMemory_, trueMs());
    if (isPowerCut_)
        life_->appliance->restart(trueMs());
    isPowerCut_ = false;
    planAppliance();
    life_->realOutput = dup(STDOUT_FILENO);
    silenceOutput();
    judge_.lifeBegins(*this, keys[0], keys[1], keys[2], keys[3]);
    trace("a life begins");
    fakes::observe([this](const fakes::Entry &entry) { observe(entry); });
    char start[80];
    const std::int64_t ofSecond = ((utcMs() % kSecMs) + kSecMs) % kSecMs; // also before 1970
    std::snprintf(start, sizeof start, "%s.%03d", utcText(utcMs()).c_str(),
                  static_cast<int>(ofSecond));
    virtualtime::start({start, draws_.next(), 1e9});
    life_->runs = true;
}

/* Hours that the service has counted before the world began, in half of the worlds. */
void World::writeHistory() {
    if (draws_.chance(0.5))
        return;
    fakes::storage::execute("usage.db",
                            "CREATE TABLE power_usage_table(date NUMERIC(12) NOT NULL, "
                            "power_usage NUMERIC(14) NOT NULL, running_time NUMERIC(14) NOT NULL)");
    std::int64_t counter =
        draws_.chance(0.5) ? draws_.whole(999'980, 1'000'000) : draws_.whole(0, 500'000);
    for (int hoursAgo : {7000, 5500, 4400, 3000, 800, 700, 24, 1}) {
        std::string key = utcText(trueMs() - hoursAgo * kHourMs).substr(0, 13);
        std::erase_if(key, [](char character) { return character == '-' || character == 'T'; });
        fakes::storage::execute("usage.db", "INSERT INTO power_usage_table VALUES ('" + key +
                                                "', " + std::to_string(counter) + ", 0)");
    }
}

bool World::liveOnce() {
    beginLife();
    life_->loop = startService();
    for (int number : {0, 1})
        life_->remotes[number] = std::thread([this, number] { runRemote(number); });
    for (;;) {
        const auto *next = std::min_element(std::begin(nextMs_), std::end(nextMs_));
        if (*next > nowMs()) {
            waitUntil(*next);
            continue;
        }
        const auto actor = static_cast<Actor>(next - std::begin(nextMs_));
        if (actor == kLifeEnds || actor == kRunEnds)
            return endLife();
        act(actor);
    }
}

/* Comes back earlier when the appliance has heard something. */
void World::waitUntil(std::int64_t timeMs) {
    std::unique_lock lock(life_->mutex);
    if (!life_->bodyIsWanted)
        life_->bodyWakes.wait_for(lock, std::chrono::milliseconds(timeMs - nowMs()));
    life_->bodyIsWanted = false;
}

/*
 * The monotonic clock, and with it every sleep and time-out, stands still meanwhile, as on a real
 * board. It is woken by what the Micom writes, and a second before anything else that the service
 * may notice.
 */
void World::suspend() {
    constexpr std::int64_t kWakesBeforeMs = kSecMs;
    constexpr std::int64_t kLeastMs = 3 * kSecMs;
    if (!judge_.isQuiet() || isStoreTroubled() || micomWroteMs_ == nowMs())
        return;
    std::int64_t forMs = judge_.untilEdgeMs();
    for (int actor = 0; actor < kActors; ++actor) {
        if (actor != kJudgeTick && actor != kAppliance)
            forMs = std::min(forMs, nextMs_[actor] - nowMs());
    }
    for (const std::int64_t due : remoteDueMs_)
        forMs = std::min(forMs, due - nowMs());
    forMs = std::min(forMs - kWakesBeforeMs, nextMs_[kAppliance] - nowMs()) / kSecMs * kSecMs;
    if (forMs < kLeastMs)
        return;
    virtualtime::jumpClock(static_cast<double>(forMs) / 1000);
    pastMs_ += forMs;
    suspendedMs_ += forMs;
    life_->remoteWakes.notify_all();
}

void World::keepSettings() {
    static constexpr const char *kKept[] = {"db/corvane/dr/level", "db/corvane/dr/override",
                                            "db/corvane/defrost/status",
                                            "db/corvane/defrost/activate"};
    // The Micom goes on when only the service ends, and so do its keys.
    static constexpr const char *kOfMicom[] = {
        "memory/refrigerator/SmartGridDrLevel", "memory/refrigerator/SmartGridOverrideState",
        "memory/refrigerator/SmartGridWatt1",   "memory/refrigerator/SmartGridWatt2",
        "memory/refrigerator/SmartGridWatt3",   "memory/refrigerator/SmartGridWatt4"};
    settings_.clear();
    const auto keep = [this](const char *key) {
        if (const auto value = fakes::settings::getInt(key))
            settings_[key] = *value;
    };
    std::for_each(std::begin(kKept), std::end(kKept), keep);
    if (nextEnd_ != EndOfLife::PowerCut)
        std::for_each(std::begin(kOfMicom), std::end(kOfMicom), keep);
}

void World::terminate() {
    const std::int64_t begin = nowMs();
    const bool isHeldUp = isStoreTroubled() || isMeteringTroubled(); // which may be over meanwhile
    fakes::loop::requestStop();
    life_->loop.join();
    const std::int64_t took = nowMs() - begin;
    life_->remotesEnd = true;
    life_->remoteWakes.notify_all();
    for (std::thread &remote : life_->remotes)
        remote.join();
    pastMs_ = nowMs();
    life_->runs = false;
    life_->otherProcess.reset();
    Judge::Remains remains = finishTime();
    // The checker does not look into shared memory, where this life is kept.
    [[maybe_unused]] static const InLife *volatile present = nullptr;
    present = life_;
    remains.leaks =
        __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
    judge_.terminated(remains, took, isHeldUp);
}

bool World::endLife() {
    isRunOver_ = nowMs() >= endMs_;
    if (isRunOver_)
        nextEnd_ = EndOfLife::Terminate;
    static constexpr const char *kNames[] = {"kill", "power cut", "terminate"};
    trace(std::string("the life ends: ") + kNames[static_cast<int>(nextEnd_)]);
    judge_.lifeEnds(nextEnd_);
    if (nextEnd_ == EndOfLife::Terminate) {
        terminate();
    } else {
        pastMs_ = nowMs();
        life_->runs = false;
    }
    fakes::observe(nullptr);
    keepSettings();
    isPowerCut_ = nextEnd_ == EndOfLife::PowerCut;
    if (isPowerCut_)
        disk_.cutPower();
    life_->appliance->keep();
    // Restarts come at once, after a delay, or when somebody notices.
    const double away[] = {0.2, draws_.between(0.5, 10), draws_.between(10, 3 * 3600)};
    pastMs_ += static_cast<std::int64_t>(draws_.oneOf(away) * 1000);
    storeTroubledUntilMs_ = meteringTroubledUntilMs_ = 0;
    life_ = nullptr;
    return isRunOver_;
}

// ---- What happens in a life ----

void World::act(Actor actor) {
    switch (actor) {
    case kAppliance:
        return advanceAppliance();
    case kJudgeTick:
        judge_.tick();
        if (weather_.suspends && !setup_.staysAwake)
            suspend();
        nextMs_[kJudgeTick] = nowMs() + kSecMs;
        return;
    case kWifi: {
        nextMs_[kWifi] = kNever;
        wifiConnected_ = true;
        fakes::wifi::set({});
        return trace("world  Wi-Fi is connected");
    }
    case kClockMends:
        nextMs_[kClockMends] = kNever;
        virtualtime::jumpClock(-static_cast<double>(clockErrorMs_) / 1000);
        clockErrorMs_ = 0;
        trace("world  the clock is right again");
        return judge_.clockWasTouched();
    case kClockJumps:
        return changeClock();
    case kZoneChanges:
        return changeZone();
    case kMicomTrouble:
        return troubleMicom();
    case kMicomRestarts:
        planNext(kMicomRestarts, weather_.micomRestartHours);
        trace("world  the Micom restarts");
        life_->appliance->restart(trueMs());
        return planAppliance();
    case kDisplay:
        planNext(kDisplay, weather_.displayHours);
        return fakes::settings::set("db/corvane/dr/micom_override", draws_.whole(0, 1));
    case kDatabaseTrouble:
        return troubleDatabase();
    case kMeteringTrouble:
        return troubleMetering();
    case kCalmBegins:
        return beginCalm();
    case kCalmChecked:
        nextMs_[kCalmChecked] = kNever;
        return judge_.calm(life_->appliance->reportedLevel());
    case kLifeEnds:
    case kRunEnds:
    case kActors:
        return;
    }
}

void World::planAppliance() {
    nextMs_[kAppliance] =
        std::max(nowMs(), life_->appliance->nextAt() - weather_.startSec * kSecMs);
}

void World::advanceAppliance() {
    life_->appliance->advance(trueMs(), [this](const char *key, int value) {
        judge_.micomWrites(key, value);
        micomWroteMs_ = nowMs();
        fakes::settings::set(key, value);
    });
    fakes::power::set(life_->appliance->displayReading());
    planAppliance();
}

void World::changeClock() {
    planNext(kClockJumps, weather_.clockJumpHours);
    static constexpr double kLengths[] = {
        1, 2, 30, 60, 600, 3600, 86'400, 35.0 * 86'400, 366.0 * 86'400, 8 * 365.25 * 86'400};
    double sec = draws_.oneOf(kLengths);
    sec *= draws_.between(0.5, 1.5);
    sec *= draws_.chance(0.5) ? 1 : -1;
    const double rounded = draws_.chance(0.5) ? std::floor(sec) : sec;
    const auto ms = static_cast<std::int64_t>(rounded * 1000);
    virtualtime::jumpClock(static_cast<double>(ms) / 1000);
    clockErrorMs_ += ms;
    nextMs_[kClockMends] =
        nowMs() + static_cast<std::int64_t>(draws_.waiting(6) * static_cast<double>(kHourMs));
    trace("world  the clock jumps by " + std::to_string(ms) + " ms");
    judge_.clockWasTouched();
}

void World::changeZone() {
    planNext(kZoneChanges, weather_.zoneHours);
    zone_ = draws_.oneOf(kZones);
    setZone();
    trace(std::string("world  the zone is ") + zone_);
    judge_.clockWasTouched();
    fakes::settings::set("db/setting/cityname_id", zone_);
}

void World::troubleMicom() {
    if (life_->appliance->isFaulty()) {
        life_->appliance->setFaults({});
        trace("world  the Micom is well again");
        return planNext(kMicomTrouble, weather_.micomHours);
    }
    appliance::MicomFaults faults;
    bool *const kinds[] = {&faults.silent, &faults.slow, &faults.dropsCommands, &faults.wrongEcho};
    *draws_.oneOf(kinds) = true;
    life_->appliance->setFaults(faults);
    trace(std::string("world  the Micom ") + (faults.silent          ? "is silent"
                                              : faults.slow          ? "is slow"
                                              : faults.dropsCommands ? "drops commands"
                                                                     : "echoes wrongly"));
    nextMs_[kMicomTrouble] = nowMs() + draws_.whole(1, 7'200) * kSecMs;
}

void World::troubleDatabase() {
    using fakes::storage::Trouble;
    if (isStoreTroubled()) {
        storeTroubledUntilMs_ = nowMs();
        life_->otherProcess.reset();
        fakes::storage::heal();
        trace("world  the disk is well again");
        return planNext(kDatabaseTrouble, weather_.databaseHours);
    }
    const int kind = draws_.whole(0, 4);
    const int times = draws_.whole(1, 25);
    if (kind < 3) {
        static constexpr Trouble kTroubles[] = {Trouble::Busy, Trouble::Full, Trouble::IoError};
        fakes::storage::failStatements(kTroubles[kind], times);
    } else if (kind == 3) {
        fakes::storage::failFileOperation(times);
    } else {
        const char *file = draws_.chance(0.5) ? "corvane.db" : "usage.db";
        if (canLookInto(file))
            life_->otherProcess = std::make_unique<fakes::storage::Lock>(
                file, draws_.chance(0.5) ? fakes::storage::Lock::Kind::Shared
                                         : fakes::storage::Lock::Kind::Exclusive);
    }
    const std::int64_t until = nowMs() + draws_.whole(1, 120) * kSecMs;
    storeTroubledUntilMs_ = until;
    nextMs_[kDatabaseTrouble] = until - 1;
    trace("world  the disk fails, kind " + std::to_string(kind) + ", " + std::to_string(times));
}

void World::troubleMetering() {
    planNext(kMeteringTrouble, weather_.meteringHours);
    constexpr double kLongHangSec = 5;
    constexpr std::int64_t kHangsForMs = 2 * kHourMs; // cycles pile up meanwhile, one a minute
    const double hangs[] = {
        0, draws_.between(0, kLongHangSec),
        draws_.between(kLongHangSec, static_cast<double>(kLongestHangMs) / 1000)};
    const double sec = draws_.oneOf(hangs);
    if (sec > kLongHangSec)
        nextMs_[kMeteringTrouble] = std::min(nextMs_[kMeteringTrouble], nowMs() + kHangsForMs);
    fakes::metering::hangTransfers(sec);
    fakes::metering::failTransfers(draws_.chance(0.5) ? draws_.whole(1, 100) : 0);
    // A transfer that begins at the last moment hangs on.
    meteringTroubledUntilMs_ =
        sec > 0 ? nextMs_[kMeteringTrouble] + static_cast<std::int64_t>(sec * 1000)
                : nowMs() + kHourMs;
    trace("world  the metering service takes " + std::to_string(sec) + " s");
}

void World::beginCalm() {
    isCalm_ = true;
    nextMs_[kCalmBegins] = kNever;
    nextMs_[kCalmChecked] = nowMs() + kSettlesMs;
    for (const Actor actor : {kClockJumps, kZoneChanges, kMicomTrouble, kMicomRestarts, kDisplay,
                              kDatabaseTrouble, kMeteringTrouble, kLifeEnds})
        nextMs_[actor] = kNever;
    life_->appliance->setFaults({});
    life_->otherProcess.reset();
    fakes::storage::heal();
    fakes::metering::hangTransfers(0);
    fakes::metering::failTransfers(0);
    storeTroubledUntilMs_ = nowMs();
    meteringTroubledUntilMs_ = std::min(meteringTroubledUntilMs_, nowMs() + kLongestHangMs);
    trace("world  calm begins");
    if (nextMs_[kClockMends] != kNever)
        nextMs_[kClockMends] = nowMs();
    if (nextMs_[kWifi] != kNever)
        nextMs_[kWifi] = nowMs();
}

// ---- The remote side ----

void World::runRemote(int number) {
    virtualtime::nameThread("remote side");
    Draws &draws = remoteDraws_[number];
    const double meanMs = weather_.requestHours * 2 * static_cast<double>(kHourMs);
    std::int64_t edgeSec = 0; // until an edge of what was ordered
    while (meanMs > 0) {
        const double ms = edgeSec > 0 && draws.chance(0.4)
                              ? static_cast<double>(edgeSec) * 1000 + draws.between(-1500, 1500)
                              : draws.waiting(meanMs);
        const auto pauseMs = static_cast<std::int64_t>(std::clamp(ms, 0.0, 1e12));
        if (!waitAsRemote(number, nowMs() + pauseMs))
            return;
        edgeSec = request(draws);
        if (draws.chance(weather_.crowdShare)) {
            for (int more = draws.whole(1, 5); more > 0 && !life_->remotesEnd; --more)
                edgeSec = std::max(edgeSec, request(draws));
        }
    }
}

bool World::waitAsRemote(int number, std::int64_t untilMs) {
    remoteDueMs_[number] = untilMs;
    std::unique_lock lock(life_->mutex);
    while (nowMs() < untilMs && !life_->remotesEnd) // the board may be suspended meanwhile
        life_->remoteWakes.wait_for(lock, std::chrono::milliseconds(untilMs - nowMs()));
    const bool goesOn = !life_->remotesEnd && !isCalm_;
    remoteDueMs_[number] = goesOn ? untilMs : kNever;
    return goesOn;
}

std::int64_t World::request(Draws &draws) {
    if (!draws.chance(weather_.absurdShare))
        return sendSensible(
            draws, utcMs() / 1000, weather_.orderShare,
            [this](const char *what, const std::string &value) { judge_.told(what, value); });
    const std::string refusal = sendAbsurd(draws);
    if (!refusal.empty())
        trace("world  refused: " + refusal);
    return 0;
}

} // namespace corvane::lab
