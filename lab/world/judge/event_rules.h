/*
 * The rules of demand-response events: what is ordered is stored, its level is commanded while it
 * lasts and at no other time, and the block tells that it is there.
 */
#ifndef CORVANE_LAB_EVENT_RULES_H
#define CORVANE_LAB_EVENT_RULES_H

#include "scene.h"

#include <cstdint>
#include <optional>
#include <string>

namespace corvane::lab {

class EventRules {
public:
    explicit EventRules(const Scene &scene) : scene_(scene) {}

    void lifeBegins();

    // What is seen.
    void commanded(int level);
    void zeroEchoed() { ++zeroEchoes_; } // the service has heard it
    void requestBegins() { orderInserted_ = isNormalCommanded_ = false; }
    void seeChange(const std::string &sql); // of the table
    /* An order or a cancellation was answered 1. isSure: no power cut can take its commits back;
     * isClean: no statement failed within it. */
    void ordered(bool isSure, bool isClean);

    void doubt() { isDoubtful_ = true; } // the service may not have been able to read the table
    bool isDirty() const { return isDirty_; }
    void read(); // the table

    // What must hold while time passes.
    void check();
    void checkRepeat(std::int64_t ofMinuteMs) const;
    void calm(int micomLevel) const;

    bool hasOrderInserted() const { return orderInserted_; } // of the present or last request
    std::optional<bool> isStored() const;                    // nothing: not known
    bool isQuiet() const;
    /* Until the event begins or ends; the largest number when there is none. */
    std::int64_t untilEdgeMs() const;

private:
    struct Event {
        int level = 0;
        std::int64_t startMs = 0; // UTC
        std::int64_t endMs = 0;
        bool operator==(const Event &) const = default;
    };

    static bool isActiveAt(const Event &event, std::int64_t utcMs);
    bool mayCommand(int level) const;
    bool mayCommandNormal();
    /* That the event which is being stored is the one that was ordered. */
    void compareWithOrder(const std::string &duration, const std::string &start) const;

    const Scene &scene_;
    int startLevel_ = 0;             // of the key when the life began
    bool orderInserted_ = false;     // in the present or last request
    bool isNormalCommanded_ = false; // the same
    bool isCancelled_ = false;       // and nothing was stored since
    std::int64_t orderEndedMs_ = kLongAgoMs;

    int commandedLevel_ = -1; // the last level command
    std::int64_t commandedMs_ = 0;
    std::int64_t repeatedMs_ = kLongAgoMs; // the last ten-minute repeat
    bool isCommandOfStart_ = false;
    int zeroEchoes_ = 0; // heard by the service, and not yet followed

    bool isDirty_ = true;               // the table is due to be read
    std::optional<Event> event_;        // stored, as last read
    std::optional<Event> inserted_;     // by the last attempt
    std::optional<Event> replaced_;     // by the last deletion; its order's pass may still see it
    std::optional<Event> acknowledged_; // must be there
    bool isDoubtful_ = false;
    bool isLost_ = false; // emptied beside an order

    // Since when a state that the rules speak of holds without a break; -1: it does not.
    std::int64_t uncommandedSinceMs_ = -1, overSinceMs_ = -1, levelLeftSinceMs_ = -1,
                 blockWrongSinceMs_ = -1;
};

} // namespace corvane::lab

#endif
