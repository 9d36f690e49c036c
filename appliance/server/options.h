/*
 * The command line of corvane-appliance.
 */
#ifndef CORVANE_APPLIANCE_SERVER_OPTIONS_H
#define CORVANE_APPLIANCE_SERVER_OPTIONS_H

#include "http_guard.h"

#include "endpoint.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane::appliance {

struct Options {
    ListenPlace listen;
    std::string passwordFile;
    std::string pageFolder;  // empty: the page built in
    int meteringPort = 7777; // 0: no metering service
    client::Endpoint service;
    std::string pskFile;
    std::string identity;
    std::uint64_t seed = 1;
    int speed = 0; // 0: no clock is made
    std::string at;
    std::string zone;
};

/* The command line is to go no further; what is to be printed, where, and the exit status. */
struct Exit {
    int status = 0; // 0: help or version, to standard output; 2: wrong usage, to standard error
    std::string text;
};

/* Reads the arguments, without the program's name, and the environment where it has a say; throws
 * Exit. */
Options readOptions(const std::vector<std::string> &arguments);

} // namespace corvane::appliance

#endif
