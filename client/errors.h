/*
 * How a command of corvanectl fails. Both texts are one line without its end and name what failed,
 * why, and what to do next; whoever throws has already said everything there is to say.
 */
#ifndef CORVANE_CLIENT_ERRORS_H
#define CORVANE_CLIENT_ERRORS_H

#include <stdexcept>
#include <string>

namespace corvane::client {

/* The service refused, or could not be reached: exit status 1. */
class CommandFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* The service is not there, or not any more. */
class Unreachable : public CommandFailed {
public:
    using CommandFailed::CommandFailed;
};

/* The command line cannot be meant: exit status 2. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace corvane::client

#endif
