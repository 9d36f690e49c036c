/*
 * The platform log: <dlog.h> over the journal or standard error.
 */
#define SD_JOURNAL_SUPPRESS_LOCATION // the fields name the caller's place in the code, not this one
#include "log_sink.h"

#include <dlog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <vector>

#include <poll.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

/* How the service's own lines begin: file, function, line. */
constexpr std::string_view kPlacedFormat = "%s: %s(%d) > ";

struct Priority {
    int syslog;
    char letter;
};

Priority priorityOf(int priority) {
    if (priority >= DLOG_ERROR)
        return {LOG_ERR, 'E'};
    if (priority == DLOG_WARN)
        return {LOG_WARNING, 'W'};
    return priority == DLOG_INFO ? Priority{LOG_INFO, 'I'} : Priority{LOG_DEBUG, 'D'};
}

std::string timeOfDay() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 40> text{};
    const std::size_t size = strftime(text.data(), text.size(), "%FT%T", &utc);
    (void)std::snprintf(text.data() + size, text.size() - size, ".%03ldZ", now.tv_nsec / 1'000'000);
    return text.data();
}

/* Takes the place in the code from the arguments of a line that begins with it. */
void setPlace(LogLine &line, const char *format, va_list arguments) {
    if (!std::string_view(format).starts_with(kPlacedFormat))
        return;
    va_list copy;
    va_copy(copy, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers have started the list
    line.codeFile = va_arg(copy, const char *);
    line.codeFunction = va_arg(copy, const char *);
    line.codeLine = va_arg(copy, int);
    va_end(copy);
}

/* The formatted message; false when the format cannot be followed. */
__attribute__((format(printf, 2, 0))) bool formatMessage(std::string &message, const char *format,
                                                         va_list arguments) {
    message.resize(256);
    for (;;) {
        va_list copy;
        va_copy(copy, arguments);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers have started the list
        const int size = std::vsnprintf(message.data(), message.size(), format, copy);
        va_end(copy);
        if (size < 0)
            return false;
        const bool fits = static_cast<std::size_t>(size) < message.size();
        message.resize(static_cast<std::size_t>(size) + (fits ? 0 : 1));
        if (fits)
            return true;
    }
}

} // namespace

bool JournalSink::write(const LogLine &line) {
    std::vector<std::string> fields{"MESSAGE=" + std::string(line.text),
                                    "PRIORITY=" + std::to_string(priorityOf(line.priority).syslog),
                                    "SYSLOG_IDENTIFIER=" + line.tag};
    if (!line.codeFile.empty()) {
        fields.push_back("CODE_FILE=" + line.codeFile);
        fields.push_back("CODE_FUNC=" + line.codeFunction);
        fields.push_back("CODE_LINE=" + std::to_string(line.codeLine));
    }
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (std::string &field : fields)
        parts.push_back({field.data(), field.size()});
    return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

bool StreamSink::write(const LogLine &line) {
    pollfd stream{fd_, POLLOUT, 0};
    const int wait = stuck_ ? 0 : static_cast<int>(maxWait_.count());
    stuck_ = poll(&stream, 1, wait) == 0;
    if (stuck_)
        return false;
    std::string text = timeOfDay() + " " + priorityOf(line.priority).letter + " " + line.tag + ": ";
    text += line.text;
    std::replace(text.begin(), text.end(), '\n', ' ');
    text += '\n';
    ssize_t put;
    do
        put = ::write(fd_, text.data(), text.size());
    while (put < 0 && errno == EINTR);
    return put == static_cast<ssize_t>(text.size());
}

std::unique_ptr<LogSink> chooseLogSink(const char *journalSocket) {
    if (access(journalSocket, F_OK) == 0)
        return std::make_unique<JournalSink>();
    return std::make_unique<StreamSink>(STDERR_FILENO);
}

int writeLog(LogSink &sink, int priority, const char *tag, const char *format, va_list arguments) {
    std::string message;
    if (!formatMessage(message, format, arguments))
        return -1;
    LogLine line{priority, tag, message, {}, {}, 0};
    setPlace(line, format, arguments);
    // Some texts bring a line end of their own (a date as asctime() writes it).
    line.text = line.text.substr(0, line.text.find_last_not_of('\n') + 1);
    return sink.write(line) ? static_cast<int>(message.size()) : -1;
}

} // namespace corvane::platform

int __dlog_print(log_id_t, int prio, const char *tag, const char *fmt, ...) {
    using namespace corvane::platform;
    // Never destroyed: threads may still log while the process ends.
    static LogSink *const sink = chooseLogSink("/run/systemd/journal/socket").release();
    va_list arguments;
    va_start(arguments, fmt);
    const int result = writeLog(*sink, prio, tag == nullptr ? "" : tag, fmt, arguments);
    va_end(arguments);
    return result;
}
