/*
 * The clock's file, and how its time passes.
 */
#include "virtual_clock.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <chrono>
#include <fstream>

namespace {

using namespace corvane::clock;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::int64_t kStartNs = 1'785'502'200'000'000'000; // 2026-07-31T12:50Z

std::int64_t steadyNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

class ClockFile : public testing::Test {
protected:
    VirtualClock made(int factor, std::int64_t startNs = kStartNs) const {
        VirtualClock clock;
        EXPECT_EQ(createClock(path, factor, startNs), "");
        EXPECT_EQ(openClock(path, clock), "");
        return clock;
    }

    TempFolder folder;
    const std::string path = folder / "clock";
};

TEST_F(ClockFile, ClockStartsAtItsTimeAndRunsByItsFactor) {
    for (const int factor : {1, 60, 600}) {
        const std::int64_t before = steadyNs();
        const VirtualClock clock = made(factor);
        const std::int64_t made = steadyNs();
        while (steadyNs() - made < 2'000'000) {
        }
        const std::int64_t atLeast = (steadyNs() - made) * factor;
        const std::int64_t passed = clock.nowNs() - kStartNs;
        const std::int64_t atMost = (steadyNs() - before) * factor;
        EXPECT_LE(atLeast, passed) << factor;
        EXPECT_LE(passed, atMost) << factor;
        EXPECT_EQ(clock.factor(), factor);
        EXPECT_EQ(clock.realNsFor(600'000), 600'000 / factor);
        EXPECT_TRUE(clock.isVirtual());
    }
}

TEST_F(ClockFile, TwoThatOpenItSeeTheSameTime) {
    const VirtualClock one = made(600);
    VirtualClock other;
    ASSERT_EQ(openClock(path, other), "");
    const std::int64_t before = one.nowNs();
    const std::int64_t between = other.nowNs();
    EXPECT_LE(before, between);
    EXPECT_LE(between, one.nowNs());
}

TEST_F(ClockFile, WithoutItTheTimeIsReal) {
    const VirtualClock clock;
    const std::int64_t before = std::chrono::system_clock::now().time_since_epoch().count();
    const std::int64_t now = clock.nowNs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, std::chrono::system_clock::now().time_since_epoch().count());
    EXPECT_FALSE(clock.isVirtual());
}

TEST_F(ClockFile, FactorOutOfRangeIsRefusedAndWritesNothing) {
    for (const int factor : {-1, 0, 601})
        EXPECT_THAT(createClock(path, factor, kStartNs), HasSubstr("choose 1 to 600"));
    EXPECT_TRUE(namesIn(folder.path()).empty());
}

TEST_F(ClockFile, ThatCannotBeWrittenIsToldWithItsReason) {
    EXPECT_EQ(createClock(folder / "none/clock", 60, kStartNs),
              "clock: cannot write " + (folder / "none/clock") + ": No such file or directory");
}

TEST_F(ClockFile, ThatIsMissingOrBadIsToldAndChangesNothing) {
    VirtualClock clock = made(60);
    EXPECT_EQ(openClock(folder / "none", clock),
              "clock: cannot open " + (folder / "none") + ": No such file or directory");
    const std::string good = readFile(path);
    std::string wrongFactor = good;
    wrongFactor[24] = '\0';
    for (const std::string &content :
         {std::string(), good.substr(1), "X" + good.substr(1), wrongFactor}) {
        writeFile(path, content);
        EXPECT_THAT(openClock(path, clock), HasSubstr("is no clock"));
    }
    EXPECT_EQ(clock.factor(), 60);
}

TEST_F(ClockFile, FromBeforeTheMachinesLastStartIsTold) {
    VirtualClock clock = made(60);
    std::string content = readFile(path);
    content[15] = '\x7f'; // the highest byte of the start on the steady clock
    writeFile(path, content);
    EXPECT_THAT(openClock(path, clock), HasSubstr("from before the machine's last start"));
}

} // namespace
