/*
 * The house of a scenario, in which the service lives: appliance, operator, faults and clock, and
 * the judge, who sees to it that a figure is not that of a service which breaks its rules.
 *
 * It lies in shared memory and lives one life of the service after another, each in a forked
 * process that calls liveOnce(). Within a life the body thread moves the appliance and brings the
 * faults, and the operator has a thread of its own. In virtual time one thread runs at a time and
 * hands over only where it sleeps or waits, so the house needs no lock.
 */
#ifndef CORVANE_LAB_HOUSE_H
#define CORVANE_LAB_HOUSE_H

#include "scenario_run.h"

#include <disk.h>
#include <fakes.h>
#include <judge.h>

#include <memory_resource>
#include <string>
#include <vector>

namespace corvane::lab {

class House : private Judge::Eyes {
public:
    /* All three must outlive it; the events are those of the scenario, or none. */
    House(const Scenario &scenario, const RunOptions &options,
          const std::vector<PlannedEvent> &events);

    /* In a process of its own, which a kill ends at once. True: the run is over. */
    bool liveOnce();
    [[nodiscard]] RunResult result() const;
    /* The rule that the judge saw broken, when and how; empty: none, as it is to be. */
    [[nodiscard]] std::string broken() const { return std::string(broken_); }

private:
    struct Action { // a fault begins or ends
        std::int64_t atMs;
        const Fault *fault;
        bool begins;
    };
    struct Attempt { // what the operator has in mind with an event
        std::int64_t nextMs = 0;
        bool isSettled = false;
    };
    struct KeptNote {
        std::int64_t atMs;
        NoteKind kind;
        bool isRefusal;
        std::pmr::string text;
    };
    struct InLife; // what a life takes with it

    // Eyes
    [[nodiscard]] std::int64_t nowMs() const override; // true time, UTC
    [[nodiscard]] std::int64_t utcMs() const override { return nowMs() + clockErrorMs_; }
    [[nodiscard]] std::uint64_t storeFailures() const override;
    [[nodiscard]] std::uint64_t unsureCommits() const override { return disk_.unsureConnections(); }
    [[nodiscard]] bool isStoreTroubled() const override { return storeFault_ != nullptr; }
    [[nodiscard]] bool isMeteringTroubled() const override {
        return meteringRefuses_ || meteringHangsSec_ > 0 || nowMs() < meteringHeldUpUntilMs_;
    }
    [[nodiscard]] bool canLookInto(const std::string &file) const override;
    [[nodiscard]] bool isWifiConnected() const override { return !wifiLost_; }
    [[noreturn]] void broken(const std::string &rule, const std::string &what) override;

    void note(NoteKind kind, const std::string &text, bool isRefusal = false);

    void planFaults();
    void beginLife();
    void endLife(EndOfLife end);
    void keepLife(EndOfLife end);
    void terminate();
    void keepSettings();
    void waitUntil(std::int64_t timeMs);

    void advanceAppliance(std::int64_t timeMs);
    void sampleMinute();
    void followPlace();
    void observe(const fakes::Entry &entry);
    void heardCommand(const std::string &command);
    void heardNotification(const std::string &text);

    /* Whether the fault ends the life. */
    bool act(const Action &action);
    void applyMicomFault(FaultKind kind, bool on);
    void troubleStore();

    void operate();
    [[nodiscard]] std::int64_t nextOperationMs() const;
    void operateDue();
    void order(std::size_t index);
    void setUpDefrost();
    int ask(const std::string &request, const std::function<int()> &call);

    const Scenario &scenario_;
    const RunOptions &options_;
    const std::vector<PlannedEvent> &events_;
    std::pmr::vector<Action> actions_;
    Disk disk_;
    Judge judge_;
    std::pmr::string broken_;

    // What goes on from life to life.
    std::int64_t lifeBeginMs_;
    bool timeRuns_ = false;         // virtual time does
    std::int64_t clockErrorMs_ = 0; // system clock minus true time
    std::int64_t minuteEndMs_;
    std::int64_t tickMs_ = 0; // the judge's next
    double minuteBeginWh_ = 0;
    std::size_t nextAction_ = 0;
    bool wifiLost_ = false;
    const Fault *storeFault_ = nullptr;
    double meteringHangsSec_ = 0;
    bool meteringRefuses_ = false;
    std::int64_t meteringHeldUpUntilMs_ = 0; // by a transfer that began at the last moment
    bool powerWasCut_ = false;
    std::pmr::vector<std::pair<std::pmr::string, int>> settings_;
    std::pmr::string applianceMemory_; // empty before the first life's end
    int micomFaults_[4] = {};          // by FaultKind, 1 while it holds

    std::pmr::vector<Attempt> attempts_;
    int current_ = -1; // index of the event that was accepted last
    std::size_t reservationsMade_ = 0;
    std::int64_t delayDueMs_ = 0; // when to switch defrost delay on next; 0: not
    std::int64_t setUpMs_;        // when to try what the beginning asks for; 0: done

    std::pmr::vector<Minute> minutes_;
    std::pmr::vector<EventFate> fates_;
    std::pmr::vector<KeptNote> notes_;
    std::int64_t notesLeftOut_ = 0;
    std::int64_t commands_ = 0, requests_ = 0, refusals_ = 0, posts_ = 0, postedCounts_ = 0;
    std::pmr::string lastCommand_[3]; // of each family: level, override, defrost
    int lives_ = 0;

    InLife *life_ = nullptr;
};

} // namespace corvane::lab

#endif
