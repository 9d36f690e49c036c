/*
 * Outcome of an operation of the Linux platform: good, or an error number with the one line that
 * tells what failed and why. Whoever receives a Status either hands it on or logs it, never both.
 */
#ifndef CORVANE_PLATFORM_LINUX_STATUS_H
#define CORVANE_PLATFORM_LINUX_STATUS_H

#include <string>

namespace corvane::platform {

struct [[nodiscard]] Status {
    int code = 0;     // 0: good; otherwise an errno value
    std::string text; // what failed and why, one line without its end; empty when good

    bool ok() const { return code == 0; }
};

/* A failure told as "<what>: <the system's words for code>". */
Status systemFailure(int code, const std::string &what);

} // namespace corvane::platform

#endif
