/*
 * The record of each demand-response event: what was ordered, when each side followed, how it
 * ended, and what it did to the consumption. It is what the operator of a programme has to prove.
 *
 * The ledger is told everything that the appliance sees and draws its conclusions; it reads no
 * clock, and keeps only the records that may still change.
 */
#ifndef CORVANE_APPLIANCE_SERVER_EVENT_RECORD_H
#define CORVANE_APPLIANCE_SERVER_EVENT_RECORD_H

#include "trace.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace corvane::appliance {

/* An event as the service has stored it. */
struct PlannedEvent {
    int level = 0; // 1 to 4
    TimeMs startMs = 0;
    TimeMs endMs = 0;

    bool operator==(const PlannedEvent &) const = default;
};

struct OverrideChange {
    bool on = false;
    TimeMs atMs = 0;
    std::string by; // "display" or "remote"
};

struct EventRecord {
    std::int64_t id = 0;
    PlannedEvent plan;
    std::optional<TimeMs> orderedAtMs; // unknown for an event found at the start
    std::string orderedBy;             // "page" or "remote"
    TimeMs storedAtMs = 0;
    std::optional<TimeMs> commandedAtMs;
    std::optional<TimeMs> confirmedAtMs;
    std::optional<TimeMs> reportedAtMs;
    std::optional<TimeMs> endedAtMs;
    std::string endedBy; // "schedule", "cancel", "replaced" or "restart"; empty while it lasts
    std::vector<OverrideChange> overrides;

    std::optional<double> energyBeforeWh; // each over a span of the event's own length
    std::optional<double> energyDuringWh;
    std::optional<double> energyAfterWh;
    std::optional<double> averageWatt;
    std::optional<double> peakWatt;
    std::optional<double> baselineAverageWatt; // the same hours of days without an event
    std::optional<double> baselinePeakWatt;    // mean of those days' peaks
    int baselineDays = 0;
    int defrostsHeld = 0;
    /* The clock was set back since, to before the end of what is told here: that time has been
     * lived anew, without this event. */
    bool clockSetBack = false;

    /* When the event began to count: its start, or its storing when that came later. */
    TimeMs beganMs() const { return std::max(plan.startMs, storedAtMs); }
    bool isOpen() const { return !endedAtMs.has_value(); }
    /* The last moment that is told of it. */
    TimeMs lastKnownMs() const;
};

nlohmann::ordered_json recordJson(const EventRecord &record);
/* The record of recordJson(); throws nlohmann::json::exception. */
EventRecord recordFromJson(const nlohmann::json &json);
std::string recordsCsv(const std::vector<EventRecord> &records);

/*
 * The energy counter over the last two days, to tell the energy of any span without asking the
 * database: every second of the last quarter of an hour, every ten seconds before that.
 */
class EnergyTrail {
public:
    /* Times ascend; one that does not begins the trail anew. */
    void add(TimeMs atMs, double counterWh);

    /* The energy of the span; nothing where the counter is not known closely enough. */
    std::optional<double> between(TimeMs fromMs, TimeMs toMs) const;

private:
    struct Point {
        TimeMs atMs;
        double counterWh;
    };
    struct Series {
        TimeMs stepMs;
        TimeMs keptMs;
        std::deque<Point> points;

        void add(const Point &point);
        std::optional<double> at(TimeMs atMs, const Point &newest) const;
    };
    std::optional<double> at(TimeMs atMs) const;

    Series fine_{1'000, 900'000, {}};
    Series coarse_{10'000, TimeMs{49} * 3'600'000, {}}; // an event of a day, and the day before it
    std::optional<Point> newest_;                       // may be too near to the last to be kept
};

class EventLedger {
public:
    /* open: the record that was open when the appliance was last stopped. */
    EventLedger(std::int64_t nextId, std::optional<EventRecord> open);

    /* A record that had ended when the appliance was last stopped, but was not settled: its energy
     * after it is to be known still. */
    void resume(const EventRecord &ended);

    /* An order was sent to the service; level 0 cancels. */
    void ordered(int level, TimeMs atMs);
    /* The service did not take the order sent last. */
    void refused();

    /* What the service's table holds now. */
    void stored(const std::optional<PlannedEvent> &event, TimeMs atMs);

    void commanded(int level, TimeMs atMs);
    void confirmed(int level, TimeMs atMs);
    void reported(int level, TimeMs atMs);
    void overridden(bool on, const std::string &by, TimeMs atMs);
    /* The Micom has started anew and forgotten its level. */
    void micomRestarted(TimeMs atMs);
    void defrostHeld(TimeMs atMs);
    /* The present power and counter; moves the figures on. */
    void sample(TimeMs atMs, double powerWatt, double counterWh);
    void baseline(std::int64_t id, std::optional<double> averageWatt,
                  std::optional<double> peakWatt, int days);

    struct Order {
        int level = 0;
        TimeMs atMs = 0;
        std::string by; // "page" or "remote"
    };
    const std::optional<Order> &lastOrder() const { return lastOrder_; }
    /* The event that is stored. */
    const std::optional<EventRecord> &open() const { return open_; }

    /* The records that have changed since the last call, each once. */
    std::vector<EventRecord> takeChanged();
    /* The records that have ended since the last call: baseline() is to be called for each. */
    std::vector<EventRecord> takeEnded();

    /* For the counter of the time before the start. */
    EnergyTrail &trail() { return trail_; }

private:
    using Stage = std::optional<TimeMs> EventRecord::*;
    void reached(Stage stage, int level, TimeMs atMs);
    const char *causeOfEnd(bool isReplaced, TimeMs atMs) const;
    void begin(const PlannedEvent &event, TimeMs atMs);
    void end(TimeMs atMs, const std::string &by);
    void changed(const EventRecord &record);
    void forgetSettled();

    std::int64_t nextId_;
    EnergyTrail trail_;
    std::optional<EventRecord> open_;
    /* Ended; the energy after it or its baseline is not known yet. */
    struct Settling {
        EventRecord record;
        bool isAfterKnown = false;
        bool isBaselineKnown = false;
    };
    std::vector<Settling> settling_;
    /* Stages of a level that no stored event has, each the newest. */
    struct Early {
        Stage stage = nullptr;
        int level = 0;
        TimeMs atMs = 0;
    };
    std::vector<Early> early_;
    std::optional<Order> pending_; // sent from here, not yet seen in the table
    bool isCancelled_ = false;     // a cancel was sent from here since the event was stored
    std::optional<Order> lastOrder_;
    std::optional<TimeMs> micomRestartMs_;
    std::vector<EventRecord> changed_;
    std::vector<EventRecord> ended_;
    bool adopted_ = false; // whether the table has been seen since the start
};

} // namespace corvane::appliance

#endif
