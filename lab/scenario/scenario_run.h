/*
 * One run of a scenario: the unmodified service in virtual time, with the models of refrigerator,
 * Micom and display board around it, the operator of the programme, and the faults on their dates.
 *
 * The run goes life by life, each in a process of its own that is forked from the caller's: a kill
 * ends it at its very instant. What goes on in the next life (appliance, settings, disk, the
 * operator's notes) is handed from one to the next.
 */
#ifndef CORVANE_LAB_SCENARIO_RUN_H
#define CORVANE_LAB_SCENARIO_RUN_H

#include "run_result.h"

#include <functional>

namespace corvane::lab {

struct RunOptions {
    std::uint64_t seed = 1;
    bool withProgramme = true;
    bool spreadReturn = true; // false: all appliances go back to normal at once after an event
    /* Told the share of the run that is done, 0 to 1, now and then, within the life's process. */
    std::function<void(double)> onProgress = {};
};

/*
 * A pure function of this program, the scenario and the first options, its seed among them. Throws
 * std::runtime_error when a life ends by itself, with how it did, or when the judge has seen a rule
 * broken, with the moment and the rule. The caller has no other threads.
 */
[[nodiscard]] RunResult runScenario(const Scenario &scenario, const RunOptions &options);

} // namespace corvane::lab

#endif
