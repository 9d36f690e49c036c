/*
 * A child process of a test: what it wrote and how it ended.
 */
#ifndef CORVANE_TESTS_PLATFORM_CHILD_H
#define CORVANE_TESTS_PLATFORM_CHILD_H

#include <functional>
#include <string>

#include <sys/types.h>

struct Outcome {
    int status = -1;   // exit status, or 128 plus the signal
    std::string error; // standard error
};

/* Runs work in a child, which ends with the value it returns, and waits for it. */
Outcome runInChild(const std::function<int()> &work);

/* The two halves, for children side by side. */
pid_t startChild(const std::function<int()> &work);
int waitForChild(pid_t child);

#endif
