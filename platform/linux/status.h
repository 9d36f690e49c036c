/*
 * Outcome of an operation of the Linux platform: good, or an error number with the one line that
 * tells what failed and why. Whoever receives a Status either hands it on or logs it, never both.
 */
#ifndef CORVANE_PLATFORM_LINUX_STATUS_H
#define CORVANE_PLATFORM_LINUX_STATUS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane::platform {

struct [[nodiscard]] Status {
    int code = 0;     // 0: good; otherwise an errno value
    std::string text; // what failed and why, one line without its end; empty when good

    bool ok() const { return code == 0; }
};

/* A failure told as "<what>: <the system's words for code>". */
Status systemFailure(int code, const std::string &what);

/* Text from outside, fit for a line of a log: in quotes, control characters as '?', cut at limit
 * bytes. */
std::string quoted(std::string_view text, std::size_t limit = 40);

} // namespace corvane::platform

#endif
