/*
 * Many runs of one scenario, several at a time, each in a process of its own.
 */
#ifndef CORVANE_LAB_BATCH_H
#define CORVANE_LAB_BATCH_H

#include <scenario_run.h>

#include <functional>
#include <vector>

namespace corvane::lab {

struct Task {
    std::uint64_t seed = 1;
    bool withProgramme = true;
    bool spreadReturn = true;
};

/*
 * Runs the tasks, `jobs` at a time, and hands each result over as it comes, in any order. Shows a
 * progress bar on standard error when that is a terminal. Throws std::runtime_error when a run
 * fails; the others are then ended. The caller has no other threads and no other children.
 */
void runBatch(const Scenario &scenario, const std::vector<Task> &tasks, int jobs,
              const std::function<void(const Task &, RunResult)> &onResult);

} // namespace corvane::lab

#endif
