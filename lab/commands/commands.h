/*
 * The command line's subcommands that work with scenarios. Each adds itself to the program's
 * parser and stores what it does in `action`, which runs after the whole line has been checked and
 * gives the exit status: 0 done, 1 failed or not as expected, 2 wrong usage.
 */
#ifndef CORVANE_LAB_COMMANDS_H
#define CORVANE_LAB_COMMANDS_H

#include <functional>
#include <optional>

namespace CLI {
class App;
}

namespace corvane::lab {

using Action = std::function<int()>;

/* Answers the exit status when the line is for one of these subcommands. */
std::optional<int> runScenarioCommand(int argc, char **argv);

void addRun(CLI::App &program, Action &action);
void addCompare(CLI::App &program, Action &action);

} // namespace corvane::lab

#endif
