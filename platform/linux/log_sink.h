/*
 * Where the lines of the platform log go: the system's journal when it is there, else standard
 * error.
 */
#ifndef CORVANE_PLATFORM_LINUX_LOG_SINK_H
#define CORVANE_PLATFORM_LINUX_LOG_SINK_H

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>

namespace corvane::platform {

struct LogLine {
    int priority;          // DLOG_DEBUG to DLOG_ERROR
    std::string tag;       // the program
    std::string_view text; // without its line end
    std::string codeFile;  // where in the program; empty when the line does not say so
    std::string codeFunction;
    int codeLine = 0;
};

/* Sinks may be used from any thread. */
class LogSink {
public:
    virtual ~LogSink() = default;

    /* False when the line could not be written. */
    virtual bool write(const LogLine &line) = 0;
};

/* With PRIORITY, SYSLOG_IDENTIFIER and the CODE_ fields. */
class JournalSink : public LogSink {
public:
    bool write(const LogLine &line) override;
};

/*
 * One line each: time of day in UTC, priority, tag, text. Inner line ends become blanks. A reader
 * that takes nothing holds the caller up for at most maxWait once, then lines are dropped until it
 * reads again.
 */
class StreamSink : public LogSink {
public:
    /* The descriptor stays the caller's. */
    explicit StreamSink(int fd, std::chrono::milliseconds maxWait = std::chrono::milliseconds(100))
        : fd_(fd), maxWait_(maxWait) {}
    bool write(const LogLine &line) override;

private:
    const int fd_;
    const std::chrono::milliseconds maxWait_;
    std::atomic<bool> stuck_{false};
};

/* The journal's when journalSocket exists, else one to standard error. */
std::unique_ptr<LogSink> chooseLogSink(const char *journalSocket);

/* Formats the message as vprintf() would and hands it to the sink. Returns what __dlog_print()
 * does. */
int writeLog(LogSink &sink, int priority, const char *tag, const char *format, va_list arguments)
    __attribute__((format(printf, 4, 0)));

} // namespace corvane::platform

#endif
