/*
 * A run: one world from its begin to its end, life by life.
 */
#ifndef CORVANE_LAB_RUNS_H
#define CORVANE_LAB_RUNS_H

#include "world.h"

#include <cstdint>
#include <string>

namespace corvane::lab {

struct Result {
    std::uint64_t seed = 0;
    bool isBroken = false;
    std::string report; // of a broken one
    std::uint64_t hash = 0;
    double virtualSec = 0;
    double suspendedSec = 0; // of these
    double realSec = 0;
    int lives = 0;
    std::uint64_t steps = 0;
};

/* A pure function of this program and the setup. Each life is a child of the calling process. */
Result runOnce(const Setup &setup);

} // namespace corvane::lab

#endif
