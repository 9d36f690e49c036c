/*
 * Platform log in memory. A line of the form "File.cpp: function(12) > message" is taken apart, so
 * that tests compare messages and, where it matters, where they come from.
 */
#include <dlog.h>

#include "fakes.h"
#include "internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

using fakes::log::Line;

std::mutex mutex;
std::vector<Line> recorded; // guarded by mutex

Line takeApart(int buffer, int priority, const char *tag, const std::string &text) {
    Line line{buffer, priority, tag, text, "", "", 0, text, fakes::internal::systemClockNs()};
    const std::size_t colon = text.find(": ");
    const std::size_t arrow = text.find(") > ");
    const std::size_t open = arrow == std::string::npos ? arrow : text.rfind('(', arrow);
    if (colon == std::string::npos || open == std::string::npos || open < colon) {
        return line;
    }
    line.file = text.substr(0, colon);
    line.function = text.substr(colon + 2, open - colon - 2);
    line.line = static_cast<int>(std::strtol(text.c_str() + open + 1, nullptr, 10));
    line.message = text.substr(arrow + 4);
    return line;
}

} // namespace

int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...) {
    char text[512];
    std::string longText; // of a line that does not fit
    va_list arguments;
    va_start(arguments, fmt);
    if (!fakes::internal::keepsRecords() && std::strcmp(fmt, "%s: %s(%d) > %s") == 0) {
        // Only the message is looked at, and composing the rest takes a twelfth of a run's time.
        (void)va_arg(arguments, const char *);
        (void)va_arg(arguments, const char *);
        (void)va_arg(arguments, int);
        const std::string message = va_arg(arguments, const char *);
        va_end(arguments);
        fakes::internal::record(fakes::Kind::Log, message);
        return static_cast<int>(message.size());
    }
    const int length = std::vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    if (length < 0) {
        return length;
    }
    if (length >= static_cast<int>(sizeof text)) {
        longText.resize(static_cast<std::size_t>(length));
        va_start(arguments, fmt);
        std::vsnprintf(longText.data(), longText.size() + 1, fmt, arguments);
        va_end(arguments);
    }
    Line line = takeApart(log_id, prio, tag, longText.empty() ? text : longText.c_str());
    fakes::internal::record(fakes::Kind::Log, line.message);
    if (fakes::internal::keepsRecords()) {
        const std::lock_guard lock(mutex);
        recorded.push_back(std::move(line));
    }
    return length;
}

namespace fakes {
namespace log {

std::vector<Line> lines() {
    const std::lock_guard lock(mutex);
    return recorded;
}

std::vector<std::string> messages() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> result;
    for (const Line &line : recorded) {
        result.push_back(line.message);
    }
    return result;
}

int count(const std::string &message) {
    const std::lock_guard lock(mutex);
    return static_cast<int>(
        std::count_if(recorded.begin(), recorded.end(),
                      [&message](const Line &line) { return line.message == message; }));
}

bool has(const std::string &message) { return count(message) > 0; }

Line find(const std::string &message) {
    const std::lock_guard lock(mutex);
    const auto found =
        std::find_if(recorded.rbegin(), recorded.rend(),
                     [&message](const Line &line) { return line.message == message; });
    return found != recorded.rend() ? *found : Line{-1, -1, "", "", "", "", 0, "", 0};
}

} // namespace log

namespace internal {

void clearLog() {
    const std::lock_guard lock(mutex);
    recorded.clear();
}

void resetLog() { clearLog(); }

} // namespace internal
} // namespace fakes
