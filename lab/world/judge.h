/*
 * The judge: what the service must do, checked from outside at every step.
 *
 * It sees what anybody outside sees: settings written, commands, notifications, requests and their
 * answers, posts, the tables, the log. From these it keeps what must follow, and each rule that is
 * broken is named after the sentence that demands it. A rule that speaks of time is suspended only
 * by something that was seen and that explains it (the clock was set, the database failed within
 * that very operation); which exceptions there are is told in docs/known-behaviour.md.
 *
 * Times: nowMs is the world's steady time, utcMs the system clock, both in milliseconds. Lies in
 * shared memory and goes on over all lives.
 */
#ifndef CORVANE_LAB_JUDGE_H
#define CORVANE_LAB_JUDGE_H

#include "fakes.h"
#include "reservation_window.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory_resource>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane::lab {

enum class EndOfLife { Kill, PowerCut, Terminate };

class Judge {
public:
    /* What the judge asks of the world; all of it answers at once. */
    class Eyes {
    public:
        virtual ~Eyes() = default;
        virtual std::int64_t nowMs() const = 0;
        virtual std::int64_t utcMs() const = 0;
        virtual std::uint64_t storeFailures() const = 0; // so far, in this life
        virtual std::uint64_t unsureCommits() const = 0; // so far
        virtual bool isStoreTroubled() const = 0;        // failing, locked or full at present
        virtual bool isMeteringTroubled() const = 0;
        virtual bool canLookInto(const std::string &file) const = 0; // it exists and is idle
        virtual bool isWifiConnected() const = 0;
        /* Ends the run. */
        [[noreturn]] virtual void broken(const std::string &rule, const std::string &what) = 0;
    };

    void lifeBegins(Eyes &eyes, std::optional<int> levelKey, std::optional<int> overrideKey,
                    std::optional<int> enableKey, std::optional<int> activeKey);
    void lifeEnds(EndOfLife end);
    void see(const fakes::Entry &entry);

    /* The system clock or the zone was set just now. */
    void clockWasTouched();
    void micomWrites(const std::string &key, int value);

    /* A query was answered so; see remote.h. Right after its answer was seen. */
    void told(const std::string &what, const std::string &value);

    /* At least once a second. */
    void tick();
    /* All has been well for long enough that all must be right. */
    void calm(int micomLevel);
    /* What a clean end has left behind, which must be nothing. */
    struct Remains {
        std::string threads; // what each was doing
        int locks = 0;
        bool leaks = false; // memory; known only to a build that looks for it
    };
    /* wasHeldUp: by a database or a metering service in trouble. */
    void terminated(const Remains &remains, std::int64_t tookMs, bool wasHeldUp);

    /* Whether the service may be caught in inserting an event: the database failed while the order
     * emptied the table, and so the old row is still in the way. */
    bool explainsEndlessInsert() const;

    /* Nothing is under way that a rule waits for. */
    bool isQuiet() const;
    /* Until an event or a window begins or ends, an hour does, or a repeat is due. Hours, repeats
     * and changes of clocks come at full five minutes, whatever the zone. */
    std::int64_t untilEdgeMs() const;

    std::uint64_t steps() const { return steps_; }

private:
    struct Event {
        int level = 0;
        std::int64_t startMs = 0; // UTC
        std::int64_t endMs = 0;
        bool operator==(const Event &) const = default;
    };
    struct Reservation {
        std::pmr::string description, startTime, endTime, period;
        bool operator==(const Reservation &) const = default;
    };

    // What is seen, by kind.
    void seeLog(std::string_view text);
    void seeSetting(const std::string &key, const std::string &value);
    void seeCommand(const std::string &command);
    void seeLevelCommand(int level);
    void seeNotification(const std::string &text);
    void seeSql(const std::string &sql);
    void seeEventSql(const std::string &sql); // of what changes a table
    void seeReservationSql(const std::string &sql);
    void seeHourSql(const std::string &sql);
    void collectDisplay(std::string_view text);
    void seePost(const std::string &text);
    void seeRequest(const std::string &text);
    std::string consumption() const; // as a query of it is to be answered now
    void answered(const std::string &command, int answer);

    // Rules that hold while time passes.
    void checkEvent();
    void checkBlock();
    void checkDefrost();
    void checkKeys();
    void checkRepeat();
    void checkEnergy();
    void checkGate();

    void checkTaskPause(std::int64_t beforeMs) const;
    /* Whether there are new ones. */
    bool noticeStoreFailures();
    void doubtTable(); // the last statement's
    void setCounterSure();
    void readTables();
    void readEvent();
    void readReservations();
    void readHours();
    void compareHours(std::string_view hours);

    /* That the event which is being stored is the one that was ordered. */
    void compareWithOrder(const std::string &duration, const std::string &start);

    bool mayTellTime() const; // neither clock nor store was touched within the last seconds
    static bool isActiveAt(const Event &event, std::int64_t utcMs);
    std::optional<client::Reservation> matchingReservation() const;
    bool isInsideWindow(const client::Reservation &reservation) const;
    bool mayBeginTwice(const client::Reservation &reservation) const;
    /* Whether the condition has held without a break for longer than a pass may take. */
    bool lasts(bool condition, std::int64_t &sinceMs) const;
    [[noreturn]] void broken(const std::string &rule, const std::string &what) const;

    Eyes *eyes_ = nullptr; // of the present life
    std::uint64_t steps_ = 0;

    // Of the present life.
    std::int64_t drSinceMs_ = -1;      // its worker runs; -1: it does not
    std::int64_t defrostSinceMs_ = -1; //
    std::int64_t reportSinceMs_ = -1;
    std::int64_t clockTouchedMs_ = 0;
    std::int64_t storeFailedMs_ = -1'000'000;
    std::int64_t storeBusySinceUtcMs_ = 0; // without a break of more than a pass
    std::uint64_t storeFailuresSeen_ = 0;
    std::uint64_t failuresAtRequest_ = 0;
    std::uint64_t unsureAtRequest_ = 0;
    std::pmr::string handling_; // the request whose handler runs
    bool orderInserted_ = false;
    std::int64_t orderEndedMs_ = -1'000'000;
    int commandedLevel_ = -1; // the last level command
    std::int64_t commandedMs_ = 0;
    int micomOverride_ = -1; // as its key was last written in this life
    std::optional<int> levelAtAnswer_, overrideAtAnswer_, blockAtAnswer_, enableAtAnswer_;
    std::pmr::string consumptionAtAnswer_; // empty: not known
    int startLevel_ = 0;                   // of the key when the life began
    std::optional<int> heldCommand_;
    std::optional<int> notifiedLevel_, notifiedBlock_, notifiedEnable_, notifiedOverride_;
    bool levelUnannounced_ = false, enableUnannounced_ = false, overrideUnannounced_ = false;
    int zeroEchoes_ = 0; // heard by the service, and not yet followed
    std::int64_t echoMs_ = -1'000'000;
    bool levelDoubtful_ = false; // two echoes came within a second
    bool isCommandOfStart_ = false;
    int sqlTable_ = 0; // that the last statement was about; see Table
    std::int64_t heldCommandMs_ = 0;
    bool releasedByStart_ = false; // that was a start's last word while defrost delay is off
    std::int64_t lastCycleMs_ = -1;
    bool isPosting_ = false; // its figure
    int storesDue_ = 0;
    int postedCounts_ = 0;
    std::int64_t displaySum_ = 0; // of the display's readings that have been collected
    std::int64_t displayRaw_ = 0; // readings not yet posted; below 0: not known
    int displayRest_ = 0;         // of these, as the service tells
    int micomCounts_ = 0;         // of the present cycle
    int cyclesDue_ = 0;
    bool displayWatched_ = false;
    int displayOverride_ = 0; // its key; each press is followed by the value that it then has
    int displayPresses_ = 0;  // not yet commanded
    std::int64_t displayOverrideMs_ = 0;
    std::int64_t gateOpenMs_ = -1; // since when Wi-Fi and clock are in order

    // Keys, as last written by anybody.
    int watts_[4] = {};
    std::optional<int> levelKey_, overrideKey_, enableKey_, activeKey_;

    // The tables, as last read, and what is due to be read.
    bool eventDirty_ = true, reservationsDirty_ = true, hoursDirty_ = true;
    std::optional<Event> event_;    // stored
    std::optional<Event> inserted_; // by the last attempt
    std::optional<Event> replaced_;
    std::optional<Event> acknowledged_; // must be there
    bool eventDoubtful_ = false;        // the service may not have been able to read it
    bool eventLost_ = false;            // emptied beside an order
    bool heldExplained_ = false;        // defrost may be held while defrost delay is off
    bool bothExplained_ = false;        // defrost delay and an event may both be on
    bool reservationsDoubtful_ = false;
    std::pmr::map<int, Reservation> reservations_;
    std::pmr::map<int, Reservation> acknowledgedReservations_;
    std::optional<std::pair<int, Reservation>> insertedReservation_;
    std::pmr::string hours_;                       // the keys, ascending, with commas
    std::pmr::set<std::pmr::string> doubledHours_; // whose look for a row failed
    std::uint64_t failuresAtLook_ = 0;
    std::uint64_t unsureSeen_ = 0;
    bool isLookUnsure_ = false;                   // the connection that looked for the hour's row
    bool isUpdateUnsure_ = false;                 // the one that looked for the last row
    std::pmr::set<std::pmr::string> unsureHours_; // that a power cut may take back
    bool isCounterUnsure_ = false;                // likewise
    std::pmr::vector<std::pmr::string> hourDeletions_;
    std::pmr::string keptFrom_; // rows before it are to be gone
    std::int64_t keptFromMs_ = 0;
    bool isPruneDue_ = false;
    std::pmr::set<std::pmr::string> limits_; // of pruning, that were told in this life
    std::int64_t counter_ = 0;               // confirmed in the table
    std::int64_t expected_ = 0;
    bool counterKnown_ = false;
    bool isCounterOfLastLife_ = false;
    bool counterDoubtful_ = false;
    int remainder_ = 0;

    // Since when a state that the rules speak of holds without a break; -1: it does not.
    std::int64_t activeSinceMs_ = -1, overSinceMs_ = -1, blockWrongSinceMs_ = -1,
                 heldWrongSinceMs_ = -1, notHeldSinceMs_ = -1, bothSinceMs_ = -1,
                 levelLeftSinceMs_ = -1, overrideWrongSinceMs_ = -1, energyWrongSinceMs_ = -1;
};

} // namespace corvane::lab

#endif
