/*
 * Reading corvane-lab's command line.
 */
#include "commands.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

namespace corvane::lab {

int runCommand(int argc, char **argv) {
    CLI::App program("The laboratory: the unmodified service in virtual time", "corvane-lab");
    program.require_subcommand(1);
    program.footer("Examples:\n"
                   "  corvane-lab run lab/scenarios/august-evenings.toml\n"
                   "  corvane-lab explore --seeds 100 --days 14 --jobs 2\n"
                   "  corvane-lab replay --seed 7 --days 14 --trace\n\n"
                   "Exit status: 0 done, 1 failed or a rule was broken, 2 wrong usage.");
    Action action;
    addRun(program, action);
    addCompare(program, action);
    addExplore(program, action);
    addReplay(program, action);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted);
    } catch (const CLI::ParseError &error) {
        std::fprintf(stderr, "corvane-lab: %s; see corvane-lab --help\n", error.what());
        return 2;
    }
    try {
        return action();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "corvane-lab: %s\n", error.what());
        return 1;
    }
}

} // namespace corvane::lab
