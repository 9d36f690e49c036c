/*
 * The lines of the platform log.
 */
#include "log_sink.h"

#include <dlog.h>

#include <gmock/gmock.h>

#include <array>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace corvane::platform;
using testing::MatchesRegex;

namespace {

/* Keeps what it is given. */
class KeepingSink : public LogSink {
public:
    bool write(const LogLine &line) override {
        lines.push_back(line);
        texts.emplace_back(line.text);
        return works;
    }

    std::vector<LogLine> lines;
    std::vector<std::string> texts;
    bool works = true;
};

__attribute__((format(printf, 4, 5))) int print(LogSink &sink, int priority, const char *tag,
                                                const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = writeLog(sink, priority, tag, format, arguments);
    va_end(arguments);
    return result;
}

class Pipe {
public:
    Pipe() { EXPECT_EQ(0, pipe2(ends_.data(), O_CLOEXEC)); }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    int writeEnd() const { return ends_[1]; }
    std::string readSome() const {
        std::array<char, 65536> buffer{};
        const ssize_t size = read(ends_[0], buffer.data(), buffer.size());
        return {buffer.data(), static_cast<std::size_t>(size)};
    }

private:
    std::array<int, 2> ends_{};
};

} // namespace

TEST(Dlog, LineOfTheServiceCarriesItsPlaceInTheCode) {
    KeepingSink sink;
    EXPECT_EQ(31, print(sink, DLOG_INFO, "corvane", "%s: %s(%d) > level %d", "EnergyDR.cpp", "run",
                        30, 2));
    ASSERT_EQ(1U, sink.lines.size());
    EXPECT_EQ("EnergyDR.cpp: run(30) > level 2", sink.texts[0]);
    EXPECT_EQ("corvane", sink.lines[0].tag);
    EXPECT_EQ(DLOG_INFO, sink.lines[0].priority);
    EXPECT_EQ("EnergyDR.cpp", sink.lines[0].codeFile);
    EXPECT_EQ("run", sink.lines[0].codeFunction);
    EXPECT_EQ(30, sink.lines[0].codeLine);
}

TEST(Dlog, OtherLinesCarryNoPlace) {
    KeepingSink sink;
    print(sink, DLOG_WARN, "corvane", "%s is %d", "answer", 42);
    EXPECT_EQ("answer is 42", sink.texts[0]);
    EXPECT_EQ("", sink.lines[0].codeFile);
}

TEST(Dlog, LineEndOfTheTextItselfMakesNoEmptyLine) {
    KeepingSink sink;
    print(sink, DLOG_DEBUG, "corvane", "time : %s", "Sat Nov 21 11:54:26 2026\n");
    EXPECT_EQ("time : Sat Nov 21 11:54:26 2026", sink.texts[0]);
    print(sink, DLOG_DEBUG, "corvane", "%s", "\n");
    EXPECT_EQ("", sink.texts[1]);
}

TEST(Dlog, LongTextIsWhole) {
    KeepingSink sink;
    for (int size : {254, 255, 256, 257, 5000}) {
        const std::string text(static_cast<std::size_t>(size), 'x');
        EXPECT_EQ(size, print(sink, DLOG_DEBUG, "corvane", "%s", text.c_str()));
        EXPECT_EQ(text, sink.texts.back());
    }
}

TEST(Dlog, LineThatCannotBeWrittenIsNegative) {
    KeepingSink sink;
    sink.works = false;
    EXPECT_LT(print(sink, DLOG_DEBUG, "corvane", "text"), 0);
}

TEST(Dlog, StreamLineHasTimePriorityTagAndText) {
    const Pipe pipe;
    StreamSink sink(pipe.writeEnd());
    const std::vector<std::pair<int, std::string>> letters = {
        {DLOG_DEBUG, "D"}, {DLOG_INFO, "I"}, {DLOG_WARN, "W"}, {DLOG_ERROR, "E"}};
    for (const auto &[priority, letter] : letters) {
        EXPECT_GT(print(sink, priority, "corvane", "a\nb\n"), 0);
        EXPECT_THAT(
            pipe.readSome(),
            MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z " +
                         letter + " corvane: a b\n"));
    }
}

TEST(Dlog, StreamThatNobodyReadsDoesNotHoldTheCaller) {
    const Pipe pipe;
    StreamSink sink(pipe.writeEnd(), std::chrono::milliseconds(1));
    const std::string text(4000, 'x');
    int lines = 0;
    while (print(sink, DLOG_DEBUG, "corvane", "%s", text.c_str()) > 0)
        ++lines;
    EXPECT_GT(lines, 0);
    EXPECT_LT(print(sink, DLOG_DEBUG, "corvane", "lost"), 0);
    std::string seen = pipe.readSome();
    EXPECT_GT(print(sink, DLOG_DEBUG, "corvane", "found"), 0);
    while (seen.find("found\n") == std::string::npos)
        seen += pipe.readSome();
    EXPECT_EQ(std::string::npos, seen.find("lost"));
}

TEST(Dlog, WithoutAJournalLinesGoToStandardError) {
    const auto sink = chooseLogSink("/nowhere/journal/socket");
    EXPECT_NE(nullptr, dynamic_cast<StreamSink *>(sink.get()));
    testing::internal::CaptureStderr();
    print(*sink, DLOG_INFO, "corvane", "hello");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex(".* I corvane: hello\n"));
}

TEST(Dlog, WithAJournalLinesGoThere) {
    const auto sink = chooseLogSink("/dev/null");
    EXPECT_NE(nullptr, dynamic_cast<JournalSink *>(sink.get()));
}
