/*
 * The lives of a run, one after another, each in a child that shares the world's memory.
 */
#include "runs.h"

#include "shared_memory.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace corvane::lab {
namespace {

constexpr rlim_t kMostProcessorSec = 1'800;
constexpr int kGoesOn = 0;
constexpr int kRunIsOver = 1;
constexpr int kBroken = 3; // the world has kept the reason

int liveInChild(World &world) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("cannot fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const rlimit bound{kMostProcessorSec, kMostProcessorSec}; // a loop in no virtual time
        setrlimit(RLIMIT_CPU, &bound);
        _exit(world.liveOnce() ? kRunIsOver : kGoesOn);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

} // namespace

Result runOnce(const Setup &setup) {
    const auto begin = std::chrono::steady_clock::now();
    SharedMemory memory;
    World &world = *memory.make<World>(setup);
    for (;;) {
        const int status = liveInChild(world);
        if (WIFSIGNALED(status)) {
            world.crashed(std::string("a life ended by signal ") + strsignal(WTERMSIG(status)));
            break;
        }
        if (WEXITSTATUS(status) != kGoesOn && WEXITSTATUS(status) != kRunIsOver &&
            WEXITSTATUS(status) != kBroken)
            world.crashed("a life ended with status " + std::to_string(WEXITSTATUS(status)));
        if (WEXITSTATUS(status) != kGoesOn)
            break;
    }
    Result result;
    result.seed = setup.seed;
    result.isBroken = world.isBroken();
    result.report = result.isBroken ? world.report() : "";
    result.hash = world.hash();
    result.virtualSec = world.virtualSec();
    result.suspendedSec = world.suspendedSec();
    result.lives = world.lives();
    result.steps = world.steps();
    result.realSec =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return result;
}

} // namespace corvane::lab
