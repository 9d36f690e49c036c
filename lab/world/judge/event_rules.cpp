/*
 * In this order: level commands, orders and the table, what must hold while time passes.
 */
#include "event_rules.h"

#include "seen_texts.h"
#include "storage.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace corvane::lab {

void EventRules::lifeBegins() {
    startLevel_ = scene_.level.key.value_or(0);
    orderInserted_ = isCancelled_ = false;
    commandedLevel_ = -1;
    repeatedMs_ = kLongAgoMs;
    zeroEchoes_ = 0;
    isDirty_ = true;
    isDoubtful_ = isLost_ = false;
    uncommandedSinceMs_ = overSinceMs_ = levelLeftSinceMs_ = blockWrongSinceMs_ = -1;
}

// ---- Level commands ----

bool EventRules::isActiveAt(const Event &event, std::int64_t utcMs) {
    return event.startMs <= utcMs && utcMs < event.endMs;
}

void EventRules::commanded(int level) {
    const bool isStart = (scene_.drSinceMs < 0 && level == startLevel_) ||
                         (std::string_view(scene_.handling) == "GetDRLCOverride()" &&
                          level == scene_.level.key.value_or(0));
    const bool isRepeat = utcFields(scene_.utcMs()).tm_min % 10 == 0 && level == commandedLevel_;
    if (!isStart && !isRepeat && level > 0 && !mayCommand(level))
        scene_.broken("a level is commanded only while its event lasts, at a start and at the "
                      "ten-minute repeats",
                      "level " + std::to_string(level) + " was commanded");
    if (!isStart && !isRepeat && level == 0 && !mayCommandNormal())
        scene_.broken("the normal level is commanded at an event's end or cancellation, at a start "
                      "and at the ten-minute repeats",
                      "level 0 was commanded");
    const bool isRepeated =
        repeatedMs_ > scene_.clockTouchedMs && scene_.nowMs() - repeatedMs_ < Scene::kMinuteMs;
    if (!isStart && (!isRepeat || isRepeated) && level > 0 && level == commandedLevel_ &&
        !scene_.mayBeHeldUp())
        scene_.broken("a level above 0 that was commanded is commanded again at the ten-minute "
                      "repeats only, once at each",
                      "level " + std::to_string(level) + " was commanded again");
    if (isRepeat && !isStart)
        repeatedMs_ = scene_.nowMs();
    isNormalCommanded_ = isNormalCommanded_ || level == 0;
    isCommandOfStart_ = isStart || (isRepeat && isCommandOfStart_);
    commandedLevel_ = level;
    commandedMs_ = scene_.nowMs();
}

bool EventRules::mayCommand(int level) const {
    const std::int64_t now = scene_.nowMs();
    const std::int64_t utc = scene_.utcMs();
    const bool isOrder = !scene_.handling.empty() || now - orderEndedMs_ < kPassesMs;
    const auto begins = [&](const std::optional<Event> &event) {
        // Beside a busy database the worker's pass waits, with the time at which it began.
        const bool didBegin = now - scene_.storeFailedMs < kPassesMs && event &&
                              event->startMs <= std::max(utc, scene_.storeBusyLatestUtcMs) &&
                              event->endMs > scene_.storeBusySinceUtcMs - kPassMs;
        return event && event->level == level && (isActiveAt(*event, utc) || didBegin);
    };
    return begins(event_) || begins(inserted_) || (isOrder && begins(replaced_));
}

bool EventRules::mayCommandNormal() {
    const bool isOrder = !scene_.handling.empty() || scene_.nowMs() - orderEndedMs_ < kPassesMs;
    // Beside a busy database the pass may have waited while the clock was set back.
    const bool hasWaited = scene_.nowMs() - scene_.storeFailedMs < kPassesMs;
    const std::int64_t utc =
        hasWaited ? std::max(scene_.utcMs(), scene_.storeBusyLatestUtcMs) : scene_.utcMs();
    const auto isOver = [utc](const std::optional<Event> &event) {
        return event && utc >= event->endMs; // the service's clock is finer than milliseconds
    };
    if (scene_.isHandling("ControlDRLC(0") || isOver(event_) || isOver(inserted_) ||
        (isOrder && isOver(replaced_)))
        return true;
    if (zeroEchoes_ == 0)
        return false;
    --zeroEchoes_;
    return true;
}

// ---- Orders and the table ----

void EventRules::seeChange(const std::string &sql) {
    isDirty_ = true;
    if (startsWith(sql, "INSERT")) {
        const auto values = valuesOf(sql);
        if (values.size() < 4)
            scene_.broken("an event is stored as it was ordered", sql);
        const std::int64_t start = utcTextMs(values[3]);
        inserted_ = Event{std::atoi(values[1].c_str()), start, start + lengthMs(values[2])};
        acknowledged_ = std::nullopt;
        orderInserted_ = true;
        isCancelled_ = false;
        compareWithOrder(values[2], values[3]);
    } else if (startsWith(sql, "DELETE")) {
        const bool isOrder =
            scene_.isHandling("ControlDRLC(") && !scene_.isHandling("ControlDRLC(0");
        if (isOrder && orderInserted_)
            isLost_ = true; // beside the order whose handler runs
        replaced_ = event_ ? event_ : inserted_;
        acknowledged_ = std::nullopt;
    }
}

void EventRules::compareWithOrder(const std::string &duration, const std::string &start) const {
    // As the request was seen: ControlDRLC(level, duration, start).
    const std::string text(scene_.handling);
    const std::size_t second = text.find(", ");
    const std::size_t third = text.find(", ", second + 2);
    if (!startsWith(text, "ControlDRLC(") || third == text.npos)
        scene_.broken("an event is stored when one is ordered", text);
    const std::string wantedDuration = text.substr(second + 2, third - second - 2);
    const std::string wantedStart = text.substr(third + 2, text.size() - third - 3);
    const std::int64_t now = scene_.utcMs();
    // The order may have waited for the controller's lock while the database failed.
    const bool isAtOnce = !scene_.hasStoreFailedInRequest();
    const bool isRight =
        std::to_string(inserted_->level) == text.substr(12, second - 12) &&
        duration == (wantedDuration.empty() ? "04:30:00" : wantedDuration) &&
        (wantedStart.empty() || start.substr(11) == wantedStart) &&
        (!isAtOnce || !wantedStart.empty() || std::llabs(inserted_->startMs - now) <= 1'000);
    const std::string became = text + " became " + start;
    if (!isRight)
        scene_.broken("an event is stored as it was ordered", became + ", " + duration);
    constexpr std::int64_t kDayMs = 86'400'000;
    if (isAtOnce && (inserted_->endMs < now - 1'000 || inserted_->endMs - now > 2 * kDayMs ||
                     inserted_->startMs - now > kDayMs))
        scene_.broken("an event whose interval has passed today is meant for tomorrow", became);
}

void EventRules::ordered(bool isSure, bool isClean) {
    orderEndedMs_ = scene_.nowMs();
    if (isClean)
        isDoubtful_ = false;
    if (scene_.isHandling("ControlDRLC(0,")) {
        if (!isNormalCommanded_)
            scene_.broken("a cancellation commands the appliance back to normal", "it did not");
        isCancelled_ = isClean;
        isDirty_ = true;
    }
    if (orderInserted_ && !isLost_ && isSure)
        acknowledged_ = inserted_;
    if (!orderInserted_)
        isLost_ = false; // cancelled: the block is cleared
    if (orderInserted_ && isClean && !scene_.isHandling("ControlDRLC(0") && scene_.drSinceMs < 0)
        scene_.broken("a handler without controller answers 0", std::string(scene_.handling));
}

void EventRules::read() {
    const auto rows = fakes::storage::query(
        "corvane.db", "SELECT drlcLevel, duration, drlcStartTime FROM dr_usage_table");
    if (rows.size() > 1)
        scene_.broken("at most one event is stored", std::to_string(rows.size()) + " are");
    isDirty_ = false;
    event_ = std::nullopt;
    if (!rows.empty()) {
        const std::int64_t start = utcTextMs(rows[0][2]);
        event_ = Event{std::atoi(rows[0][0].c_str()), start, start + lengthMs(rows[0][1])};
    }
    if (isCancelled_ && event_)
        scene_.broken("a cancellation empties the table", "an event is still stored");
    if (acknowledged_ && event_ != acknowledged_)
        scene_.broken("an event survives a restart of the service",
                      "one that was answered 1 is not in the table any more");
}

std::optional<bool> EventRules::isStored() const {
    if (scene_.drSinceMs < 0 || isDirty_)
        return std::nullopt;
    return event_.has_value();
}

// ---- What must hold while time passes ----

void EventRules::check() {
    const bool isKnown = scene_.drSinceMs >= 0 && !isDirty_ && !isDoubtful_;
    const std::int64_t utc = scene_.utcMs();
    const bool isUncommanded =
        isKnown && event_ && isActiveAt(*event_, utc) && commandedLevel_ != event_->level;
    if (scene_.lasts(isUncommanded, uncommandedSinceMs_))
        scene_.broken("the level is commanded within a pass of its event's start",
                      "level " + std::to_string(event_->level) + " is due, " +
                          std::to_string(commandedLevel_) + " was commanded");
    if (scene_.lasts(isKnown && event_ && utc > event_->endMs, overSinceMs_))
        scene_.broken("an event that is over ends within a pass", "it is still stored");
    const bool isLevelLeft =
        isKnown && !event_ && !isLost_ && commandedLevel_ != 0 && !isCommandOfStart_;
    if (scene_.lasts(isLevelLeft, levelLeftSinceMs_))
        scene_.broken("after an event's end the appliance is commanded back to normal",
                      "level " + std::to_string(commandedLevel_) + " was the last command");
    const bool isBlockWrong = isKnown && !isLost_ && scene_.notifiedBlock != (event_ ? 1 : 0);
    if (scene_.lasts(isBlockWrong, blockWrongSinceMs_))
        scene_.broken("the block is 1 exactly while an event is stored",
                      "it was notified as " + optionalText(scene_.notifiedBlock) +
                          (event_ ? ", and an event is stored" : ", and no event is stored"));
}

void EventRules::checkRepeat(std::int64_t ofMinuteMs) const {
    if (scene_.drSinceMs >= 0 && scene_.nowMs() - scene_.drSinceMs > Scene::kMinuteMs &&
        utcFields(scene_.utcMs()).tm_min % 10 == 0 && scene_.nowMs() - commandedMs_ > ofMinuteMs)
        scene_.broken("the level is repeated at minutes 00, 10, 20, 30, 40 and 50", "it was not");
}

void EventRules::calm(int micomLevel) const {
    if (commandedLevel_ != micomLevel)
        scene_.broken("the appliance follows the command",
                      "level " + std::to_string(commandedLevel_) + " was commanded, it is at " +
                          std::to_string(micomLevel));
}

bool EventRules::isQuiet() const {
    const std::int64_t lastMs = std::max(orderEndedMs_, commandedMs_);
    return !isDirty_ && scene_.nowMs() - lastMs > kPassesMs && uncommandedSinceMs_ < 0 &&
           overSinceMs_ < 0 && levelLeftSinceMs_ < 0 && blockWrongSinceMs_ < 0;
}

std::int64_t EventRules::untilEdgeMs() const {
    std::int64_t until = std::numeric_limits<std::int64_t>::max();
    if (event_) {
        const std::int64_t utc = scene_.utcMs();
        for (const std::int64_t edge : {event_->startMs, event_->endMs})
            until = edge >= utc ? std::min(until, edge - utc) : until;
    }
    return until;
}

} // namespace corvane::lab
