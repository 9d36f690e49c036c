/*
 * The rules of defrost delay: reservations stay as they were answered, and defrost is held inside
 * the window of the one whose season it is, at no other time, and never beside an event.
 */
#ifndef CORVANE_LAB_DEFROST_RULES_H
#define CORVANE_LAB_DEFROST_RULES_H

#include "reservation_window.h"
#include "scene.h"

#include <cstdint>
#include <map>
#include <memory_resource>
#include <optional>
#include <string>
#include <utility>

namespace corvane::lab {

class DefrostRules {
public:
    explicit DefrostRules(const Scene &scene) : scene_(scene) {}

    void lifeBegins();
    /* While an order had stored its event and not yet been answered. */
    void lifeEndsBesideOrder() { bothExplained_ = true; }

    // What is seen. A key's new value is not in the scene yet.
    void commanded(bool isHeld);
    void enableWritten(int value);
    void activeWritten(int value);
    void requestBegins() { notified_ = std::nullopt; }
    void seeChange(const std::string &sql); // of the table
    void reservationNotified(int action, int id) { notified_ = {action, id}; }
    /* Any request was. isSure and isClean as in EventRules::ordered. */
    void answered(const std::string &command, int answer, bool isSure, bool isClean);

    void doubt() { isDoubtful_ = true; } // the service may not have been able to read the table
    bool isDirty() const { return isDirty_; }
    void read(); // the table

    // What must hold while time passes.
    void check(std::optional<bool> isEventStored);
    void checkRepeat(std::int64_t ofMinuteMs) const;

    bool isQuiet() const;
    /* Until a window begins or ends; the largest number when there is none. */
    std::int64_t untilEdgeMs() const;

private:
    struct Reservation {
        std::pmr::string description, startTime, endTime, period;
        bool operator==(const Reservation &) const = default;
    };

    std::optional<client::Reservation> matching() const;
    bool isInsideWindow(const client::Reservation &reservation) const;
    bool mayBeginTwice(const client::Reservation &reservation) const;
    void checkWindow();
    void checkBoth(std::optional<bool> isEventStored);
    bool isKnown() const;
    /* That the remote side heard of the one that was created or deleted. */
    void checkNotified(int action, int id) const;

    const Scene &scene_;
    std::optional<int> heldCommand_; // the last command
    std::int64_t heldCommandMs_ = 0;
    bool releasedByStart_ = false; // that was a start's last word while defrost delay is off
    std::int64_t enableOffMs_ = kLongAgoMs; // when defrost delay was last switched off
    bool heldExplained_ = false;            // defrost may be held while defrost delay is off
    bool bothExplained_ = false;            // defrost delay and an event may both be on

    bool isDirty_ = true; // the table is due to be read
    bool isDoubtful_ = false;
    std::pmr::map<int, Reservation> reservations_; // as last read
    std::pmr::map<int, Reservation> acknowledged_; // must be there
    std::optional<std::pair<int, Reservation>> inserted_;
    std::optional<int> deleted_;                  // must not be there
    std::optional<std::pair<int, int>> notified_; // action and id, in the present or last request

    // Since when a state that the rules speak of holds without a break; -1: it does not.
    std::int64_t heldWrongSinceMs_ = -1, notHeldSinceMs_ = -1, bothSinceMs_ = -1;
};

} // namespace corvane::lab

#endif
