/*
 * The one way this service logs: every line goes to the platform log and to standard output.
 *
 * LOG(DLOG_DEBUG, "level : %d", level) writes "File.cpp: function(line) > level : 3" to the
 * platform's main log buffer under the tag "corvane", and "[function:line] level : 3" with a line
 * end to standard output. Priority DLOG_INFO is for the life of the process and its threads,
 * DLOG_DEBUG for the rest.
 */
#ifndef CORVANE_LOG_H
#define CORVANE_LOG_H

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <dlog.h>

#define LOG(priority, ...)                                                                         \
    ::Corvane::logLine(priority, ::Corvane::baseName(__FILE__), __func__, __LINE__, __VA_ARGS__)

namespace Corvane {

inline const char *baseName(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/** Writes one line in both forms. format and its arguments are printf()'s. Any thread. */
__attribute__((format(printf, 5, 6))) inline void
logLine(int priority, const char *file, const char *function, int line, const char *format, ...) {
    char text[256] = "";
    std::string longText; // of a line that does not fit
    const char *message = text;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length >= static_cast<int>(sizeof text)) {
        longText.resize(static_cast<size_t>(length));
        va_start(arguments, format);
        std::vsnprintf(longText.data(), longText.size() + 1, format, arguments);
        va_end(arguments);
        message = longText.c_str();
    }

    __dlog_print(LOG_ID_MAIN, priority, "corvane", "%s: %s(%d) > %s", file, function, line,
                 message);
    std::printf("[%s:%d] %s\n", function, line, message);
}

} // namespace Corvane

#endif
