/*
 * The rules. In this order: what is seen, the tables, what must hold while time passes.
 */
#include "judge.h"

#include "storage.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace corvane::lab {
namespace {

using fakes::Entry;
using fakes::Kind;

constexpr const char *kCommandKey = "memory/refrigerator/TxMessage";
constexpr const char *kLevelKey = "db/corvane/dr/level";
constexpr const char *kOverrideKey = "db/corvane/dr/override";
constexpr const char *kEnableKey = "db/corvane/defrost/status";
constexpr const char *kActiveKey = "db/corvane/defrost/activate";
constexpr const char *kOverrideEchoKey = "memory/refrigerator/SmartGridOverrideState";
constexpr const char *kWattKey = "memory/refrigerator/SmartGridWatt"; // and 1 to 4
constexpr const char *kDisplayOverrideKey = "db/corvane/dr/micom_override";

constexpr const char *kLevelCommands[] = {"SET_SMARTGRID_LEVEL_NORMAL", "SET_SMARTGRID_LEVEL1",
                                          "SET_SMARTGRID_LEVEL2", "SET_SMARTGRID_LEVEL3",
                                          "SET_SMARTGRID_LEVEL4"};
constexpr const char *kOverrideCommands[] = {"SET_SMARTGRID_OVERRIDE_OFF",
                                             "SET_SMARTGRID_OVERRIDE_FOREVER"};
constexpr const char *kHeld = "SET_SMARTGRID_ENABLE";
constexpr const char *kReleased = "SET_SMARTGRID_DISABLE";

/* A pass comes each second; what follows one has followed after two and a half. */
constexpr std::int64_t kPassMs = 1'000;
constexpr std::int64_t kPassesMs = 2'500;
/* Construction of all controllers from the moment that the gate may open. */
constexpr std::int64_t kGateMs = 12'000;
constexpr std::int64_t kTaskMs = 1'050; // deferred tasks sleep a second and are 50 ms apart
/* Every hour, every repeat and every change of clocks begins at a multiple of it in UTC. */
constexpr std::int64_t kMarkMs = 300'000;
constexpr std::int64_t kDecember2015Sec = 1'448'928'000;
constexpr std::size_t kKeyLength = 10; // of an hour
constexpr int kCounterWrap = 1'000'000;
constexpr int kCountsPerUnit = 10'000;
constexpr int kLargestReading = 2'000; // of a display as a scenario may have it

std::int64_t sinceMark(std::int64_t utcMs) {
    return ((utcMs % kMarkMs) + kMarkMs) % kMarkMs; // also before 1970
}

enum Table { kNoTable, kDrTable, kDefrostTable, kPowerTable };

Table tableOf(const std::string &sql) {
    if (sql.find("dr_usage_table") != sql.npos)
        return kDrTable;
    if (sql.find("defrost_usage_table") != sql.npos)
        return kDefrostTable;
    return sql.find("power_usage_table") != sql.npos ? kPowerTable : kNoTable;
}

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/* The texts between quotes. */
std::vector<std::string> valuesOf(const std::string &sql) {
    std::vector<std::string> values;
    for (std::size_t at = sql.find('\''); at != sql.npos; at = sql.find('\'', at + 1)) {
        const std::size_t end = sql.find('\'', at + 1);
        if (end == sql.npos)
            break;
        values.push_back(sql.substr(at + 1, end - at - 1));
        at = end;
    }
    return values;
}

/* The first number, or 0. */
int numberIn(std::string_view text) {
    const std::size_t at = text.find_first_of("-0123456789");
    int number = 0;
    if (at != text.npos)
        std::from_chars(text.data() + at, text.data() + text.size(), number);
    return number;
}

/* "HH:MM:SS"; what is not there counts as 0. */
std::int64_t lengthMs(std::string_view text) {
    std::int64_t parts[3] = {};
    for (std::int64_t &part : parts) {
        std::from_chars(text.data(), text.data() + std::min<std::size_t>(2, text.size()), part);
        text.remove_prefix(std::min<std::size_t>(3, text.size()));
    }
    return ((parts[0] * 60 + parts[1]) * 60 + parts[2]) * 1000;
}

std::int64_t utcTextMs(const std::string &text) {
    std::tm fields{};
    strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    return std::int64_t{timegm(&fields)} * 1000;
}

std::tm utcFields(std::int64_t utcMs) {
    const std::time_t seconds = utcMs / 1000;
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    return fields;
}

/* The first of the month six months back. */
std::string oldestKey(const std::tm &fields) {
    const int months = (fields.tm_year + 1900) * 12 + fields.tm_mon - 6;
    char text[40];
    std::snprintf(text, sizeof text, "%d%02d0000", months / 12, months % 12 + 1);
    return text;
}

std::string optionalText(const std::optional<int> &value) {
    return value ? std::to_string(*value) : "nothing";
}

} // namespace

void Judge::broken(const std::string &rule, const std::string &what) const {
    eyes_->broken(rule, what);
    std::abort(); // the compiler does not see that a virtual function never returns
}

// ---- What is seen ----

void Judge::lifeBegins(Eyes &eyes, std::optional<int> levelKey, std::optional<int> overrideKey,
                       std::optional<int> enableKey, std::optional<int> activeKey) {
    eyes_ = &eyes;
    const std::int64_t now = eyes.nowMs();
    drSinceMs_ = defrostSinceMs_ = reportSinceMs_ = -1;
    clockTouchedMs_ = now;
    storeFailuresSeen_ = 0;
    unsureSeen_ = eyes.unsureCommits();
    storeFailedMs_ = now - 1'000'000;
    handling_.clear();
    orderInserted_ = false;
    commandedLevel_ = -1;
    levelKey_ = levelKey;
    overrideKey_ = overrideKey;
    enableKey_ = enableKey;
    activeKey_ = activeKey;
    startLevel_ = levelKey.value_or(0);
    heldCommand_ = notifiedLevel_ = notifiedBlock_ = notifiedEnable_ = notifiedOverride_ =
        std::nullopt;
    levelUnannounced_ = enableUnannounced_ = overrideUnannounced_ = false;
    micomOverride_ = -1;
    zeroEchoes_ = 0;
    levelDoubtful_ = false;
    sqlTable_ = kNoTable;
    lastCycleMs_ = -1;
    isPosting_ = false;
    storesDue_ = cyclesDue_ = 0;
    remainder_ = 0;
    displayPresses_ = 0;
    displayWatched_ = false;
    postedCounts_ = 0;
    displaySum_ = fakes::power::sum();
    displayRaw_ = displayRest_ = 0;
    gateOpenMs_ = -1;
    keptFrom_.clear();
    isPruneDue_ = false;
    limits_.clear();
    eventDirty_ = reservationsDirty_ = hoursDirty_ = true;
    eventDoubtful_ = eventLost_ = reservationsDoubtful_ = false;
    isCounterOfLastLife_ = true;
    activeSinceMs_ = overSinceMs_ = blockWrongSinceMs_ = heldWrongSinceMs_ = notHeldSinceMs_ =
        bothSinceMs_ = levelLeftSinceMs_ = overrideWrongSinceMs_ = energyWrongSinceMs_ = -1;
}

void Judge::lifeEnds(EndOfLife end) {
    if (startsWith(handling_, "ControlDRLC(") && orderInserted_)
        bothExplained_ = true; // defrost delay may not have been switched off
    if (end == EndOfLife::PowerCut && isCounterUnsure_) {
        for (const std::pmr::string &hour : unsureHours_) {
            if (const std::size_t at = hours_.find(hour); at != hours_.npos)
                hours_.erase(at == 0 ? 0 : at - 1, kKeyLength + 1); // with its comma
        }
        counterKnown_ = false;
        setCounterSure();
    }
}

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
        return seePost(entry.text);
    case Kind::Watch:
        displayWatched_ = displayWatched_ || entry.text == kDisplayOverrideKey;
        return;
    case Kind::Request:
        return seeRequest(entry.text);
    default:
        return;
    }
}

bool Judge::explainsEndlessInsert() const {
    return sqlTable_ == kDrTable && startsWith(handling_, "ControlDRLC(") &&
           eyes_->storeFailures() != failuresAtRequest_;
}

void Judge::clockWasTouched() {
    clockTouchedMs_ = eyes_->nowMs();
    gateOpenMs_ = -1;
}

void Judge::seeLog(std::string_view text) {
    const std::int64_t now = eyes_->nowMs();
    const bool isFirst = text == "start DefrostDelay Thread!!";
    if (isFirst && (!eyes_->isWifiConnected() || (eyes_->utcMs() < kDecember2015Sec * 1000 &&
                                                  now - clockTouchedMs_ > 10 * kTaskMs)))
        broken("controllers start only after a Wi-Fi connection exists and the clock is plausible",
               "the first one has started");
    if (isFirst)
        defrostSinceMs_ = now;
    else if (text == "start EnergyDR Thread!!") {
        checkTaskPause(defrostSinceMs_);
        drSinceMs_ = now;
    } else if (text == "start EnergyReport Thread!!") {
        checkTaskPause(drSinceMs_);
        reportSinceMs_ = now;
    } else if (text == "stop EnergyDR Thread!!")
        drSinceMs_ = -1;
    else if (text == "stop DefrostDelay Thread!!")
        defrostSinceMs_ = -1;
    else if (text == "stop EnergyReport Thread!!")
        reportSinceMs_ = -1;
    else if (text == "Callback DR_Level Resp From Micom : 0")
        ++zeroEchoes_;
    else if (text == "REPORT] callback Energy from Micom")
        ++cyclesDue_;
    else if (startsWith(text, "REPORT] [UTC]currentTime")) {
        checkTaskPause(lastCycleMs_);
        lastCycleMs_ = now;
        isPosting_ = true;
        micomCounts_ = ((watts_[0] * 256 + watts_[1]) * 256 + watts_[2]) * 256 + watts_[3];
        if (--cyclesDue_ < 0)
            broken("a metering cycle follows each publication", "there was none for this cycle");
    } else if (startsWith(text, "REPORT] Remain LCD energy RAW: ")) {
        collectDisplay(text);
    } else if (startsWith(text, "REPORT] saveValue : ")) {
        isPosting_ = false;
        const int total = remainder_ + postedCounts_;
        remainder_ = total % kCountsPerUnit;
        expected_ += total / kCountsPerUnit;
        storesDue_ += numberIn(text) >= 1 ? 1 : 0;
    } else if (startsWith(text, "REPORT] delete date : ")) {
        keptFrom_ = text.substr(text.rfind(' ') + 1);
        limits_.insert(keptFrom_);
        keptFromMs_ = now;
        isPruneDue_ = true;
        if (std::string_view(keptFrom_) != oldestKey(utcFields(eyes_->utcMs())))
            broken("rows older than six months are removed",
                   "the limit is given as " + std::string(keptFrom_));
    }
}

void Judge::collectDisplay(std::string_view text) {
    constexpr std::int64_t kMostRaw = 4'000'000; // begins anew beyond it
    displayRest_ = numberIn(text);
    displayRaw_ += fakes::power::sum() - displaySum_;
    displaySum_ = fakes::power::sum();
    if (displayRaw_ > kMostRaw)
        displayRaw_ = -1;
}

/* Of two tasks that each sleep a second before they do what is seen. */
void Judge::checkTaskPause(std::int64_t beforeMs) const {
    if (beforeMs >= 0 && eyes_->nowMs() - beforeMs < kTaskMs)
        broken("consecutive tasks are at least 50 ms apart",
               "two that sleep a second first were seen within " +
                   std::to_string(eyes_->nowMs() - beforeMs) + " ms");
}

void Judge::seeSetting(const std::string &key, const std::string &value) {
    const int number = std::atoi(value.c_str());
    if (key == kCommandKey) {
        seeCommand(value);
    } else if (key == kLevelKey) {
        if (levelUnannounced_)
            broken("the remote side hears of every change of the level", "one was not notified");
        levelKey_ = number;
        levelUnannounced_ = true;
    } else if (key == kOverrideKey) {
        if (overrideUnannounced_)
            broken("the remote side hears of every change of the override", "one was not notified");
        overrideKey_ = number;
        overrideUnannounced_ = drSinceMs_ >= 0 && (number == 0 || number == 1);
    } else if (key == kEnableKey) {
        if (enableUnannounced_)
            broken("the remote side hears of every change of defrost delay",
                   "one was not notified");
        // A refusal beside an event switches defrost delay off and leaves "active" alone.
        heldExplained_ = heldExplained_ || (number == 0 && bothExplained_ && activeKey_ == 1);
        enableKey_ = number;
        enableUnannounced_ = true;
        // The handler has asked for a stored event, and could not learn of one.
        const bool isBlind = drSinceMs_ < 0 || eyes_->storeFailures() != failuresAtRequest_;
        bothExplained_ =
            bothExplained_ || (number == 1 && isBlind && startsWith(handling_, "SetDelayDefrost("));
    } else if (key == kActiveKey) {
        activeKey_ = number;
        // Switched off between the worker's look at "enabled" and its setting of "active".
        // A start only repeats what was.
        const bool isOff = enableKey_.value_or(0) == 0;
        heldExplained_ = number == 1 && isOff && (defrostSinceMs_ >= 0 || heldExplained_);
    } else if (key == kDisplayOverrideKey && displayWatched_) {
        displayOverride_ = number;
        ++displayPresses_;
        displayOverrideMs_ = eyes_->nowMs();
    }
}

void Judge::micomWrites(const std::string &key, int value) {
    if (startsWith(key, kWattKey))
        watts_[key.back() - '1'] = value;
    if (key == kOverrideEchoKey && displayWatched_)
        micomOverride_ = value;
    if (key != "memory/refrigerator/SmartGridDrLevel")
        return;
    const std::int64_t now = eyes_->nowMs();
    // The follower of the one before may not have run yet: it waits a second, and longer while the
    // metering service holds up the task thread.
    levelDoubtful_ = now - echoMs_ < 30'000 || eyes_->isMeteringTroubled() || cyclesDue_ > 1;
    echoMs_ = now;
}

void Judge::seeCommand(const std::string &command) {
    const auto *level = std::find(std::begin(kLevelCommands), std::end(kLevelCommands), command);
    if (level != std::end(kLevelCommands))
        return seeLevelCommand(static_cast<int>(level - std::begin(kLevelCommands)));
    for (int value : {0, 1}) {
        if (command != kOverrideCommands[value])
            continue;
        const std::string request = "ControlOverride(" + std::to_string(value) + ")";
        if (displayPresses_ > 0 && displayOverride_ == value)
            --displayPresses_;
        else if (std::string_view(handling_) != request)
            broken("an override is commanded when display or remote side want it", command);
        return;
    }
    if (command != kHeld && command != kReleased)
        broken("every Micom text is in the vocabulary", "\"" + command + "\" is not");
    heldCommand_ = command == kHeld ? 1 : 0;
    heldCommandMs_ = eyes_->nowMs();
    releasedByStart_ = heldCommand_ == 0 && defrostSinceMs_ < 0 && enableKey_.value_or(0) == 0;
}

bool Judge::isActiveAt(const Event &event, std::int64_t utcMs) {
    return event.startMs <= utcMs && utcMs < event.endMs;
}

void Judge::seeLevelCommand(int level) {
    const std::int64_t now = eyes_->nowMs();
    const std::int64_t utc = eyes_->utcMs();
    const bool isStart =
        (drSinceMs_ < 0 && level == startLevel_) ||
        (std::string_view(handling_) == "GetDRLCOverride()" && level == levelKey_.value_or(0));
    const bool isRepeat = utcFields(utc).tm_min % 10 == 0 && level == commandedLevel_;
    const bool isOrder = !handling_.empty() || now - orderEndedMs_ < kPassesMs;
    const auto begins = [&](const std::optional<Event> &event) {
        // Beside a busy database the worker's pass waits, with the time at which it began.
        const bool didBegin = now - storeFailedMs_ < kPassesMs && event && event->startMs <= utc &&
                              event->endMs > storeBusySinceUtcMs_ - kPassMs;
        return event && event->level == level && (isActiveAt(*event, utc) || didBegin);
    };
    const auto isOver = [&](const std::optional<Event> &event) {
        return event && utc >= event->endMs; // the service's clock is finer than milliseconds
    };
    bool isRight = isStart || isRepeat;
    if (level > 0)
        isRight = isRight || begins(event_) || begins(inserted_) || (isOrder && begins(replaced_));
    else if (!isRight) {
        isRight = startsWith(handling_, "ControlDRLC(0") || isOver(event_) || isOver(inserted_) ||
                  (isOrder && isOver(replaced_));
        if (!isRight && zeroEchoes_ > 0) {
            --zeroEchoes_;
            isRight = true;
        }
    }
    if (!isRight)
        broken(level > 0 ? "a level is commanded only while its event lasts, at a start and at the "
                           "ten-minute repeats"
                         : "the normal level is commanded at an event's end or cancellation, at a "
                           "start and at the ten-minute repeats",
               "level " + std::to_string(level) + " was commanded");
    isCommandOfStart_ = isStart || (isRepeat && isCommandOfStart_);
    commandedLevel_ = level;
    commandedMs_ = now;
}

void Judge::seeNotification(const std::string &text) {
    const int value = numberIn(text);
    const auto differs = [&](const char *what, const std::optional<int> &key) {
        broken(std::string(what) + " key equals what was last reported",
               text + " while the key holds " + optionalText(key));
    };
    if (startsWith(text, "SendDRLCNotify")) {
        if (levelKey_ != value)
            differs("the level", levelKey_);
        notifiedLevel_ = value;
        levelUnannounced_ = false;
    } else if (startsWith(text, "SendOverrideNotify")) {
        if (overrideKey_ != value)
            differs("the override", overrideKey_);
        notifiedOverride_ = value;
        overrideUnannounced_ = false;
    } else if (startsWith(text, "SendDelayDefrostNotify")) {
        const int enabled = text == "SendDelayDefrostNotify(true)" ? 1 : 0;
        if ((enableKey_.value_or(0) != 0) != (enabled == 1))
            differs("the defrost delay's", enableKey_);
        notifiedEnable_ = enabled;
        enableUnannounced_ = false;
    } else if (startsWith(text, "SendDefrostBlockNotify")) {
        if (value != 0 && value != 1)
            broken("the block is 0 or 1", text);
        notifiedBlock_ = value;
    }
}

bool Judge::noticeStoreFailures() {
    const std::uint64_t failures = eyes_->storeFailures();
    if (failures == storeFailuresSeen_)
        return false;
    storeFailuresSeen_ = failures;
    if (eyes_->nowMs() - storeFailedMs_ > kPassesMs)
        storeBusySinceUtcMs_ = eyes_->utcMs();
    storeFailedMs_ = eyes_->nowMs();
    doubtTable();
    return true;
}

void Judge::doubtTable() {
    eventDoubtful_ = eventDoubtful_ || sqlTable_ == kDrTable || sqlTable_ == kNoTable;
    reservationsDoubtful_ =
        reservationsDoubtful_ || sqlTable_ == kDefrostTable || sqlTable_ == kNoTable;
    counterDoubtful_ = counterDoubtful_ || sqlTable_ == kPowerTable || sqlTable_ == kNoTable;
}

void Judge::seeSql(const std::string &sql) {
    const bool hasFailed = noticeStoreFailures();
    sqlTable_ = tableOf(sql);
    if (hasFailed) // perhaps only now, when its file was opened
        doubtTable();
    const bool isUnsure = unsureSeen_ != eyes_->unsureCommits();
    unsureSeen_ = eyes_->unsureCommits();
    // A connection's first statement; after a failure perhaps once more.
    const auto isOfUnsure = [&](bool before) { return isUnsure || (hasFailed && before); };
    if (startsWith(sql, "SELECT * FROM power_usage_table WHERE date = '")) {
        failuresAtLook_ = eyes_->storeFailures();
        isLookUnsure_ = isOfUnsure(isLookUnsure_);
    } else if (startsWith(sql, "SELECT * FROM power_usage_table ORDER BY date DESC")) {
        isUpdateUnsure_ = isOfUnsure(isUpdateUnsure_);
    }
    if (startsWith(sql, "SELECT"))
        return;
    if (sqlTable_ == kDrTable)
        seeEventSql(sql);
    else if (sqlTable_ == kDefrostTable)
        seeReservationSql(sql);
    else if (sqlTable_ == kPowerTable)
        seeHourSql(sql);
}

void Judge::seeEventSql(const std::string &sql) {
    eventDirty_ = true;
    const bool isOrder =
        startsWith(handling_, "ControlDRLC(") && !startsWith(handling_, "ControlDRLC(0");
    if (startsWith(sql, "INSERT")) {
        const auto values = valuesOf(sql);
        const std::int64_t start = utcTextMs(values[3]);
        inserted_ = Event{std::atoi(values[1].c_str()), start, start + lengthMs(values[2])};
        acknowledged_ = std::nullopt;
        orderInserted_ = true;
        compareWithOrder(values[2], values[3]);
    } else if (startsWith(sql, "DELETE")) {
        if (isOrder && orderInserted_)
            eventLost_ = true; // beside the order whose handler runs
        replaced_ = event_ ? event_ : inserted_;
        acknowledged_ = std::nullopt;
    }
}

void Judge::seeReservationSql(const std::string &sql) {
    reservationsDirty_ = true;
    if (startsWith(sql, "INSERT")) {
        const auto values = valuesOf(sql);
        insertedReservation_ = {std::atoi(values[0].c_str()),
                                {std::pmr::string(values[1]), std::pmr::string(values[2]),
                                 std::pmr::string(values[3]), std::pmr::string(values[4])}};
    } else if (startsWith(sql, "DELETE")) {
        acknowledgedReservations_.erase(std::atoi(sql.c_str() + sql.rfind('=') + 1));
    }
}

void Judge::seeHourSql(const std::string &sql) {
    hoursDirty_ = true;
    const bool isInsert = startsWith(sql, "INSERT");
    const bool isUpdate = startsWith(sql, "UPDATE");
    if (isUpdate)
        storesDue_ = std::max(0, storesDue_ - 1);
    if (isInsert && eyes_->storeFailures() != failuresAtLook_)
        doubledHours_.emplace(valuesOf(sql)[0]); // it may be there already
    if (isInsert && isLookUnsure_)
        unsureHours_.emplace(valuesOf(sql)[0]);
    if ((isInsert && isLookUnsure_) || (isUpdate && isUpdateUnsure_))
        isCounterUnsure_ = true;
    else if (isInsert || isUpdate)
        setCounterSure(); // this commit makes those before it sure too
    if (startsWith(sql, "DELETE"))
        hourDeletions_.emplace_back(sql.substr(sql.find("date ") + 5));
    if (sql.find("date < ") != sql.npos) {
        if (limits_.count(std::pmr::string(valuesOf(sql)[0])) == 0)
            broken("only rows older than six months go", sql);
        isPruneDue_ = false;
    }
}

void Judge::setCounterSure() {
    isCounterUnsure_ = false;
    unsureHours_.clear();
}

void Judge::compareWithOrder(const std::string &duration, const std::string &start) {
    // As the request was seen: ControlDRLC(level, duration, start).
    const std::string text(handling_);
    const std::size_t second = text.find(", ");
    const std::size_t third = text.find(", ", second + 2);
    if (!startsWith(text, "ControlDRLC(") || third == text.npos)
        broken("an event is stored when one is ordered", text);
    const std::string wantedDuration = text.substr(second + 2, third - second - 2);
    const std::string wantedStart = text.substr(third + 2, text.size() - third - 3);
    const std::int64_t now = eyes_->utcMs();
    // The order may have waited for the controller's lock while the database failed.
    const bool isAtOnce = eyes_->storeFailures() == failuresAtRequest_;
    const bool isRight =
        std::to_string(inserted_->level) == text.substr(12, second - 12) &&
        duration == (wantedDuration.empty() ? "04:30:00" : wantedDuration) &&
        (wantedStart.empty() || start.substr(11) == wantedStart) &&
        (!isAtOnce || !wantedStart.empty() || std::llabs(inserted_->startMs - now) <= 1'000);
    if (!isRight)
        broken("an event is stored as it was ordered", text + " became " + start + ", " + duration);
    constexpr std::int64_t kDayMs = 86'400'000;
    if (isAtOnce && (inserted_->endMs < now - 1'000 || inserted_->endMs - now > 2 * kDayMs ||
                     inserted_->startMs - now > kDayMs))
        broken("an event whose interval has passed today is meant for tomorrow",
               text + " became " + start);
}

void Judge::seePost(const std::string &text) {
    int whole = 0, hundredths = 0, duration = 0, end = 0;
    const int found = std::sscanf(text.c_str(),
                                  "POST http://127.0.0.1:7777/external/metering?cumulativepower="
                                  "%d.%2d&duration=%d%n",
                                  &whole, &hundredths, &duration, &end);
    if (found != 3 || static_cast<std::size_t>(end) != text.size() || duration != 60)
        broken("the figure is posted to the metering service on this device", text);
    postedCounts_ = whole * 100 + hundredths;
    if (displayRaw_ < 0) {
        displayRaw_ = displayRest_;
        return;
    }
    constexpr int kRawPerCount = 3'600;
    displayRaw_ -= (postedCounts_ - micomCounts_) * std::int64_t{kRawPerCount};
    // The last reading may wait for the lock that is held while readings are collected.
    const std::int64_t missing = displayRaw_ - displayRest_;
    if (displayRest_ >= kRawPerCount || missing < 0 || missing > kLargestReading)
        broken("the figure is the Micom's and the display's energy",
               text + " beside " + std::to_string(micomCounts_) + " of the Micom, and " +
                   std::to_string(missing) + " of the display's readings are missing");
}

void Judge::seeRequest(const std::string &text) {
    const std::size_t arrow = text.find(" -> ");
    if (arrow == text.npos) {
        noticeStoreFailures();
        handling_ = text;
        orderInserted_ = false;
        failuresAtRequest_ = eyes_->storeFailures();
        unsureAtRequest_ = eyes_->unsureCommits();
        return;
    }
    answered(text.substr(0, arrow), std::atoi(text.c_str() + arrow + 4));
    handling_.clear();
}

void Judge::answered(const std::string &command, int answer) {
    noticeStoreFailures();
    if (answer != 0 && answer != 1)
        broken("a handler answers 0 or 1", command + " was answered " + std::to_string(answer));
    const bool isSure = unsureAtRequest_ == eyes_->unsureCommits();
    const bool isClean = failuresAtRequest_ == eyes_->storeFailures();
    if (command == "ControlDRLC" && answer == 1) {
        orderEndedMs_ = eyes_->nowMs();
        if (isClean)
            eventDoubtful_ = false;
        if (orderInserted_ && !eventLost_ && isSure)
            acknowledged_ = inserted_;
        if (!orderInserted_)
            eventLost_ = false; // cancelled: the block is cleared
        if (orderInserted_ && isClean && !startsWith(handling_, "ControlDRLC(0") && drSinceMs_ < 0)
            broken("a handler without controller answers 0", std::string(handling_));
    }
    // Another request may be answered before these answers arrive.
    if (command == "GetDRLCOverride") {
        levelAtAnswer_ = notifiedLevel_;
        overrideAtAnswer_ = overrideKey_;
    } else if (command == "GetDefrostBlock") {
        blockAtAnswer_ = notifiedBlock_;
    } else if (command == "GetDelayDefrost") {
        enableAtAnswer_ = enableKey_;
    } else if (command == "GetEnergyConsumption") {
        const bool canTell = isClean && eyes_->canLookInto("usage.db") && !eyes_->isStoreTroubled();
        consumptionAtAnswer_ = canTell ? consumption() : "";
    }
    const bool isOfDefrost = command == "SetDelayDefrost" || command == "GetDelayDefrost";
    const bool isOfDr = command == "ControlDRLC" || command == "ControlOverride" ||
                        command == "GetDRLCOverride" || command == "GetDefrostBlock";
    if (answer == 0 && ((isOfDefrost && defrostSinceMs_ >= 0) || (isOfDr && drSinceMs_ >= 0)))
        broken("a request is handled while its controller is there", std::string(handling_));
    if (answer == 0 && command == "CreateDefrostReservations" && isClean && defrostSinceMs_ >= 0 &&
        !reservationsDirty_ && reservations_.size() < 4)
        broken("a reservation is refused only when no id is free", std::string(handling_));
    const bool isStoring =
        command == "CreateDefrostReservations" || command == "SetDefrostReservations";
    if (isStoring && answer == 1 && insertedReservation_ && isSure)
        acknowledgedReservations_[insertedReservation_->first] = insertedReservation_->second;
    if ((isStoring || command == "DelDefrostReservations") && answer == 1 && isClean)
        reservationsDoubtful_ = false;
}

void Judge::told(const std::string &what, const std::string &value) {
    if (what == "consumption") {
        const std::string right(consumptionAtAnswer_);
        if (!right.empty() && value != right)
            broken("the month's and the last month's consumption are what their hours tell",
                   "told was " + value + " instead of " + right);
        return;
    }
    const bool isLevel = what == "level";
    const std::optional<int> &reported = isLevel              ? levelAtAnswer_
                                         : what == "override" ? overrideAtAnswer_
                                         : what == "block"    ? blockAtAnswer_
                                                              : enableAtAnswer_;
    if (value != std::to_string(reported.value_or(0)))
        broken("a query is answered with what was last reported",
               what + " " + value + ", reported was " + optionalText(reported));
}

std::string Judge::consumption() const {
    const std::tm now = utcFields(eyes_->utcMs());
    // Of two rows for an hour the service's query and this one find the same.
    const auto growth = [](int year, int month) { // months from 0
        char rows[120];
        std::snprintf(rows, sizeof rows,
                      "(SELECT power_usage FROM power_usage_table WHERE date LIKE '%04d%02d%%' "
                      "ORDER BY date",
                      year, month + 1);
        const std::string ofMonth = rows;
        return fakes::storage::query("usage.db", "SELECT ifnull(" + ofMonth + " DESC LIMIT 1) - " +
                                                     ofMonth + " LIMIT 1), 0)")[0][0];
    };
    const int year = now.tm_year + 1900;
    const std::string last = now.tm_mon == 0 ? growth(year - 1, 11) : growth(year, now.tm_mon - 1);
    char remainder[20];
    std::snprintf(remainder, sizeof remainder, "%02d", remainder_ / 100);
    return growth(year, now.tm_mon) + "." + remainder + " and " + last + ".00";
}

// ---- The tables ----

void Judge::readTables() {
    if (!handling_.empty())
        return;
    if ((eventDirty_ || reservationsDirty_) && drSinceMs_ >= 0 && defrostSinceMs_ >= 0 &&
        eyes_->canLookInto("corvane.db")) {
        readEvent();
        readReservations();
    }
    if (hoursDirty_ && reportSinceMs_ >= 0 && eyes_->canLookInto("usage.db"))
        readHours();
}

void Judge::readEvent() {
    const auto rows = fakes::storage::query(
        "corvane.db", "SELECT drlcLevel, duration, drlcStartTime FROM dr_usage_table");
    if (rows.size() > 1)
        broken("at most one event is stored", std::to_string(rows.size()) + " are");
    eventDirty_ = false;
    event_ = std::nullopt;
    if (!rows.empty()) {
        const std::int64_t start = utcTextMs(rows[0][2]);
        event_ = Event{std::atoi(rows[0][0].c_str()), start, start + lengthMs(rows[0][1])};
    }
    if (acknowledged_ && event_ != acknowledged_)
        broken("an event survives a restart of the service",
               "one that was answered 1 is not in the table any more");
}

void Judge::readReservations() {
    const auto rows = fakes::storage::query(
        "corvane.db",
        "SELECT id, description, startTime, endTime, period FROM defrost_usage_table");
    reservationsDirty_ = false;
    reservations_.clear();
    for (const auto &row : rows)
        reservations_[std::atoi(row[0].c_str())] = {
            std::pmr::string(row[1]), std::pmr::string(row[2]), std::pmr::string(row[3]),
            std::pmr::string(row[4])};
    for (const auto &[id, reservation] : acknowledgedReservations_) {
        const auto found = reservations_.find(id);
        if (found == reservations_.end() || !(found->second == reservation))
            broken("a reservation that was answered 1 is stored",
                   "number " + std::to_string(id) + " is not");
    }
}

/* Mostly there are only new ones at the end. */
void Judge::compareHours(std::string_view hours) {
    const auto isGone = [&](std::string_view hour) {
        return hours.find(hour) == hours.npos &&
               std::none_of(hourDeletions_.begin(), hourDeletions_.end(), [&](const auto &deleted) {
                   const std::string_view limit = std::string_view(deleted).substr(3, kKeyLength);
                   return deleted[0] == '<' ? hour < limit : hour > limit;
               });
    };
    const bool isLonger = startsWith(hours, hours_);
    for (std::size_t at = 0; at < hours_.size() && !isLonger; at += kKeyLength + 1) {
        const std::string_view hour = std::string_view(hours_).substr(at, kKeyLength);
        if (isGone(hour))
            broken("rows of the last six months stay", "the row " + std::string(hour) + " is gone");
    }
    for (std::size_t at = isLonger ? hours_.size() : 0; at < hours.size(); ++at) {
        if (hours[at] != ',' || at < kKeyLength)
            continue;
        const std::string_view hour = hours.substr(at - kKeyLength, kKeyLength);
        if (hours.substr(at + 1, kKeyLength) == hour &&
            doubledHours_.count(std::pmr::string(hour)) == 0)
            broken("there is one row for an hour", "two have the key " + std::string(hour));
    }
}

void Judge::readHours() {
    noticeStoreFailures();
    const auto rows = fakes::storage::query(
        "usage.db",
        "SELECT ifnull(group_concat(date), ''), ifnull((SELECT power_usage FROM power_usage_table "
        "ORDER BY date DESC LIMIT 1), 0) FROM (SELECT date FROM power_usage_table ORDER BY date)");
    const std::string &hours = rows[0][0];
    const std::int64_t counter = std::atoll(rows[0][1].c_str());
    hoursDirty_ = false;
    compareHours(hours);
    std::string prunedBefore; // by the last pruning since
    for (const std::pmr::string &condition : hourDeletions_) {
        if (condition[0] == '<')
            prunedBefore = std::string_view(condition).substr(3, kKeyLength);
    }
    hourDeletions_.clear();
    const std::string oldest = hours.substr(0, kKeyLength);
    const std::string newestBefore(
        hours_.substr(hours_.size() - std::min(hours_.size(), kKeyLength)));
    hours_ = hours;
    // Rows of a clock that was set may be older than six months; they stay until the next month.
    if (!hours.empty() && oldest < prunedBefore && !counterDoubtful_ &&
        eyes_->nowMs() - clockTouchedMs_ > kGateMs)
        broken("rows older than six months go",
               "the row " + oldest + " is older than " + prunedBefore);
    // A jump into the same hour of another half-year: no hour was left to go on from. What was
    // still to be stored then is added to nothing.
    const bool isEmptied = !newestBefore.empty() && newestBefore < prunedBefore;
    counterDoubtful_ = counterDoubtful_ || isEmptied;
    if (isCounterOfLastLife_ && counterKnown_ && !counterDoubtful_ && counter != counter_ &&
        (counter < counter_ || counter > expected_) && expected_ <= kCounterWrap)
        broken("a stored counter neither loses nor doubles energy over a restart",
               "it was " + std::to_string(counter_) + " to " + std::to_string(expected_) +
                   " and is " + std::to_string(counter));
    if (!counterKnown_ || counterDoubtful_ || isCounterOfLastLife_)
        expected_ = counter;
    counterKnown_ = true;
    isCounterOfLastLife_ = false;
    counter_ = counter;
}

// ---- What must hold while time passes ----

bool Judge::mayTellTime() const {
    const std::int64_t now = eyes_->nowMs();
    return now - clockTouchedMs_ > kPassesMs && now - storeFailedMs_ > kPassesMs &&
           !eyes_->isStoreTroubled();
}

bool Judge::lasts(bool condition, std::int64_t &sinceMs) const {
    if (!condition || !mayTellTime() || !handling_.empty()) {
        sinceMs = -1;
        return false;
    }
    if (sinceMs < 0)
        sinceMs = eyes_->nowMs();
    return eyes_->nowMs() - sinceMs > kPassesMs;
}

void Judge::tick() {
    ++steps_;
    noticeStoreFailures();
    readTables();
    checkGate();
    checkEvent();
    checkBlock();
    checkDefrost();
    checkKeys();
    checkRepeat();
    checkEnergy();
    if (isPruneDue_ && eyes_->nowMs() - keptFromMs_ > 60'000 && cyclesDue_ == 0 &&
        !eyes_->isMeteringTroubled() && !eyes_->isStoreTroubled())
        broken("rows older than six months go when the month changes", "none was deleted");
}

bool Judge::isQuiet() const {
    const std::int64_t now = eyes_->nowMs();
    const std::int64_t sinces[] = {activeSinceMs_,        overSinceMs_,        blockWrongSinceMs_,
                                   heldWrongSinceMs_,     notHeldSinceMs_,     levelLeftSinceMs_,
                                   overrideWrongSinceMs_, energyWrongSinceMs_, gateOpenMs_,
                                   bothSinceMs_};
    const bool isUnderWay = !handling_.empty() || eventDirty_ || reservationsDirty_ ||
                            hoursDirty_ || storesDue_ > 0 || cyclesDue_ > 0 || isPosting_ ||
                            displayPresses_ > 0 || isPruneDue_ || levelUnannounced_ ||
                            enableUnannounced_ || overrideUnannounced_;
    const std::int64_t lastMs = std::max(
        {clockTouchedMs_, storeFailedMs_, echoMs_, orderEndedMs_, commandedMs_, heldCommandMs_});
    // A repeat is judged when a few seconds have passed since it was due.
    return drSinceMs_ >= 0 && defrostSinceMs_ >= 0 && reportSinceMs_ >= 0 && !isUnderWay &&
           sinceMark(eyes_->utcMs()) > 2 * kPassesMs && now - lastMs > kPassesMs &&
           std::all_of(std::begin(sinces), std::end(sinces),
                       [](std::int64_t since) { return since < 0; });
}

std::int64_t Judge::untilEdgeMs() const {
    constexpr std::int64_t kDayMs = 86'400'000;
    const std::int64_t utc = eyes_->utcMs();
    std::int64_t until = kMarkMs - sinceMark(utc);
    if (event_) {
        for (const std::int64_t edge : {event_->startMs, event_->endMs})
            until = edge >= utc ? std::min(until, edge - utc) : until;
    }
    const std::time_t seconds = utc / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    const std::int64_t ofDay =
        ((local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec) * std::int64_t{1000} + utc % 1000;
    for (const auto &[id, reservation] : reservations_) {
        const std::int64_t start = lengthMs(std::string_view(reservation.startTime).substr(11));
        for (const std::int64_t edge : {start, start + lengthMs(reservation.period)})
            until = std::min(until, ((edge - ofDay) % kDayMs + kDayMs) % kDayMs);
    }
    return until;
}

void Judge::checkGate() {
    const bool mayOpen = eyes_->isWifiConnected() && eyes_->utcMs() >= kDecember2015Sec * 1000 &&
                         !eyes_->isStoreTroubled();
    if (!mayOpen || reportSinceMs_ >= 0 || eyes_->nowMs() - storeFailedMs_ < kGateMs) {
        gateOpenMs_ = -1;
        return;
    }
    if (gateOpenMs_ < 0)
        gateOpenMs_ = eyes_->nowMs();
    if (eyes_->nowMs() - gateOpenMs_ > kGateMs)
        broken("the controllers are built once Wi-Fi is connected and the clock is plausible",
               "they are not all there after " + std::to_string(kGateMs / 1000) + " s");
}

void Judge::checkEvent() {
    const bool isKnown = drSinceMs_ >= 0 && !eventDirty_ && !eventDoubtful_;
    const std::int64_t utc = eyes_->utcMs();
    const bool isUncommanded =
        isKnown && event_ && isActiveAt(*event_, utc) && commandedLevel_ != event_->level;
    if (lasts(isUncommanded, activeSinceMs_))
        broken("the level is commanded within a pass of its event's start",
               "level " + std::to_string(event_->level) + " is due, " +
                   std::to_string(commandedLevel_) + " was commanded");
    if (lasts(isKnown && event_ && utc > event_->endMs, overSinceMs_))
        broken("an event that is over ends within a pass", "it is still stored");
    if (lasts(isKnown && !event_ && !eventLost_ && commandedLevel_ != 0 && !isCommandOfStart_,
              levelLeftSinceMs_))
        broken("after an event's end the appliance is commanded back to normal",
               "level " + std::to_string(commandedLevel_) + " was the last command");
}

void Judge::checkBlock() {
    const bool isWrong = drSinceMs_ >= 0 && !eventDirty_ && !eventDoubtful_ && !eventLost_ &&
                         notifiedBlock_ != (event_ ? 1 : 0);
    if (lasts(isWrong, blockWrongSinceMs_))
        broken("the block is 1 exactly while an event is stored",
               "it was notified as " + optionalText(notifiedBlock_) +
                   (event_ ? ", and an event is stored" : ", and no event is stored"));
}

std::optional<client::Reservation> Judge::matchingReservation() const {
    const std::time_t now = eyes_->utcMs() / 1000;
    for (auto entry = reservations_.rbegin(); entry != reservations_.rend(); ++entry) {
        const auto &[description, startTime, endTime, period] = entry->second;
        client::Reservation reservation{std::to_string(entry->first), std::string(description),
                                        std::string(startTime), std::string(endTime),
                                        std::string(period)};
        if (client::seasonHolds(reservation, now))
            return reservation;
    }
    return std::nullopt;
}

bool Judge::isInsideWindow(const client::Reservation &reservation) const {
    const std::time_t now = eyes_->utcMs() / 1000;
    const auto window = client::windowOfDay(reservation, now);
    return window && window->start <= now && now < window->end;
}

/* A change of clocks repeats the time at which the window begins, or leaves it out. mktime() takes
 * one of the two, depending on what it was asked before. */
bool Judge::mayBeginTwice(const client::Reservation &reservation) const {
    const std::time_t now = eyes_->utcMs() / 1000;
    const std::int64_t startSec = lengthMs(reservation.dailyStart()) / 1000;
    const std::int64_t periodSec = lengthMs(reservation.period) / 1000;
    bool isKept[2] = {}, isInside[2] = {};
    for (const int dst : {0, 1}) {
        std::tm local{};
        localtime_r(&now, &local);
        local.tm_hour = local.tm_min = 0;
        local.tm_sec = static_cast<int>(startSec);
        local.tm_isdst = dst;
        const std::time_t start = mktime(&local);
        isKept[dst] = (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec == startSec;
        isInside[dst] = start <= now && now < start + periodSec;
    }
    return isKept[0] == isKept[1] && isInside[0] != isInside[1];
}

void Judge::checkDefrost() {
    const bool isKnown = defrostSinceMs_ >= 0 && !reservationsDirty_ && !reservationsDoubtful_;
    const bool isEnabled = enableKey_ == 1;
    const bool isHeld = activeKey_ == 1;
    if (isKnown && (isHeld || isEnabled)) {
        const auto reservation = matchingReservation();
        const bool isInside = reservation && isInsideWindow(*reservation);
        const bool isEither = reservation && isInside != isHeld && mayBeginTwice(*reservation);
        const bool isRight = isEnabled ? isInside || isEither : heldExplained_;
        if (lasts(isHeld && !isRight, heldWrongSinceMs_))
            broken("defrost is held only inside the window of the matching reservation, while "
                   "defrost delay is on",
                   isEnabled ? "it is outside" : "defrost delay is off");
        if (lasts(isEnabled && isInside && !isHeld && !isEither, notHeldSinceMs_))
            broken("defrost is held inside the window of the matching reservation", "it is not");
    } else {
        heldWrongSinceMs_ = notHeldSinceMs_ = -1;
    }
    if (isKnown && heldCommand_ && activeKey_ && (*activeKey_ == 0 || *activeKey_ == 1) &&
        heldCommand_ != activeKey_ && !releasedByStart_)
        broken("the Micom hears the state of defrost delay",
               "the key holds " + optionalText(activeKey_) + ", the other was commanded");
    const bool isBoth = isKnown && drSinceMs_ >= 0 && !eventDirty_ && event_ && isEnabled;
    bothExplained_ = bothExplained_ && (isBoth || !isKnown || drSinceMs_ < 0 || eventDirty_);
    if (lasts(isBoth && !bothExplained_, bothSinceMs_))
        broken("defrost delay is off while an event is stored", "it is on");
}

void Judge::checkKeys() {
    if (levelUnannounced_ || enableUnannounced_ || overrideUnannounced_)
        broken("the remote side hears of every change",
               levelUnannounced_    ? "the level's was not notified"
               : enableUnannounced_ ? "defrost delay's was not notified"
                                    : "the override's was not notified");
    if (drSinceMs_ >= 0 && notifiedLevel_ && notifiedLevel_ != levelKey_)
        broken("the level key equals what was last reported", "it does not");
    if (drSinceMs_ >= 0 && overrideKey_ && (*overrideKey_ == 0 || *overrideKey_ == 1) &&
        notifiedOverride_ != overrideKey_)
        broken("the override key equals what was last reported", "it does not");
    if (lasts(drSinceMs_ >= 0 && micomOverride_ != -1 && overrideKey_ != micomOverride_,
              overrideWrongSinceMs_))
        broken("the override follows what the Micom reports",
               "it is " + optionalText(overrideKey_) + ", the Micom reports " +
                   std::to_string(micomOverride_));
    if (displayPresses_ > 0 && eyes_->nowMs() - displayOverrideMs_ > kPassesMs)
        broken("an override switched on the display is commanded", "it was not");
}

void Judge::checkRepeat() {
    constexpr std::int64_t kMinuteMs = 60'000;
    const std::int64_t now = eyes_->nowMs();
    const std::int64_t ofMinute = eyes_->utcMs() % kMinuteMs;
    const bool isDue = ofMinute > kPassesMs && ofMinute < 2 * kPassesMs &&
                       now - clockTouchedMs_ > kMinuteMs && now - storeFailedMs_ > kMinuteMs &&
                       !eyes_->isStoreTroubled() && handling_.empty();
    if (!isDue)
        return;
    if (drSinceMs_ >= 0 && now - drSinceMs_ > kMinuteMs &&
        utcFields(eyes_->utcMs()).tm_min % 10 == 0 && now - commandedMs_ > ofMinute)
        broken("the level is repeated at minutes 00, 10, 20, 30, 40 and 50", "it was not");
    const std::time_t seconds = eyes_->utcMs() / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    if (defrostSinceMs_ >= 0 && now - defrostSinceMs_ > kMinuteMs && local.tm_min % 10 == 0 &&
        now - heldCommandMs_ > ofMinute)
        broken("the state of defrost delay is repeated every ten minutes", "it was not");
}

void Judge::checkEnergy() {
    if (!counterKnown_ || reportSinceMs_ < 0 || hoursDirty_ || counterDoubtful_ || storesDue_ > 0 ||
        cyclesDue_ > 0) {
        energyWrongSinceMs_ = -1;
        if (counterDoubtful_ && !eyes_->isStoreTroubled() && storesDue_ == 0 && cyclesDue_ == 0 &&
            eyes_->nowMs() - storeFailedMs_ > 10 * kTaskMs && !hoursDirty_) {
            counterDoubtful_ = false;
            expected_ = counter_;
        }
        return;
    }
    const std::int64_t wrapped = expected_ > kCounterWrap ? expected_ - kCounterWrap : expected_;
    if (lasts(counter_ != wrapped, energyWrongSinceMs_))
        broken("the counter grows by one for every 100.00 of the posted figure",
               "it is " + std::to_string(counter_) + ", not " + std::to_string(wrapped));
    expected_ = wrapped;
}

void Judge::calm(int micomLevel) {
    if (drSinceMs_ < 0 || defrostSinceMs_ < 0 || reportSinceMs_ < 0)
        broken("all controllers run when all is well", "one does not");
    if (commandedLevel_ != micomLevel)
        broken("the appliance follows the command", "level " + std::to_string(commandedLevel_) +
                                                        " was commanded, it is at " +
                                                        std::to_string(micomLevel));
    if (!levelDoubtful_ && levelKey_.value_or(0) != micomLevel)
        broken("the level key follows the appliance's echo", "it holds " + optionalText(levelKey_) +
                                                                 ", the appliance reports " +
                                                                 std::to_string(micomLevel));
}

void Judge::terminated(const Remains &remains, std::int64_t tookMs, bool wasHeldUp) {
    if (!remains.threads.empty())
        broken("after terminate no thread is left", remains.threads);
    if (remains.locks != 0)
        broken("after terminate no lock is left", std::to_string(remains.locks) + " are");
    if (remains.leaks)
        broken("after terminate no memory is left", "the leak checker has told what is");
    if (tookMs > 3 * kPassesMs && !wasHeldUp)
        broken("a worker notices its stop within one second",
               "terminate took " + std::to_string(tookMs) + " ms");
}

} // namespace corvane::lab
