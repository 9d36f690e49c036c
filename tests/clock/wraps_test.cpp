/*
 * What a program sees that lives in a clock, and the tool that makes one: real child processes.
 */
#include "virtual_clock.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <sstream>

#include <sys/wait.h>

namespace {

using corvane::clock::createClock;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::int64_t kStartNs = 1'785'502'200'000'000'000; // 2026-07-31T12:50Z
constexpr std::int64_t kSecondNs = 1'000'000'000;

struct Outcome {
    int status = -1;
    std::string text; // standard output and standard error

    std::map<std::string, std::int64_t> values() const {
        std::map<std::string, std::int64_t> found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t space = line.rfind(' ');
            found[line.substr(0, space)] = std::stoll(line.substr(space));
        }
        return found;
    }
};

Outcome runShell(const std::string &command) {
    Outcome outcome;
    FILE *output = popen((command + " 2>&1").c_str(), "re");
    std::array<char, 256> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), output) != nullptr)
        outcome.text += buffer.data();
    const int status = pclose(output);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

class Probe : public testing::Test {
protected:
    Outcome inClock(const std::string &what) const {
        return runShell("CORVANE_CLOCK='" + path + "' '" CLOCK_PROBE "' " + what);
    }

    static Outcome without(const std::string &what) {
        return runShell("env -u CORVANE_CLOCK '" CLOCK_PROBE "' " + what);
    }

    TempFolder folder;
    const std::string path = folder / "clock";
};

TEST_F(Probe, EveryCallForTheTimeOfDayShowsTheClocks) {
    ASSERT_EQ(createClock(path, 600, kStartNs), "");
    const auto values = inClock("day").values();
    corvane::clock::VirtualClock clock;
    ASSERT_EQ(openClock(path, clock), "");
    for (const char *call : {"time", "gettimeofday", "clock_gettime", "coarse", "system_clock"}) {
        EXPECT_GE(values.at(call), kStartNs / kSecondNs) << call;
        EXPECT_LE(values.at(call), clock.nowNs() / kSecondNs) << call;
    }
    timespec steady{};
    clock_gettime(CLOCK_MONOTONIC, &steady);
    EXPECT_LE(values.at("steady"), steady.tv_sec) << "is to stay real";
}

TEST_F(Probe, EverySleepIsAsMuchShorter) {
    ASSERT_EQ(createClock(path, 600, kStartNs), "");
    for (const auto &[call, microseconds] : inClock("sleep").values()) {
        EXPECT_GE(microseconds, call == "steady until" ? 500 : 99'000) << call;
        EXPECT_LT(microseconds, 30'000'000) << call << " took as long as without the clock";
    }
}

TEST_F(Probe, WithoutTheVariableAllIsReal) {
    const std::int64_t before = std::time(nullptr);
    const auto values = without("day").values();
    for (const char *call : {"time", "gettimeofday", "clock_gettime", "coarse", "system_clock"}) {
        EXPECT_GE(values.at(call), before - 1) << call; // the coarse clock may lag by a tick
        EXPECT_LE(values.at(call), std::time(nullptr)) << call;
    }
}

TEST_F(Probe, MissingFileIsOneLineAndStatus1) {
    const Outcome outcome = inClock("day");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text,
              "clock: cannot open " + path + ": No such file or directory (CORVANE_CLOCK)\n");
}

TEST_F(Probe, BadFileIsOneLineAndStatus1) {
    writeFile(path, "no clock");
    const Outcome outcome = inClock("day");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text,
              "clock: " + path + " is no clock; make one with corvane-clock (CORVANE_CLOCK)\n");
}

TEST_F(Probe, ToolMakesAClockAtALocalTime) {
    const std::string tool = "'" CLOCK_TOOL "' '" + path + "' ";
    const Outcome made = runShell(tool + "--speed 60 --at 2026-07-31T14:50 --zone Europe/Berlin");
    EXPECT_EQ(made.status, 0) << made.text;
    const std::int64_t time = inClock("day").values().at("time");
    EXPECT_GE(time, kStartNs / kSecondNs);
    EXPECT_LT(time, kStartNs / kSecondNs + 3600);
}

TEST_F(Probe, ToolRefusesInOneLineThatSaysWhatIsWrong) {
    const std::string tool = "'" CLOCK_TOOL "' '" + path + "' ";
    const Outcome doubtful =
        runShell(tool + "--speed 60 --at 2026-10-25T02:30 --zone Europe/Berlin");
    EXPECT_EQ(doubtful.status, 1);
    EXPECT_THAT(doubtful.text, HasSubstr("comes twice"));
    EXPECT_EQ(runShell(tool + "--speed 601").status, 1);
    for (const char *wrong :
         {"", "--speed", "--speed x", "--speed 6x", "--sped 6", "--speed 6 b"}) {
        const Outcome outcome = runShell(tool + wrong);
        EXPECT_EQ(outcome.status, 2) << wrong;
        EXPECT_THAT(outcome.text,
                    AllOf(StartsWith("corvane-clock: "), EndsWith("; see corvane-clock --help\n")))
            << wrong;
        EXPECT_EQ(std::count(outcome.text.begin(), outcome.text.end(), '\n'), 1) << wrong;
    }
    EXPECT_TRUE(namesIn(folder.path()).empty());
}

} // namespace
