/* The Micom: commands in, key writes out, in order and in time; its faults. */
#include "micom.h"

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "virtual_days.h"

namespace corvane::appliance {

void PrintTo(const SettingsWrite &write, std::ostream *out) {
    *out << write.key << " = " << write.value << " at " << write.at;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

MATCHER_P2(Writes, key, value, "") { return std::string(arg.key) == key && arg.value == value; }

struct MicomTest : testing::Test {
    Refrigerator refrigerator{1, kBegin};
    Micom micom{refrigerator, 1, kBegin};

    /* What is written up to a time but for the energy. */
    std::vector<SettingsWrite> reportsUntil(TimeMs end) {
        std::vector<SettingsWrite> reports;
        for (const SettingsWrite &write : micom.advance(end)) {
            if (write.key == kLevelKey || write.key == kOverrideKey) {
                reports.push_back(write);
            }
        }
        return reports;
    }

    /* The energy counts published in a list of writes. */
    static std::vector<std::int64_t> publications(const std::vector<SettingsWrite> &writes) {
        std::vector<std::int64_t> counts;
        std::map<std::string, int> bytes;
        for (const SettingsWrite &write : writes) {
            bytes[write.key] = write.value;
            if (write.key == kEnergyKeys[3]) {
                std::int64_t sum = 0;
                for (const char *key : kEnergyKeys) {
                    sum = sum * 256 + bytes.at(key);
                }
                counts.push_back(sum);
                bytes.clear();
            }
        }
        return counts;
    }
};

// --- Commands

TEST_F(MicomTest, EachCommandDoesWhatItSays) {
    const std::vector<std::pair<std::string, int>> levels = {{"SET_SMARTGRID_LEVEL1", 1},
                                                             {"SET_SMARTGRID_LEVEL2", 2},
                                                             {"SET_SMARTGRID_LEVEL3", 3},
                                                             {"SET_SMARTGRID_LEVEL4", 4},
                                                             {"SET_SMARTGRID_LEVEL_NORMAL", 0}};
    TimeMs now = kBegin;
    for (const auto &[command, level] : levels) {
        EXPECT_EQ(micom.hear(command, now), Heard::Accepted);
        now += 1000;
        EXPECT_THAT(reportsUntil(now), ElementsAre(Writes(kLevelKey, level)));
        EXPECT_EQ(refrigerator.level(), level);
    }
    EXPECT_EQ(micom.hear("SET_SMARTGRID_OVERRIDE_FOREVER", now), Heard::Accepted);
    EXPECT_THAT(reportsUntil(now + 1000), ElementsAre(Writes(kOverrideKey, 1)));
    EXPECT_TRUE(refrigerator.override());
    EXPECT_EQ(micom.hear("SET_SMARTGRID_OVERRIDE_OFF", now + 1000), Heard::Accepted);
    EXPECT_THAT(reportsUntil(now + 2000), ElementsAre(Writes(kOverrideKey, 0)));
    EXPECT_FALSE(refrigerator.override());
    EXPECT_EQ(micom.hear("SET_SMARTGRID_ENABLE", now + 2000), Heard::Accepted);
    EXPECT_THAT(reportsUntil(now + 3000), IsEmpty());
    EXPECT_TRUE(refrigerator.memory().defrostHold);
    EXPECT_EQ(micom.hear("SET_SMARTGRID_DISABLE", now + 3000), Heard::Accepted);
    EXPECT_THAT(reportsUntil(now + 4000), IsEmpty());
    EXPECT_FALSE(refrigerator.memory().defrostHold);
}

TEST_F(MicomTest, UnknownTextsAreIgnored) {
    for (const std::string &text :
         {std::string(), std::string("SET_SMARTGRID_LEVEL5"), std::string("set_smartgrid_level1"),
          std::string("SET_SMARTGRID_LEVEL1 "), std::string(100'000, 'x')}) {
        EXPECT_EQ(micom.hear(text, kBegin), Heard::Unknown);
    }
    EXPECT_THAT(micom.advance(afterSec(50)), IsEmpty());
}

TEST_F(MicomTest, CommandsAreAppliedInOrderAfter100To800Milliseconds) {
    double shortest = 1e9;
    double longest = 0;
    for (int turn = 0; turn < 300; ++turn) {
        const TimeMs heard = afterSec(turn * 60 + 1);
        EXPECT_THAT(reportsUntil(heard), IsEmpty());
        micom.hear("SET_SMARTGRID_LEVEL3", heard);
        micom.hear("SET_SMARTGRID_OVERRIDE_FOREVER", heard);
        micom.hear("SET_SMARTGRID_OVERRIDE_OFF", heard);
        micom.hear("SET_SMARTGRID_LEVEL_NORMAL", heard);
        const auto reports = reportsUntil(heard + 2000);
        ASSERT_THAT(reports, ElementsAre(Writes(kLevelKey, 3), Writes(kOverrideKey, 1),
                                         Writes(kOverrideKey, 0), Writes(kLevelKey, 0)));
        shortest = std::min(shortest, static_cast<double>(reports[0].at - heard));
        longest = std::max(longest, static_cast<double>(reports[0].at - heard));
        for (std::size_t next = 1; next < reports.size(); ++next) {
            ASSERT_GE(reports[next].at, reports[next - 1].at);
            ASSERT_LE(reports[next].at, heard + 800);
        }
    }
    EXPECT_GE(shortest, 100);
    EXPECT_LT(shortest, 130);
    EXPECT_LE(longest, 800);
    EXPECT_GT(longest, 770);
}

TEST_F(MicomTest, ReportsOnlyChanges) {
    micom.hear("SET_SMARTGRID_LEVEL_NORMAL", kBegin);
    micom.hear("SET_SMARTGRID_OVERRIDE_OFF", kBegin);
    EXPECT_THAT(reportsUntil(afterSec(2)), IsEmpty());
    micom.hear("SET_SMARTGRID_LEVEL2", afterSec(2));
    micom.hear("SET_SMARTGRID_LEVEL2", afterSec(2));
    EXPECT_THAT(reportsUntil(afterSec(4)), ElementsAre(Writes(kLevelKey, 2)));
    micom.hear("SET_SMARTGRID_LEVEL2", afterSec(4));
    EXPECT_THAT(reportsUntil(afterSec(6)), IsEmpty());
}

TEST_F(MicomTest, TellsWhenItHasSomethingToDo) {
    EXPECT_EQ(micom.nextAt(), afterSec(60));
    micom.hear("SET_SMARTGRID_LEVEL2", afterSec(5));
    const TimeMs next = micom.nextAt();
    EXPECT_GE(next, afterSec(5.1));
    EXPECT_LE(next, afterSec(5.8));
    EXPECT_THAT(micom.advance(next - 1), IsEmpty());
    EXPECT_THAT(micom.advance(next), ElementsAre(Writes(kLevelKey, 2)));
}

TEST_F(MicomTest, HoldsNoMoreCommandsThanItCan) {
    for (std::size_t waiting = 0; waiting < Micom::kMostWaiting; ++waiting) {
        ASSERT_EQ(micom.hear("SET_SMARTGRID_LEVEL2", kBegin), Heard::Accepted);
    }
    EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL3", kBegin), Heard::Overrun);
    EXPECT_THAT(reportsUntil(afterSec(2)), ElementsAre(Writes(kLevelKey, 2)));
    EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL3", afterSec(2)), Heard::Accepted);
}

// --- Energy

TEST_F(MicomTest, PublishesEachMinuteFourBytesTheLastLast) {
    EXPECT_THAT(micom.advance(afterSec(59.999)), IsEmpty());
    const auto writes = micom.advance(afterSec(60));
    ASSERT_EQ(writes.size(), 4U);
    for (std::size_t place = 0; place < 4; ++place) {
        EXPECT_STREQ(writes[place].key, kEnergyKeys[place]);
        EXPECT_EQ(writes[place].at, afterSec(60));
        EXPECT_GE(writes[place].value, 0);
        EXPECT_LE(writes[place].value, 255);
    }
    EXPECT_THAT(micom.advance(afterSec(119)), IsEmpty());
    EXPECT_EQ(micom.advance(afterSec(120)).size(), 4U);
}

TEST_F(MicomTest, PublicationsAddUpToTheEnergyWithoutTheDisplay) {
    std::int64_t sum = 0;
    for (int minute = 1; minute <= 24 * 60; ++minute) {
        const auto counts = publications(micom.advance(afterSec(minute * 60)));
        ASSERT_EQ(counts.size(), 1U);
        sum += counts[0];
        ASSERT_LT(counts[0], 500); // 300 W
    }
    EXPECT_EQ(sum, static_cast<std::int64_t>(std::floor(refrigerator.micomEnergyWh() * 100)));
    EXPECT_LT(static_cast<double>(sum) / 100, refrigerator.energyWh() - 24 * 1.3);
    EXPECT_GT(sum, 60'000);
}

TEST_F(MicomTest, BytesCarryLargeCounts) {
    const auto writes = micom.advance(afterHours(20 * 24));
    EXPECT_EQ(publications(writes),
              std::vector{static_cast<std::int64_t>(refrigerator.micomEnergyWh() * 100)});
    EXPECT_GT(writes[1].value, 0); // more than 65,535 counts
}

TEST_F(MicomTest, OnePublicationTellsALongGap) {
    std::int64_t sum = 0;
    for (const TimeMs end : {afterHours(5), afterHours(5.2), afterHours(30)}) {
        const auto counts = publications(micom.advance(end));
        ASSERT_EQ(counts.size(), 1U);
        sum += counts[0];
    }
    EXPECT_NEAR(static_cast<double>(sum) / 100, refrigerator.micomEnergyWh(), 0.01);
}

TEST_F(MicomTest, CommandsWithinALongGapActAtTheirTimes) {
    micom.hear("SET_SMARTGRID_LEVEL4", kBegin);
    const auto writes = micom.advance(afterHours(1));
    ASSERT_EQ(writes.size(), 5U);
    EXPECT_THAT(writes[0], Writes(kLevelKey, 4));
    EXPECT_LE(writes[0].at, afterSec(0.8));
    EXPECT_LT(refrigerator.energyWh(), 6); // off nearly from the beginning
}

TEST_F(MicomTest, DoesNotMindThatItsOwnerHasAdvancedTheRefrigerator) {
    micom.hear("SET_SMARTGRID_LEVEL2", kBegin);
    refrigerator.advance(afterSec(70));
    const double energyWh = refrigerator.energyWh();
    const auto writes = micom.advance(afterSec(70));
    EXPECT_EQ(writes.size(), 5U);
    EXPECT_EQ(refrigerator.at(), afterSec(70));
    EXPECT_EQ(refrigerator.energyWh(), energyWh);
}

// --- Steps of the clock

TEST_F(MicomTest, SetClockDelaysNothing) {
    for (const TimeMs jump : {afterHours(-100), afterHours(24 * 400), TimeMs{0}}) {
        Refrigerator other(1, kBegin);
        Micom jumper(other, 1, kBegin);
        jumper.hear("SET_SMARTGRID_LEVEL3", kBegin);
        EXPECT_THAT(jumper.advance(jump), ElementsAre(Writes(kLevelKey, 3)));
        EXPECT_EQ(other.energyWh(), 0);
        EXPECT_EQ(jumper.nextAt(), jump + 60'000);
        EXPECT_EQ(publications(jumper.advance(jump + 60'000)).size(), 1U);
    }
}

TEST_F(MicomTest, SetClockEndsAStartUnderWay) {
    micom.restart(kBegin);
    EXPECT_THAT(micom.advance(afterHours(-50)), IsEmpty());
    EXPECT_TRUE(micom.alive());
}

// --- Faults

TEST_F(MicomTest, SilentNeitherHearsNorWritesAndTellsEverythingAfterwards) {
    micom.hear("SET_SMARTGRID_LEVEL2", kBegin);
    micom.setFaults({.silent = true});
    EXPECT_FALSE(micom.alive());
    EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL3", kBegin), Heard::Deaf);
    EXPECT_THAT(micom.advance(afterSec(600)), IsEmpty());
    EXPECT_EQ(refrigerator.level(), 2); // was accepted before
    micom.setFaults({});
    EXPECT_THAT(micom.advance(afterSec(601)), ElementsAre(Writes(kLevelKey, 2)));
    const auto counts = publications(micom.advance(afterSec(660)));
    ASSERT_EQ(counts.size(), 1U);
    EXPECT_NEAR(static_cast<double>(counts[0]) / 100, refrigerator.micomEnergyWh(), 0.01);
}

TEST_F(MicomTest, SlowAppliesAfter5To15Seconds) {
    micom.setFaults({.slow = true});
    for (int turn = 0; turn < 50; ++turn) {
        const TimeMs heard = afterSec(turn * 60);
        micom.hear(turn % 2 == 0 ? "SET_SMARTGRID_LEVEL1" : "SET_SMARTGRID_LEVEL_NORMAL", heard);
        const auto reports = reportsUntil(heard + 30'000);
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_GE(reports[0].at, heard + 5'000);
        EXPECT_LE(reports[0].at, heard + 15'000);
    }
}

TEST_F(MicomTest, SlowKeepsTheOrderWhenTheFaultEnds) {
    micom.setFaults({.slow = true});
    micom.hear("SET_SMARTGRID_LEVEL1", kBegin);
    micom.setFaults({});
    micom.hear("SET_SMARTGRID_LEVEL3", afterSec(1));
    EXPECT_THAT(reportsUntil(afterSec(30)),
                ElementsAre(Writes(kLevelKey, 1), Writes(kLevelKey, 3)));
}

TEST_F(MicomTest, DropsEverySecondCommandTheFirstOneFirst) {
    for (int turn = 0; turn < 2; ++turn) {
        micom.setFaults({.dropsCommands = true});
        EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL1", kBegin), Heard::Dropped);
        EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL2", kBegin), Heard::Accepted);
        EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL3", kBegin), Heard::Dropped);
        micom.setFaults({});
    }
    EXPECT_THAT(reportsUntil(afterSec(2)), ElementsAre(Writes(kLevelKey, 2)));
}

TEST_F(MicomTest, WrongEchoReportsAnotherLevelThanIsApplied) {
    micom.setFaults({.wrongEcho = true});
    EXPECT_THAT(reportsUntil(afterSec(10)), IsEmpty()); // nothing was commanded
    micom.hear("SET_SMARTGRID_LEVEL3", afterSec(10));
    EXPECT_THAT(reportsUntil(afterSec(12)), ElementsAre(Writes(kLevelKey, 4)));
    EXPECT_EQ(refrigerator.level(), 3);
    micom.setFaults({});
    micom.hear("SET_SMARTGRID_LEVEL3", afterSec(12)); // the same again: now told rightly
    EXPECT_THAT(reportsUntil(afterSec(14)), ElementsAre(Writes(kLevelKey, 3)));
}

TEST_F(MicomTest, RestartForgetsOrdersAndReportsSoAfterThreeSeconds) {
    micom.hear("SET_SMARTGRID_LEVEL3", kBegin);
    micom.hear("SET_SMARTGRID_OVERRIDE_FOREVER", kBegin);
    micom.hear("SET_SMARTGRID_ENABLE", kBegin);
    ASSERT_THAT(reportsUntil(afterSec(50)), testing::SizeIs(2));
    micom.hear("SET_SMARTGRID_LEVEL1", afterSec(50));
    micom.restart(afterSec(50));
    EXPECT_FALSE(micom.alive());
    EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL2", afterSec(51)), Heard::Deaf);
    EXPECT_THAT(micom.advance(afterSec(52.9)), IsEmpty());
    EXPECT_THAT(micom.advance(afterSec(53)),
                ElementsAre(Writes(kLevelKey, 0), Writes(kOverrideKey, 0)));
    EXPECT_TRUE(micom.alive());
    EXPECT_FALSE(refrigerator.memory().defrostHold);
    EXPECT_EQ(micom.hear("SET_SMARTGRID_LEVEL2", afterSec(53)), Heard::Accepted);
}

TEST_F(MicomTest, RestartLosesTheUnpublishedEnergy) {
    static_cast<void>(micom.advance(afterSec(60)));
    micom.restart(afterSec(100));
    const double lostWh = refrigerator.micomEnergyWh();
    const auto counts = publications(micom.advance(afterSec(120)));
    ASSERT_EQ(counts.size(), 1U);
    EXPECT_NEAR(static_cast<double>(counts[0]) / 100, refrigerator.micomEnergyWh() - lostWh, 0.02);
}

TEST_F(MicomTest, RestartAtTheTimeOfAPublicationLeavesTheTimeInOrder) {
    micom.restart(afterSec(59));
    const auto writes = micom.advance(afterSec(65));
    EXPECT_EQ(publications(writes).size(), 1U);
    EXPECT_EQ(refrigerator.at(), afterSec(60));
}

} // namespace
} // namespace corvane::appliance
