/*
 * What every life of the service begins and ends with, in a world drawn from a seed and in the
 * house of a scenario alike.
 */
#ifndef CORVANE_LAB_LIFE_H
#define CORVANE_LAB_LIFE_H

#include "disk.h"
#include "judge.h"

#include <thread>

namespace corvane::lab {

/* The platform as it is before the service runs, with the disk in it. */
void preparePlatform(Disk &disk);

/* The service prints its log, which nobody reads here: standard output goes nowhere from now on. */
void silenceOutput();

/* The service's main loop, in virtual time that has been started; ends with the service. */
[[nodiscard]] std::thread startService();

/* Ends virtual time after a clean end, when all threads should have ended. */
[[nodiscard]] Judge::Remains finishTime();

} // namespace corvane::lab

#endif
