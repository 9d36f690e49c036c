/*
 * The lives of a run, one after another, each in a child that shares the house.
 */
#include "scenario_run.h"

#include "house.h"

#include <shared_memory.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::lab {
namespace {

// Exit statuses of a life; none that a sanitizer or a library would give.
constexpr int kGoesOn = 40;
constexpr int kRunIsOver = 41;

/* The exit status of a life. */
int liveInChild(House &house) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("a process for a life of the service cannot be made");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(house.liveOnce() ? kRunIsOver : kGoesOn);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        throw std::runtime_error(std::string("a life of the service ended by signal ") +
                                 strsignal(WTERMSIG(status)));
    return WEXITSTATUS(status);
}

} // namespace

RunResult runScenario(const Scenario &scenario, const RunOptions &options) {
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<PlannedEvent> events =
        options.withProgramme ? planEvents(scenario) : std::vector<PlannedEvent>();
    SharedMemory memory; // runs no destructors: what the house owns lies in it too
    House &house = *memory.make<House>(scenario, options, events);
    int status = kGoesOn;
    while (status == kGoesOn)
        status = liveInChild(house);
    if (!house.broken().empty())
        throw std::runtime_error("a rule is broken at " + house.broken());
    if (status != kRunIsOver)
        throw std::runtime_error("a life of the service ended by itself, with status " +
                                 std::to_string(status));
    RunResult result = house.result();
    result.realSec =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return result;
}

} // namespace corvane::lab
