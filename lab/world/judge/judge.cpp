/*
 * Sorts what is seen: into the scene, and to the rules that it concerns. In this order: lives, what
 * is seen, requests, the database, what must hold while time passes.
 */
#include "judge.h"

#include "seen_texts.h"

#include <algorithm>
#include <cstdlib>

namespace corvane::lab {
namespace {

using fakes::Entry;
using fakes::Kind;

constexpr std::string_view kCommandKey = "memory/refrigerator/TxMessage";
constexpr std::string_view kLevelKey = "db/corvane/dr/level";
constexpr std::string_view kOverrideKey = "db/corvane/dr/override";
constexpr std::string_view kEnableKey = "db/corvane/defrost/status";
constexpr std::string_view kActiveKey = "db/corvane/defrost/activate";
constexpr std::string_view kLevelEchoKey = "memory/refrigerator/SmartGridDrLevel";
constexpr std::string_view kOverrideEchoKey = "memory/refrigerator/SmartGridOverrideState";
constexpr std::string_view kDisplayOverrideKey = "db/corvane/dr/micom_override";

constexpr std::string_view kLevelCommands[] = {"SET_SMARTGRID_LEVEL_NORMAL", "SET_SMARTGRID_LEVEL1",
                                               "SET_SMARTGRID_LEVEL2", "SET_SMARTGRID_LEVEL3",
                                               "SET_SMARTGRID_LEVEL4"};
constexpr std::string_view kOverrideCommands[] = {"SET_SMARTGRID_OVERRIDE_OFF",
                                                  "SET_SMARTGRID_OVERRIDE_FOREVER"};
constexpr std::string_view kDefrostCommands[] = {"SET_SMARTGRID_DISABLE", "SET_SMARTGRID_ENABLE"};

constexpr std::int64_t kDecember2015Ms = 1'448'928'000'000;
/* Every hour, every repeat and every change of clocks begins at a multiple of it in UTC. */
constexpr std::int64_t kMarkMs = 300'000;

std::int64_t sinceMark(std::int64_t utcMs) {
    return ((utcMs % kMarkMs) + kMarkMs) % kMarkMs; // also before 1970
}

/* The command's place in the list; -1: it is not there. */
template <std::size_t kCount>
int placeIn(const std::string_view (&commands)[kCount], const std::string &command) {
    const auto *const found = std::find(std::begin(commands), std::end(commands), command);
    return found == std::end(commands) ? -1 : static_cast<int>(found - std::begin(commands));
}

} // namespace

// ---- Lives ----

void Judge::lifeBegins(Eyes &eyes, std::optional<int> levelKey, std::optional<int> overrideKey,
                       std::optional<int> enableKey, std::optional<int> activeKey) {
    scene_.eyes = &eyes;
    scene_.drSinceMs = scene_.defrostSinceMs = scene_.reportSinceMs = -1;
    scene_.clockTouchedMs = eyes.nowMs();
    scene_.storeFailedMs = eyes.nowMs() + kLongAgoMs;
    scene_.handling.clear();
    scene_.level = {levelKey, std::nullopt};
    scene_.override = {overrideKey, std::nullopt};
    scene_.enable = {enableKey, std::nullopt};
    scene_.activeKey = activeKey;
    scene_.notifiedBlock = std::nullopt;
    storeFailuresSeen_ = 0;
    unsureSeen_ = eyes.unsureCommits();
    table_ = Table::None;
    gateOpenMs_ = -1;
    event_.lifeBegins();
    defrost_.lifeBegins();
    remote_.lifeBegins();
    energy_.lifeBegins();
}

void Judge::lifeEnds(EndOfLife end) {
    if (scene_.isHandling("ControlDRLC(") && event_.hasOrderInserted())
        defrost_.lifeEndsBesideOrder(); // defrost delay may not have been switched off
    if (end == EndOfLife::PowerCut)
        energy_.powerIsCut();
}

void Judge::terminated(const Remains &remains, std::int64_t tookMs, bool wasHeldUp) {
    if (!remains.threads.empty())
        scene_.broken("after terminate no thread is left", remains.threads);
    if (remains.locks != 0)
        scene_.broken("after terminate no lock is left", std::to_string(remains.locks) + " are");
    if (remains.leaks)
        scene_.broken("after terminate no memory is left", "the leak checker has told what is");
    if (tookMs > 3 * kPassesMs && !wasHeldUp)
        scene_.broken("a worker notices its stop within one second",
                      "terminate took " + std::to_string(tookMs) + " ms");
}

// ---- What is seen ----

void Judge::see(const Entry &entry) {
    ++steps_;
    switch (entry.kind) {
    case Kind::Log:
        return seeLog(entry.text);
    case Kind::Setting: {
        const std::size_t equals = entry.text.find('=');
        return seeSetting(entry.text.substr(0, equals), entry.text.substr(equals + 1));
    }
    case Kind::Notification:
        return seeNotification(entry.text);
    case Kind::Sql:
        return seeSql(entry.text);
    case Kind::Post:
        return energy_.posted(entry.text);
    case Kind::Watch:
        if (entry.text == kDisplayOverrideKey)
            remote_.displayIsWatched();
        return;
    case Kind::Request:
        return seeRequest(entry.text);
    default:
        return;
    }
}

void Judge::clockWasTouched() {
    scene_.clockTouchedMs = scene_.nowMs();
    gateOpenMs_ = -1;
}

void Judge::seeLog(std::string_view text) {
    constexpr std::string_view kStart = "start ";
    if (startsWith(text, "REPORT] "))
        energy_.seeLog(text);
    else if (startsWith(text, kStart))
        seeStart(text.substr(kStart.size()));
    else if (text == "stop EnergyDR Thread!!")
        scene_.drSinceMs = -1;
    else if (text == "stop DefrostDelay Thread!!")
        scene_.defrostSinceMs = -1;
    else if (text == "stop EnergyReport Thread!!")
        scene_.reportSinceMs = -1;
    else if (text == "Callback DR_Level Resp From Micom : 0")
        event_.zeroEchoed();
}

/* The controllers come one after the other. */
void Judge::seeStart(std::string_view worker) {
    const std::int64_t now = scene_.nowMs();
    if (worker == "DefrostDelay Thread!!") {
        const bool isImplausible =
            scene_.utcMs() < kDecember2015Ms && now - scene_.clockTouchedMs > 10 * kTaskMs;
        if (!scene_.eyes->isWifiConnected() || isImplausible)
            scene_.broken(
                "controllers start only after a Wi-Fi connection exists and the clock is plausible",
                "the first one has started");
        scene_.defrostSinceMs = now;
    } else if (worker == "EnergyDR Thread!!") {
        scene_.checkTaskPause(scene_.defrostSinceMs);
        scene_.drSinceMs = now;
    } else if (worker == "EnergyReport Thread!!") {
        scene_.checkTaskPause(scene_.drSinceMs);
        scene_.reportSinceMs = now;
    }
}

void Judge::seeSetting(const std::string &key, const std::string &value) {
    const int number = std::atoi(value.c_str());
    if (key == kCommandKey) {
        seeCommand(value);
    } else if (key == kLevelKey) {
        remote_.levelWritten(number);
        scene_.level.key = number;
    } else if (key == kOverrideKey) {
        remote_.overrideWritten(number);
        scene_.override.key = number;
    } else if (key == kEnableKey) {
        remote_.enableWritten();
        defrost_.enableWritten(number);
        scene_.enable.key = number;
    } else if (key == kActiveKey) {
        defrost_.activeWritten(number);
        scene_.activeKey = number;
    } else if (key == kDisplayOverrideKey) {
        remote_.displayPressed(number);
    }
}

void Judge::seeCommand(const std::string &command) {
    noticeStoreFailures();
    if (const int level = placeIn(kLevelCommands, command); level >= 0) {
        event_.commanded(level);
        if (level == 0)
            remote_.normalCommanded();
    } else if (const int value = placeIn(kOverrideCommands, command); value >= 0) {
        remote_.overrideCommanded(value, command);
    } else if (const int place = placeIn(kDefrostCommands, command); place >= 0) {
        defrost_.commanded(place == 1);
    } else {
        scene_.broken("every Micom text is in the vocabulary", "\"" + command + "\" is not");
    }
}

void Judge::micomWrites(const std::string &key, int value) {
    energy_.micomWrites(key, value);
    if (key == kOverrideEchoKey)
        remote_.overrideEchoed(value);
    else if (key == kLevelEchoKey)
        remote_.levelEchoed(value, scene_.eyes->isMeteringTroubled() || energy_.isBehind());
}

void Judge::seeNotification(const std::string &text) {
    const int value = numberIn(text);
    if (startsWith(text, "SendDRLCNotify")) {
        scene_.level.notified = value;
        remote_.levelNotified();
    } else if (startsWith(text, "SendOverrideNotify")) {
        scene_.override.notified = value;
        remote_.overrideNotified();
    } else if (startsWith(text, "SendDelayDefrostNotify")) {
        scene_.enable.notified = text == "SendDelayDefrostNotify(true)" ? 1 : 0;
        remote_.enableNotified();
    } else if (startsWith(text, "SendDefrostBlockNotify")) {
        scene_.notifiedBlock = value;
        remote_.blockNotified();
    } else if (startsWith(text, "SendDefrostReservationsNotify")) {
        defrost_.reservationNotified(value, numberIn(text.substr(text.find(','))));
    }
}

// ---- Requests ----

void Judge::seeRequest(const std::string &text) {
    const std::size_t arrow = text.find(" -> ");
    if (arrow == text.npos) {
        noticeStoreFailures();
        scene_.handling = text;
        scene_.failuresAtRequest = scene_.eyes->storeFailures();
        scene_.unsureAtRequest = scene_.eyes->unsureCommits();
        event_.requestBegins();
        defrost_.requestBegins();
        return;
    }
    answered(text.substr(0, arrow), std::atoi(text.c_str() + arrow + 4));
    scene_.handling.clear();
}

void Judge::answered(const std::string &command, int answer) {
    noticeStoreFailures();
    if (answer != 0 && answer != 1)
        scene_.broken("a handler answers 0 or 1",
                      command + " was answered " + std::to_string(answer));
    const bool isSure = scene_.unsureAtRequest == scene_.eyes->unsureCommits();
    const bool isClean = !scene_.hasStoreFailedInRequest();
    if (command == "ControlDRLC" && answer == 1)
        event_.ordered(isSure, isClean);
    remote_.answered(command);
    if (command == "GetEnergyConsumption")
        energy_.queried(isClean && scene_.eyes->canLookInto("usage.db") &&
                        !scene_.eyes->isStoreTroubled());
    const bool isOfDefrost = command == "SetDelayDefrost" || command == "GetDelayDefrost";
    const bool isOfDr = command == "ControlDRLC" || command == "ControlOverride" ||
                        command == "GetDRLCOverride" || command == "GetDefrostBlock";
    if (answer == 0 &&
        ((isOfDefrost && scene_.defrostSinceMs >= 0) || (isOfDr && scene_.drSinceMs >= 0)))
        scene_.broken("a request is handled while its controller is there",
                      std::string(scene_.handling));
    defrost_.answered(command, answer, isSure, isClean);
}

void Judge::told(const std::string &what, const std::string &value) {
    if (what == "consumption")
        energy_.told(value);
    else
        remote_.told(what, value);
}

// ---- The database ----

Judge::Table Judge::tableOf(const std::string &sql) {
    if (sql.find("dr_usage_table") != sql.npos)
        return Table::Events;
    if (sql.find("defrost_usage_table") != sql.npos)
        return Table::Reservations;
    return sql.find("power_usage_table") != sql.npos ? Table::Hours : Table::None;
}

bool Judge::noticeStoreFailures() {
    const std::uint64_t failures = scene_.eyes->storeFailures();
    if (failures == storeFailuresSeen_)
        return false;
    storeFailuresSeen_ = failures;
    if (scene_.nowMs() - scene_.storeFailedMs > kPassesMs)
        scene_.storeBusySinceUtcMs = scene_.storeBusyLatestUtcMs = scene_.utcMs();
    scene_.storeBusyLatestUtcMs = std::max(scene_.storeBusyLatestUtcMs, scene_.utcMs());
    scene_.storeFailedMs = scene_.nowMs();
    doubtTable();
    return true;
}

void Judge::doubtTable() {
    if (table_ == Table::Events || table_ == Table::None)
        event_.doubt();
    if (table_ == Table::Reservations || table_ == Table::None)
        defrost_.doubt();
    if (table_ == Table::Hours || table_ == Table::None)
        energy_.doubt();
}

void Judge::seeSql(const std::string &sql) {
    const bool hasFailed = noticeStoreFailures();
    table_ = tableOf(sql);
    if (hasFailed) // perhaps only now, when its file was opened
        doubtTable();
    const bool isUnsure = unsureSeen_ != scene_.eyes->unsureCommits();
    unsureSeen_ = scene_.eyes->unsureCommits();
    if (!startsWith(sql, "SELECT") && scene_.eyes->isStoreTroubled())
        changedInTroubleMs_ = scene_.nowMs();
    if (table_ == Table::Hours)
        return energy_.seeSql(sql, isUnsure, hasFailed);
    if (startsWith(sql, "SELECT"))
        return;
    if (table_ == Table::Events)
        event_.seeChange(sql);
    else if (table_ == Table::Reservations)
        defrost_.seeChange(sql);
}

bool Judge::explainsEndlessInsert() const {
    return table_ == Table::Events && scene_.isHandling("ControlDRLC(") &&
           scene_.hasStoreFailedInRequest();
}

void Judge::readTables() {
    // A statement waits up to 200 ms for a lock, and takes effect after it was seen.
    const bool mayWait = scene_.nowMs() - changedInTroubleMs_ < kPassMs;
    if (!scene_.handling.empty() || mayWait)
        return;
    if ((event_.isDirty() || defrost_.isDirty()) && scene_.drSinceMs >= 0 &&
        scene_.defrostSinceMs >= 0 && scene_.eyes->canLookInto("corvane.db")) {
        event_.read();
        defrost_.read();
    }
    if (energy_.isDirty() && scene_.reportSinceMs >= 0 && scene_.eyes->canLookInto("usage.db")) {
        noticeStoreFailures();
        energy_.read();
    }
}

// ---- What must hold while time passes ----

void Judge::tick() {
    ++steps_;
    noticeStoreFailures();
    readTables();
    checkGate();
    event_.check();
    defrost_.check(event_.isStored());
    remote_.check();
    if (const auto ofMinuteMs = scene_.judgedMinuteMs()) {
        event_.checkRepeat(*ofMinuteMs);
        defrost_.checkRepeat(*ofMinuteMs);
    }
    energy_.check();
    energy_.checkPruning();
}

void Judge::checkGate() {
    const bool mayOpen = scene_.eyes->isWifiConnected() && scene_.utcMs() >= kDecember2015Ms &&
                         !scene_.eyes->isStoreTroubled();
    if (!mayOpen || scene_.reportSinceMs >= 0 || scene_.nowMs() - scene_.storeFailedMs < kGateMs) {
        gateOpenMs_ = -1;
        return;
    }
    if (gateOpenMs_ < 0)
        gateOpenMs_ = scene_.nowMs();
    if (scene_.nowMs() - gateOpenMs_ > kGateMs)
        scene_.broken(
            "the controllers are built once Wi-Fi is connected and the clock is plausible",
            "they are not all there after " + std::to_string(kGateMs / 1000) + " s");
}

bool Judge::areControllersThere() const {
    return scene_.drSinceMs >= 0 && scene_.defrostSinceMs >= 0 && scene_.reportSinceMs >= 0;
}

void Judge::calm(int micomLevel) {
    if (!areControllersThere())
        scene_.broken("all controllers run when all is well", "one does not");
    event_.calm(micomLevel);
    remote_.calm(micomLevel);
}

bool Judge::isQuiet() const {
    const std::int64_t lastMs = std::max(scene_.clockTouchedMs, scene_.storeFailedMs);
    // A repeat is judged when a few seconds have passed since it was due.
    return areControllersThere() && scene_.handling.empty() && gateOpenMs_ < 0 &&
           sinceMark(scene_.utcMs()) > 2 * kPassesMs && scene_.nowMs() - lastMs > kPassesMs &&
           event_.isQuiet() && defrost_.isQuiet() && remote_.isQuiet() && energy_.isQuiet();
}

std::int64_t Judge::untilEdgeMs() const {
    return std::min(
        {kMarkMs - sinceMark(scene_.utcMs()), event_.untilEdgeMs(), defrost_.untilEdgeMs()});
}

} // namespace corvane::lab
