/*
 * The platform log of this test program: lines are kept, and shown on standard error as
 * "log <priority> <text>".
 */
#ifndef CORVANE_TESTS_PLATFORM_RECORDED_LOG_H
#define CORVANE_TESTS_PLATFORM_RECORDED_LOG_H

#include <string>
#include <vector>

/* The lines since the last call. */
std::vector<std::string> takeLog();

#endif
