/*
 * The command line of corvanectl: what may be typed, what it means, and the exit status.
 */
#ifndef CORVANE_CLIENT_CLI_H
#define CORVANE_CLIENT_CLI_H

#include <ostream>
#include <string>
#include <vector>

namespace corvane::client {

/*
 * Runs one command line, without the program's name. Returns the exit status: 0 done, 1 refused or
 * unreachable, 2 wrong usage; with 1 and 2 one line has gone to err. colour paints what goes to
 * out.
 */
int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err,
        bool colour);

} // namespace corvane::client

#endif
