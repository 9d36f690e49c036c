/*
 * In this order: commands and keys, reservations, what must hold while time passes.
 */
#include "defrost_rules.h"

#include "seen_texts.h"
#include "storage.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>

namespace corvane::lab {

void DefrostRules::lifeBegins() {
    heldCommand_ = std::nullopt;
    deleted_ = std::nullopt;
    isDirty_ = true;
    isDoubtful_ = false;
    heldWrongSinceMs_ = notHeldSinceMs_ = bothSinceMs_ = -1;
}

// ---- Commands and keys ----

void DefrostRules::commanded(bool isHeld) {
    heldCommand_ = isHeld ? 1 : 0;
    heldCommandMs_ = scene_.nowMs();
    releasedByStart_ = !isHeld && scene_.defrostSinceMs < 0 && scene_.enable.key.value_or(0) == 0;
}

void DefrostRules::enableWritten(int value) {
    if (value == 0 && scene_.enable.key == 1)
        enableOffMs_ = scene_.nowMs();
    // A refusal beside an event switches defrost delay off and leaves "active" alone.
    heldExplained_ = heldExplained_ || (value == 0 && bothExplained_ && scene_.activeKey == 1);
    // The handler has asked for a stored event, and could not learn of one.
    const bool isBlind = scene_.drSinceMs < 0 || scene_.hasStoreFailedInRequest();
    bothExplained_ =
        bothExplained_ || (value == 1 && isBlind && scene_.isHandling("SetDelayDefrost("));
}

void DefrostRules::activeWritten(int value) {
    // Switched off between the worker's look at "enabled" and its setting of "active".
    // A start only repeats what was.
    const bool isOff = scene_.enable.key.value_or(0) == 0;
    const bool hasJustGoneOff = scene_.nowMs() - enableOffMs_ < kPassesMs || scene_.mayBeHeldUp();
    heldExplained_ =
        value == 1 && isOff && (scene_.defrostSinceMs >= 0 ? hasJustGoneOff : heldExplained_);
}

// ---- Reservations ----

void DefrostRules::seeChange(const std::string &sql) {
    isDirty_ = true;
    if (startsWith(sql, "INSERT")) {
        const auto values = valuesOf(sql);
        if (values.size() < 5)
            scene_.broken("a reservation is stored with all its texts", sql);
        deleted_ = std::nullopt;
        inserted_ = {std::atoi(values[0].c_str()),
                     {std::pmr::string(values[1]), std::pmr::string(values[2]),
                      std::pmr::string(values[3]), std::pmr::string(values[4])}};
    } else if (startsWith(sql, "DELETE")) {
        acknowledged_.erase(std::atoi(sql.c_str() + sql.rfind('=') + 1));
    }
}

void DefrostRules::answered(const std::string &command, int answer, bool isSure, bool isClean) {
    constexpr std::size_t kMost = 4;
    const bool isCreation = command == "CreateDefrostReservations";
    if (isCreation && answer == 0 && isClean && scene_.defrostSinceMs >= 0 && !isDirty_ &&
        reservations_.size() < kMost)
        scene_.broken("a reservation is refused only when no id is free",
                      std::string(scene_.handling));
    const bool isDeletion = command == "DelDefrostReservations";
    if (isCreation && answer == 1)
        checkNotified(0, inserted_ ? inserted_->first : -1);
    if (isDeletion && answer == 1) {
        const int id = numberIn(scene_.handling);
        checkNotified(2, id);
        deleted_ = isClean ? std::optional(id) : std::nullopt;
        isDirty_ = true;
    }
    const bool isStoring = isCreation || command == "SetDefrostReservations";
    if (isStoring && answer == 1 && inserted_ && isSure)
        acknowledged_[inserted_->first] = inserted_->second;
    if ((isStoring || isDeletion) && answer == 1 && isClean)
        isDoubtful_ = false;
}

void DefrostRules::checkNotified(int action, int id) const {
    if (notified_ != std::pair(action, id))
        scene_.broken("the remote side hears of every reservation that is created or deleted",
                      notified_ ? "of number " + std::to_string(id) + " it heard action " +
                                      std::to_string(notified_->first) + " on number " +
                                      std::to_string(notified_->second)
                                : "of number " + std::to_string(id) + " it did not");
}

void DefrostRules::read() {
    const auto rows = fakes::storage::query(
        "corvane.db",
        "SELECT id, description, startTime, endTime, period FROM defrost_usage_table");
    isDirty_ = false;
    reservations_.clear();
    for (const auto &row : rows)
        reservations_[std::atoi(row[0].c_str())] = {
            std::pmr::string(row[1]), std::pmr::string(row[2]), std::pmr::string(row[3]),
            std::pmr::string(row[4])};
    if (deleted_ && reservations_.contains(*deleted_))
        scene_.broken("a reservation that was deleted is gone",
                      "number " + std::to_string(*deleted_) + " is not");
    for (const auto &[id, reservation] : acknowledged_) {
        const auto found = reservations_.find(id);
        if (found == reservations_.end() || !(found->second == reservation))
            scene_.broken("a reservation that was answered 1 is stored",
                          "number " + std::to_string(id) + " is not");
    }
}

std::optional<client::Reservation> DefrostRules::matching() const {
    const std::time_t now = scene_.utcMs() / 1000;
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

bool DefrostRules::isInsideWindow(const client::Reservation &reservation) const {
    const std::time_t now = scene_.utcMs() / 1000;
    const auto window = client::windowOfDay(reservation, now);
    return window && window->start <= now && now < window->end;
}

/* A change of clocks repeats the time at which the window begins, or leaves it out. mktime() takes
 * one of the two, depending on what it was asked before. */
bool DefrostRules::mayBeginTwice(const client::Reservation &reservation) const {
    const std::time_t now = scene_.utcMs() / 1000;
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

// ---- What must hold while time passes ----

bool DefrostRules::isKnown() const {
    return scene_.defrostSinceMs >= 0 && !isDirty_ && !isDoubtful_;
}

void DefrostRules::check(std::optional<bool> isEventStored) {
    checkWindow();
    const std::optional<int> &active = scene_.activeKey;
    if (isKnown() && heldCommand_ && active && (*active == 0 || *active == 1) &&
        heldCommand_ != active && !releasedByStart_)
        scene_.broken("the Micom hears the state of defrost delay",
                      "the key holds " + optionalText(active) + ", the other was commanded");
    checkBoth(isEventStored);
}

void DefrostRules::checkWindow() {
    const bool isEnabled = scene_.enable.key == 1;
    const bool isHeld = scene_.activeKey == 1;
    if (!isKnown() || (!isHeld && !isEnabled)) {
        heldWrongSinceMs_ = notHeldSinceMs_ = -1;
        return;
    }
    const auto reservation = matching();
    const bool isInside = reservation && isInsideWindow(*reservation);
    const bool isEither = reservation && isInside != isHeld && mayBeginTwice(*reservation);
    const bool isRight = isEnabled ? isInside || isEither : heldExplained_;
    if (scene_.lasts(isHeld && !isRight, heldWrongSinceMs_))
        scene_.broken("defrost is held only inside the window of the matching reservation, while "
                      "defrost delay is on",
                      isEnabled ? "it is outside" : "defrost delay is off");
    if (scene_.lasts(isEnabled && isInside && !isHeld && !isEither, notHeldSinceMs_))
        scene_.broken("defrost is held inside the window of the matching reservation", "it is not");
}

void DefrostRules::checkBoth(std::optional<bool> isEventStored) {
    const bool isBoth = isKnown() && isEventStored.value_or(false) && scene_.enable.key == 1;
    bothExplained_ = bothExplained_ && (isBoth || !isKnown() || !isEventStored);
    if (scene_.lasts(isBoth && !bothExplained_, bothSinceMs_))
        scene_.broken("defrost delay is off while an event is stored", "it is on");
}

void DefrostRules::checkRepeat(std::int64_t ofMinuteMs) const {
    const std::time_t seconds = scene_.utcMs() / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    if (scene_.defrostSinceMs >= 0 && scene_.nowMs() - scene_.defrostSinceMs > Scene::kMinuteMs &&
        local.tm_min % 10 == 0 && scene_.nowMs() - heldCommandMs_ > ofMinuteMs)
        scene_.broken("the state of defrost delay is repeated every ten minutes", "it was not");
}

bool DefrostRules::isQuiet() const {
    return !isDirty_ && scene_.nowMs() - heldCommandMs_ > kPassesMs && heldWrongSinceMs_ < 0 &&
           notHeldSinceMs_ < 0 && bothSinceMs_ < 0;
}

std::int64_t DefrostRules::untilEdgeMs() const {
    constexpr std::int64_t kDayMs = 86'400'000;
    const std::int64_t utc = scene_.utcMs();
    const std::time_t seconds = utc / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    const std::int64_t ofDay =
        ((local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec) * std::int64_t{1000} + utc % 1000;
    std::int64_t until = std::numeric_limits<std::int64_t>::max();
    for (const auto &[id, reservation] : reservations_) {
        const std::int64_t start = lengthMs(std::string_view(reservation.startTime).substr(11));
        for (const std::int64_t edge : {start, start + lengthMs(reservation.period)})
            until = std::min(until, ((edge - ofDay) % kDayMs + kDayMs) % kDayMs);
    }
    return until;
}

} // namespace corvane::lab
