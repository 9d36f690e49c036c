/*
 * The platform log of this test program.
 */
#include "recorded_log.h"

#include <dlog.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include <unistd.h>

namespace {

std::mutex mutex;
std::vector<std::string> lines; // guarded by mutex

} // namespace

std::vector<std::string> takeLog() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(lines, {});
}

int __dlog_print(log_id_t, int prio, const char *, const char *fmt, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it was started the line before
    const int size = std::vsnprintf(text.data(), text.size(), fmt, arguments);
    va_end(arguments);
    (void)std::fprintf(stderr, "log %d %s\n", prio, text.data());
    const std::lock_guard<std::mutex> lock(mutex);
    lines.emplace_back(text.data());
    return size;
}
