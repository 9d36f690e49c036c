/*
 * Child processes of tests.
 */
#include "child.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

pid_t startChild(const std::function<int()> &work) {
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    return child;
}

int waitForChild(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Outcome runInChild(const std::function<int()> &work) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0)
        throw std::runtime_error("no pipe");
    const pid_t child = startChild([&] {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        return work();
    });
    close(ends[1]);
    Outcome outcome;
    std::array<char, 512> buffer{};
    for (ssize_t size = 0; (size = read(ends[0], buffer.data(), buffer.size())) > 0;)
        outcome.error.append(buffer.data(), static_cast<std::size_t>(size));
    close(ends[0]);
    outcome.status = waitForChild(child);
    return outcome;
}
