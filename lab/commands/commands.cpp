/*
 * Reading the command lines of the subcommands that work with scenarios.
 */
#include "commands.h"

#include <CLI/CLI.hpp>

#include <string>

namespace corvane::lab {

std::optional<int> runScenarioCommand(int argc, char **argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    if (name != "run" && name != "compare")
        return std::nullopt;
    CLI::App program("The laboratory: the unmodified service in virtual time", "corvane-lab");
    program.require_subcommand(1);
    Action action;
    addRun(program, action);
    addCompare(program, action);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return program.exit(error) == 0 ? 0 : 2;
    }
    return action();
}

} // namespace corvane::lab
