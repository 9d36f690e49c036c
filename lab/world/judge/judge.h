/*
 * The judge: what the service must do, checked from outside at every step.
 *
 * It sees what anybody outside sees: settings written, commands, notifications, requests and their
 * answers, posts, the tables, the log. It keeps the scene up to date and hands each thing to the
 * rules that it concerns; these keep what must follow, and each rule that is broken is named after
 * the sentence that demands it. A rule that speaks of time is suspended only by something that was
 * seen and that explains it (the clock was set, the database failed within that very operation);
 * which exceptions there are is told in docs/known-behaviour.md.
 *
 * Times: nowMs is the world's steady time, utcMs the system clock, both in milliseconds. Lies in
 * shared memory and goes on over all lives.
 */
#ifndef CORVANE_LAB_JUDGE_H
#define CORVANE_LAB_JUDGE_H

#include "defrost_rules.h"
#include "energy_rules.h"
#include "event_rules.h"
#include "fakes.h"
#include "remote_rules.h"
#include "scene.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::lab {

enum class EndOfLife { Kill, PowerCut, Terminate };

class Judge {
public:
    using Eyes = Scene::Eyes;

    Judge() = default;
    Judge(const Judge &) = delete; // the rules refer to its scene
    Judge &operator=(const Judge &) = delete;

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
    enum class Table { None, Events, Reservations, Hours };

    // What is seen, by kind.
    void seeLog(std::string_view text);
    void seeStart(std::string_view worker);
    void seeSetting(const std::string &key, const std::string &value);
    void seeCommand(const std::string &command);
    void seeNotification(const std::string &text);
    void seeSql(const std::string &sql);
    void seeRequest(const std::string &text);
    void answered(const std::string &command, int answer);

    static Table tableOf(const std::string &sql);
    /* Whether there are new ones. */
    bool noticeStoreFailures();
    void doubtTable(); // the last statement's
    void readTables();
    void checkGate();
    bool areControllersThere() const;

    Scene scene_;
    EventRules event_{scene_};
    DefrostRules defrost_{scene_};
    RemoteRules remote_{scene_};
    EnergyRules energy_{scene_};

    std::uint64_t steps_ = 0;
    std::int64_t gateOpenMs_ = -1; // since when Wi-Fi and clock are in order
    std::uint64_t storeFailuresSeen_ = 0;
    std::uint64_t unsureSeen_ = 0;
    Table table_ = Table::None;                    // that the last statement was about
    std::int64_t changedInTroubleMs_ = kLongAgoMs; // a statement that changes a table was seen
};

} // namespace corvane::lab

#endif
