/*
 * Shell completion, made from the description of the command line itself, so that it cannot differ
 * from what the program accepts.
 */
#ifndef CORVANE_CLIENT_COMPLETION_H
#define CORVANE_CLIENT_COMPLETION_H

#include <CLI/App.hpp>

#include <string>

namespace corvane::client {

/* A script for bash that completes commands, options, fixed values, files and settings keys. */
std::string bashCompletion(const CLI::App &app);

} // namespace corvane::client

#endif
