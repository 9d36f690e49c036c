/*
 * A scenario: what a refrigerator, its household, the operator of the grid and fate do from one
 * date to another, as a person writes it down in a TOML file. docs/lab.md shows every member.
 *
 * Reading checks everything: what is unknown, missing, of another type or out of range is refused
 * with one line that names file, line and member and says what is expected.
 */
#ifndef CORVANE_LAB_SCENARIO_H
#define CORVANE_LAB_SCENARIO_H

#include "local_time.h"

#include <parameters.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::lab {

/* Which days: those of the period that pass every condition. Empty lists let everything pass. */
struct DayRule {
    std::vector<int> months;   // 1 to 12
    std::vector<int> weekdays; // 0 Monday to 6 Sunday
    std::vector<Date> dates;
};

/* Events that the operator orders by a calendar rule. */
struct Programme {
    std::string name;
    DayRule days;
    int level = 0;              // 1 to 4
    std::vector<int> startSecs; // local times of day; each begins an event
    int endSec = 0;      // local; not after the start: on the next day. Unused with durationSec.
    int durationSec = 0; // 0: from start to end
    int leadSec = 1800;  // the order is sent so long before the start
    int limit = 0;       // so many events at most, the first ones; 0: no limit
};

struct ReservationOrder {
    std::string description;
    std::string firstDay, lastDay; // MM-DD
    int startSec = 0;              // local time of day
    int periodSec = 0;
};

enum class FaultKind {
    MicomSilent,
    MicomSlow,
    MicomDrops,
    MicomWrongEcho,
    MicomRestart,
    WifiLost,
    MeteringRefuses,
    MeteringHangs,
    DatabaseBusy,
    DiskFull,
    IoError,
    ClockWrong,
    Override,
    Restart,
    Kill,
    PowerCut,
};

struct Fault {
    FaultKind kind = FaultKind::Restart;
    Date date;
    int startSec = 0;
    int durationSec = 0; // 0 for what happens in an instant
    int offsetSec = 0;   // of a wrong clock
};

/* What must come out. A run whose figures are worse fails. Absent: anything may. */
struct Expectations {
    std::optional<double> energyBelowKwh;
    std::optional<double> savedAtLeastKwh;
    std::optional<double> reducedAtLeastWatt; // mean of all event hours
    std::optional<double> fridgeFoodBelow;    // warmest hour's mean, degrees Celsius
    std::optional<double> freezerFoodBelow;
    std::optional<double> energyReportedWithinPercent; // what was posted, against what was used
    bool everyEventConfirmed = false;
};

struct Scenario {
    std::string title;
    Date from, to; // first and last day, local
    std::string zone = "UTC";
    std::uint64_t seed = 1;
    double ambientCelsius = 22;
    std::vector<double> ambientByMonth; // 12 means, January first; empty: ambientCelsius
    bool householdPresent = true;
    bool defrostDelay = false; // switched on by the remote side at the beginning
    appliance::Parameters parameters;
    std::vector<Programme> programmes;
    std::vector<ReservationOrder> reservations;
    std::vector<Fault> faults;
    Expectations expect;

    [[nodiscard]] std::int64_t beginMs() const { return momentOf(from, 0); }
    [[nodiscard]] std::int64_t endMs() const { return momentOf(to, 86'400); }
};

/* Its text is the whole line. */
struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* Sets the process's time zone to the scenario's. Throws ScenarioError. */
[[nodiscard]] Scenario readScenario(const std::string &file);
/* The same with a text in place of the file's content. */
[[nodiscard]] Scenario parseScenario(std::string_view text, const std::string &fileName);

[[nodiscard]] std::string faultName(FaultKind kind); // "micom-silent"

/* One event of the programmes, placed on the calendar. */
struct PlannedEvent {
    std::string programme;
    int level = 0;
    std::int64_t startMs = 0;
    std::int64_t endMs = 0;
    std::int64_t orderMs = 0; // when the operator orders it
};

/*
 * All events of the scenario by the time of their order. The service keeps one event at a time, so
 * an order waits until a minute after the end of an earlier event, unless the two overlap, when
 * the later order replaces the earlier.
 */
[[nodiscard]] std::vector<PlannedEvent> planEvents(const Scenario &scenario);

} // namespace corvane::lab

#endif
