/*
 * The command line and its subcommands. Each of those adds itself to the program's
 * parser and stores what it does in `action`, which runs after the whole line has been checked and
 * gives the exit status: 0 done, 1 failed or not as expected, 2 wrong usage.
 */
#ifndef CORVANE_LAB_COMMANDS_H
#define CORVANE_LAB_COMMANDS_H

#include <functional>
#include <stdexcept>

namespace CLI {
class App;
}

namespace corvane::lab {

using Action = std::function<int()>;

/* Thrown by an action when what it was given cannot be used: status 2. Its text is the line. */
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* Does what the command line says, and answers the exit status. */
int runCommand(int argc, char **argv);

void addRun(CLI::App &program, Action &action);
void addCompare(CLI::App &program, Action &action);
void addExplore(CLI::App &program, Action &action);
void addReplay(CLI::App &program, Action &action);

} // namespace corvane::lab

#endif
