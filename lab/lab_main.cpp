/*
 * corvane-lab: the laboratory's command line.
 */
#include "commands.h"
#include "runs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace corvane::lab;

constexpr const char *kUsage =
    "usage: corvane-lab explore --seeds N [--from N] [--days D] [--no-weather]\n"
    "       corvane-lab replay --seed N [--days D] [--trace] [--no-weather]\n"
    "       corvane-lab run FILE [--seed N] [--runs N | --appliances N] [--jobs N] [--out DIR]\n"
    "       corvane-lab compare A B\n";

struct Wish {
    std::string command;
    std::uint64_t seeds = 1;
    Setup setup;
};

bool read(int count, char **arguments, Wish &wish) {
    if (count < 2)
        return false;
    wish.command = arguments[1];
    for (int at = 2; at < count; ++at) {
        const std::string argument = arguments[at];
        if (argument == "--trace") {
            wish.setup.printsTrace = true;
        } else if (argument == "--no-weather") {
            wish.setup.hasWeather = false;
        } else if (at + 1 == count) {
            return false;
        } else if (argument == "--seeds") {
            wish.seeds = std::strtoull(arguments[++at], nullptr, 10);
        } else if (argument == "--from" || argument == "--seed") {
            wish.setup.seed = std::strtoull(arguments[++at], nullptr, 10);
        } else if (argument == "--days") {
            wish.setup.days = std::strtod(arguments[++at], nullptr);
        } else {
            return false;
        }
    }
    return wish.command == "explore" || wish.command == "replay";
}

} // namespace

int main(int argc, char **argv) {
    if (const auto status = runScenarioCommand(argc, argv))
        return *status;
    Wish wish;
    if (!read(argc, argv, wish)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    int broken = 0;
    double virtualSec = 0, realSec = 0;
    for (std::uint64_t i = 0; i < (wish.command == "replay" ? 1 : wish.seeds); ++i) {
        Setup setup = wish.setup;
        setup.seed += i;
        const Result result = runOnce(setup);
        virtualSec += result.virtualSec;
        realSec += result.realSec;
        const Weather weather =
            setup.hasWeather ? drawWeather(setup.seed) : calmWeather(setup.seed);
        if (result.isBroken || wish.command == "replay")
            std::printf("seed %llu: %s\n", static_cast<unsigned long long>(setup.seed),
                        describe(weather).c_str());
        if (result.isBroken) {
            ++broken;
            std::printf("%s  repeat with: corvane-lab replay --seed %llu --days %g --trace\n",
                        result.report.c_str(), static_cast<unsigned long long>(setup.seed),
                        setup.days);
        }
        if (wish.command == "replay")
            std::printf("%d lives, %llu steps, hash %016llx\n", result.lives,
                        static_cast<unsigned long long>(result.steps),
                        static_cast<unsigned long long>(result.hash));
        std::fflush(stdout);
    }
    std::printf("%.1f days of virtual time in %.1f s, %.0f times real time; %d broken\n",
                virtualSec / 86'400, realSec, virtualSec / realSec, broken);
    return broken == 0 ? 0 : 1;
}
