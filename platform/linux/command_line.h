/*
 * The command line of a service that takes no options: what to say to those who try some.
 */
#ifndef CORVANE_PLATFORM_LINUX_COMMAND_LINE_H
#define CORVANE_PLATFORM_LINUX_COMMAND_LINE_H

#include <optional>

namespace corvane::platform {

/*
 * Nothing without arguments: the service is to run. Else the process's exit status, after the
 * answer: 0 for --help, -h and --version, on standard output; 2 for anything else, with one line on
 * standard error.
 */
std::optional<int> answerCommandLine(int argc, char **argv);

} // namespace corvane::platform

#endif
