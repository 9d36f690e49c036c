/*
 * EnergyReport: sampling of the display board, the hourly rows, and the metering cycle with its
 * post and its bookkeeping. In this order: start and stop, sampling, hours, months, keys, the
 * hour's row, the cycle, the store, what the mutex guards.
 *
 * Most tests make a controller of their own. Its deferred tasks run on the manager, which comes
 * into being with the first of them, so times are exact to that thread's pause of 50 ms.
 * Every test also holds that all but the worker's two lines have debug priority, see TearDown().
 */
#include "service_fixture.h"

#include "EnergyReport.h"

#include <climits>

#include <dlog.h>
#include <gmock/gmock.h>

namespace {

using namespace fakes;
using Corvane::EnergyReport;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::string kFile = "usage.db";
const std::string kWatt = "memory/refrigerator/SmartGridWatt";
const std::string kUrl = "http://127.0.0.1:7777/external/metering?cumulativepower=";

class ReportTest : public ServiceTest {
protected:
    using ServiceTest::ServiceTest;

    void TearDown() override {
        report.reset();
        for (const log::Line &line : log::lines()) {
            const bool isOfTheWorkersLife = line.message.ends_with(" EnergyReport Thread!!");
            EXPECT_EQ(line.priority, isOfTheWorkersLife ? DLOG_INFO : DLOG_DEBUG) << line.message;
        }
        ServiceTest::TearDown();
    }

    void makeReport(const std::string &utc = "") {
        if (!utc.empty()) {
            virtualtime::setClock(utc);
        }
        report = std::make_unique<EnergyReport>();
    }

    // The same, with the tasks of its first pass done and everything recorded forgotten.
    void makeSettledReport(const std::string &utc = "") {
        makeReport(utc);
        advance(3);
        clearRecords();
    }

    // Reads the display board once: value is what this one pass gets, later ones get nothing.
    static void sampleOnce(int value) {
        power::set(value);
        advance(1);
        power::set(0);
    }

    static void setWatts(int watt1, int watt2, int watt3, int watt4) {
        const int watts[] = {watt1, watt2, watt3, watt4};
        for (int i = 0; i < 4; ++i) {
            settings::set(kWatt + std::to_string(i + 1), watts[i]);
        }
    }

    static void setMicomEnergy(int value) {
        setWatts(value >> 24, value >> 16 & 255, value >> 8 & 255, value & 255);
    }

    // One metering cycle with this figure of the Micom.
    void runCycle(int micomEnergy) {
        setMicomEnergy(micomEnergy);
        report->_checkEnergy();
    }

    // "2026050110 41" for each stored hour with its counter.
    static std::vector<std::string> hours() {
        std::vector<std::string> result;
        for (const std::vector<std::string> &row :
             storage::query(kFile, "SELECT * FROM power_usage_table ORDER BY date")) {
            result.push_back(row[0] + " " + row[1]);
        }
        return result;
    }

    static void storeHours(const std::vector<std::pair<std::string, int>> &rows) {
        storage::execute(kFile, "DELETE FROM power_usage_table");
        for (const auto &[key, counter] : rows) {
            storage::execute(kFile, "INSERT INTO power_usage_table VALUES(" + key + ", " +
                                        std::to_string(counter) + ", 0)");
        }
    }

    static int countOfPrefix(const std::string &prefix) {
        int count = 0;
        for (const std::string &message : log::messages()) {
            count += message.starts_with(prefix) ? 1 : 0;
        }
        return count;
    }

    std::unique_ptr<EnergyReport> report;
};

tm fields(const std::string &utc) {
    const std::time_t seconds = virtualtime::parseUtc(utc) / 1'000'000'000;
    tm result{};
    gmtime_r(&seconds, &result);
    return result;
}

// ---- Start and stop ----

TEST_F(ReportTest, StartCreatesTheTableThenWatchesTheMicomThenTakesQueriesThenRuns) {
    makeReport();
    virtualtime::settle();
    const std::vector<std::string> trace = texts({Kind::Sql, Kind::Watch, Kind::Proxy, Kind::Log});
    ASSERT_GE(trace.size(), 5U);
    EXPECT_TRUE(trace[0].starts_with("CREATE TABLE IF NOT EXISTS power_usage_table("));
    EXPECT_EQ(trace[1], "Table created successfully");
    EXPECT_EQ(trace[2], kWatt + "4");
    EXPECT_EQ(trace[3], "KestRegisterGetEnergyConsumptionFunc");
    EXPECT_EQ(trace[4], "start EnergyReport Thread!!");
}

TEST_F(ReportTest, StartOpensTheFileOnceAndClosesIt) {
    makeReport();
    std::vector<std::string> functions;
    for (const storage::Call &call : storage::calls()) {
        functions.push_back(call.function);
    }
    EXPECT_THAT(functions, ElementsAre("open", "exec", "close"));
}

TEST_F(ReportTest, EachControllerWatchesForItself) {
    makeReport();
    EXPECT_EQ(settings::registrations(kWatt + "4"), 1);
    const EnergyReport other;
    EXPECT_EQ(settings::registrations(kWatt + "4"), 2);
    for (const char *number : {"1", "2", "3"}) {
        EXPECT_EQ(settings::registrations(kWatt + number), 0);
    }
}

TEST_F(ReportTest, InitializationMayBeRepeated) {
    makeReport();
    report->_initialize();
    EXPECT_EQ(settings::registrations(kWatt + "4"), 1);
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(ReportTest, WorkerLogsItsStartAndItsStopOnceAsInformation) {
    makeReport();
    advance(10.5);
    report.reset();
    for (const char *message : {"start EnergyReport Thread!!", "stop EnergyReport Thread!!"}) {
        EXPECT_EQ(log::count(message), 1) << message;
        EXPECT_EQ(log::find(message).file, "EnergyReport.cpp");
    }
}

TEST_F(ReportTest, WorkerStopsAtItsNextPass) {
    makeReport();
    advance(10.3);
    report->_finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), 11'000);
    EXPECT_TRUE(log::has("stop EnergyReport Thread!!"));
    EXPECT_EQ(power::readings(), 11);
}

TEST_F(ReportTest, FinalizationMayBeRepeated) {
    makeReport();
    report->_finalize();
    report->_finalize();
    EXPECT_EQ(log::count("stop EnergyReport Thread!!"), 1);
}

TEST_F(ReportTest, NothingIsCarriedOverARestart) {
    makeSettledReport();
    sampleOnce(100);
    report->setKestEnergy(9999);
    makeReport();
    EXPECT_EQ(report->getKestEnergy(), 0);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] Remain LCD energy RAW: 0"));
}

TEST_F(ReportTest, TaskOfADeletedControllerDoesNothing) {
    startLoop();
    makeSettledReport();
    publishEnergy(0, 0, 0, 1);
    report.reset();
    advance(3);
    EXPECT_TRUE(log::has("REPORT] callback Energy from Micom"));
    EXPECT_THAT(metering::posts(), IsEmpty());
    publishEnergy(0, 0, 0, 2);
    EXPECT_EQ(log::count("REPORT] callback Energy from Micom"), 1);
}

// ---- Sampling ----

TEST_F(ReportTest, DisplayBoardIsReadOnceASecond) {
    makeReport();
    advance(10);
    EXPECT_EQ(power::readings(), 11); // the first at once
}

TEST_F(ReportTest, ReadingsAddUp) {
    makeSettledReport();
    power::set(30);
    advance(100);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 3000"));
}

TEST_F(ReportTest, ReadingsOfZeroOrLessAreIgnored) {
    makeSettledReport();
    sampleOnce(40);
    sampleOnce(0);
    sampleOnce(-7);
    sampleOnce(INT_MIN);
    sampleOnce(2);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 42"));
}

TEST_F(ReportTest, SumOfFourMillionStillTakesTheNextReading) {
    makeSettledReport();
    sampleOnce(4'000'000);
    sampleOnce(5);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 4000005"));
    EXPECT_EQ(countOfPrefix("REPORT] OVER LCD MAX ENERGY"), 0);
}

TEST_F(ReportTest, SumAboveFourMillionIsReplacedByTheNextReading) {
    makeSettledReport();
    sampleOnce(4'000'001);
    sampleOnce(0);
    EXPECT_EQ(countOfPrefix("REPORT] OVER LCD MAX ENERGY"), 0);
    sampleOnce(5);
    EXPECT_TRUE(log::has("REPORT] OVER LCD MAX ENERGY : 4000001"));
    sampleOnce(6);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 11"));
    EXPECT_EQ(countOfPrefix("REPORT] OVER LCD MAX ENERGY"), 1);
}

TEST_F(ReportTest, ReadingBeyondAllBoundsDoesNoHarm) {
    makeSettledReport();
    sampleOnce(4'000'000);
    sampleOnce(INT_MAX);
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] SUM LCD and Micom energy : 0"));
}

// ---- A new hour ----

TEST_F(ReportTest, FirstPassOpensTheHourASecondLater) {
    makeReport("2026-05-01T10:20:30");
    advance(0.9);
    EXPECT_THAT(hours(), IsEmpty());
    advance(0.3);
    EXPECT_THAT(hours(), ElementsAre("2026050110 0"));
    EXPECT_TRUE(log::has("REPORT] insert date : 2026050110"));
}

TEST_F(ReportTest, EveryHourIsOpenedOnceWithTheCounterSoFar) {
    makeSettledReport("2026-05-01T10:59:00");
    storeHours({{"2026050110", 41}});
    advance(3 * 3600);
    EXPECT_THAT(hours(),
                ElementsAre("2026050110 41", "2026050111 41", "2026050112 41", "2026050113 41"));
    EXPECT_EQ(countOfPrefix("REPORT] insert date : "), 3);
    EXPECT_EQ(log::count("REPORT] data exist"), 0);
}

TEST_F(ReportTest, HourThatIsStoredAlreadyIsKept) {
    makeReport("2026-05-01T10:20:30");
    report.reset();
    storeHours({{"2026050110", 41}});
    makeReport();
    advance(3);
    EXPECT_TRUE(log::has("REPORT] data exist"));
    EXPECT_THAT(hours(), ElementsAre("2026050110 41"));
}

TEST_F(ReportTest, ClockSetBackOpensTheEarlierHourWithTheCounterAndDropsTheLaterOnes) {
    makeSettledReport("2026-05-01T10:30:00");
    storeHours({{"2026050107", 30}, {"2026050110", 41}});
    virtualtime::setClock("2026-05-01T08:30:00");
    advance(3);
    EXPECT_THAT(hours(), ElementsAre("2026050107 30", "2026050108 41"));
}

TEST_F(ReportTest, ClockSetBackToAStoredHourKeepsTheLaterOnes) {
    makeSettledReport("2026-05-01T10:30:00");
    storeHours({{"2026050108", 30}, {"2026050110", 41}});
    virtualtime::setClock("2026-05-01T08:30:00");
    advance(3);
    EXPECT_THAT(hours(), ElementsAre("2026050108 30", "2026050110 41"));
}

TEST_F(ReportTest, SameHourOfAnotherDayIsNoNewHour) {
    makeSettledReport("2026-05-01T10:30:00");
    virtualtime::setClock("2026-05-02T10:30:00");
    advance(3);
    EXPECT_THAT(storage::statements(), IsEmpty());
}

struct Change {
    std::string name;
    std::string utc; // two seconds before the hour changes
    std::string before;
    std::string after;
};

const Change kChanges[] = {
    {"YearEnd", "2026-12-31T23:59:58", "2026123123", "2027010100"},
    {"LeapDayBegins", "2028-02-28T23:59:58", "2028022823", "2028022900"},
    {"LeapDayEnds", "2028-02-29T23:59:58", "2028022923", "2028030100"},
    {"BerlinSummerTimeBegins", "2026-03-29T00:59:58", "2026032900", "2026032901"},
    {"BerlinSummerTimeEnds", "2026-10-25T00:59:58", "2026102500", "2026102501"},
    {"NewYorkSummerTimeBegins", "2026-03-08T06:59:58", "2026030806", "2026030807"},
    {"NewYorkSummerTimeEnds", "2026-11-01T05:59:58", "2026110105", "2026110106"},
    {"SeoulMidnight", "2026-04-30T14:59:58", "2026043014", "2026043015"},
};

class HourChangeTest : public ReportTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(HourChangeTest, HoursAreUtcHours) {
    setZone(GetParam());
    for (const Change &change : kChanges) {
        makeReport(change.utc);
        storeHours({});
        advance(5);
        EXPECT_THAT(hours(), ElementsAre(change.before + " 0", change.after + " 0")) << change.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, HourChangeTest,
                         ::testing::Values("UTC", "Asia/Seoul", "Europe/Berlin",
                                           "America/New_York"));

// ---- A new month ----

TEST_F(ReportTest, FirstPassDropsWhatIsOlderThanSixMonths) {
    makeReport("2026-05-15T10:20:30");
    report.reset();
    storeHours({{"2025103123", 1}, {"2025110100", 2}, {"2026051510", 3}});
    makeReport();
    virtualtime::settle();
    EXPECT_TRUE(log::has("REPORT] delete date : 2025110000"));
    advance(0.9);
    EXPECT_EQ(hours().size(), 3U); // the task has a second to sleep, and that of the hour before it
    advance(3);
    EXPECT_THAT(hours(), ElementsAre("2025110100 2", "2026051510 3"));
    EXPECT_EQ(storage::attempts("DELETE from power_usage_table WHERE date < '2025110000';"), 1);
}

TEST_F(ReportTest, FirstPassQueuesTheHourBeforeTheMonth) {
    makeReport("2026-05-01T10:20:30");
    advance(3);
    std::vector<std::string> writes;
    for (const Entry &entry : trace({Kind::Sql})) {
        if (entry.text.starts_with("INSERT") || entry.text.starts_with("DELETE")) {
            writes.push_back(entry.text.substr(entry.text.find("2")));
        }
    }
    EXPECT_THAT(writes, ElementsAre("2026050110', '0', '0');", "2026050110';", "2025110000';"));
}

TEST_F(ReportTest, MonthThatBeginsWhileRunningDropsOnceMore) {
    makeSettledReport("2026-05-31T23:59:00");
    storeHours({{"2025113023", 1}, {"2025120100", 2}, {"2026053123", 3}});
    advanceTo("2026-06-01T02:00:00");
    EXPECT_EQ(countOfPrefix("REPORT] delete date : "), 1);
    EXPECT_TRUE(log::has("REPORT] delete date : 2025120000"));
    EXPECT_THAT(hours(),
                ElementsAre("2025120100 2", "2026053123 3", "2026060100 3", "2026060101 3"));
}

TEST_F(ReportTest, DisplayIsSampledBeforeTheMonthIsLookedAt) {
    makeSettledReport("2026-05-31T23:59:50");
    sampleOnce(4'000'001);
    advanceTo("2026-05-31T23:59:59.5");
    clearRecords();
    power::set(5);
    advance(1);
    EXPECT_THAT(texts({Kind::Log}), ElementsAre("REPORT] OVER LCD MAX ENERGY : 4000001",
                                                "REPORT] delete date : 2025120000"));
}

TEST_F(ReportTest, SameMonthOfAnotherYearIsNoNewMonth) {
    makeSettledReport("2026-05-31T10:00:00");
    virtualtime::setClock("2027-05-31T10:00:00");
    advance(3);
    EXPECT_EQ(countOfPrefix("REPORT] delete date : "), 0);
}

TEST_F(ReportTest, HistoryBeginsWithTheMonthSixBefore) {
    const struct {
        std::string utc;
        std::string start;
    } cases[] = {
        {"2026-01-01T00:00:00", "2025070000"}, {"2026-03-15T08:00:00", "2025090000"},
        {"2026-06-30T23:59:59", "2025120000"}, {"2026-07-01T00:00:00", "2026010000"},
        {"2026-08-31T12:00:00", "2026020000"}, {"2026-12-31T23:59:59", "2026060000"},
        {"2028-02-29T12:00:00", "2027080000"},
    };
    for (const auto &example : cases) {
        makeReport(example.utc);
        virtualtime::settle();
        EXPECT_TRUE(log::has("REPORT] delete date : " + example.start)) << example.utc;
    }
}

TEST_F(ReportTest, MonthsAreUtcMonths) {
    for (const char *zone : {"UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"}) {
        setZone(zone);
        for (const auto &[utc, start] : {std::pair{"2026-04-30T23:59:59", "2025100000"},
                                         {"2026-05-01T00:00:00", "2025110000"}}) {
            clearRecords();
            makeReport(utc);
            virtualtime::settle();
            EXPECT_TRUE(log::has("REPORT] delete date : " + std::string(start))) << zone << utc;
        }
    }
}

// ---- Keys ----

TEST_F(ReportTest, KeyIsShiftedByWholeMonthsAndKeepsItsDay) {
    makeReport();
    const struct {
        std::string utc;
        int months;
        std::string key;
    } cases[] = {
        {"2026-05-01T00:00:00", 0, "2026050100"},   {"2026-10-11T12:00:00", 0, "2026101112"},
        {"2026-09-09T09:59:59", 0, "2026090909"},   {"2026-03-15T08:00:00", 6, "2025091508"},
        {"2026-06-15T08:00:00", 6, "2025121508"},   {"2026-07-15T08:00:00", 6, "2026011508"},
        {"2026-08-31T08:00:00", 6, "2026023108"},   {"2026-01-31T08:00:00", 1, "2025123108"},
        {"2026-03-31T08:00:00", 1, "2026023108"},   {"2028-02-29T08:00:00", 1, "2028012908"},
        {"2026-11-30T08:00:00", -1, "2026123008"},  {"2026-12-31T23:00:00", -1, "2027013123"},
        {"2026-01-31T08:00:00", -1, "2026023108"},  {"2026-05-01T10:00:00", 12, "2025050110"},
        {"2026-05-01T10:00:00", 17, "2024120110"},  {"2026-05-01T10:00:00", 24, "2024050110"},
        {"2026-05-01T10:00:00", -12, "2027050110"}, {"2026-05-01T10:00:00", -20, "2028010110"},
    };
    for (const auto &example : cases) {
        EXPECT_EQ(report->_getDateByTm(fields(example.utc), example.months), example.key)
            << example.utc << " " << example.months;
    }
}

TEST_F(ReportTest, YearOfAKeyIsNotPadded) {
    makeReport();
    tm time = fields("2026-05-01T10:00:00");
    time.tm_year = 987 - 1900;
    EXPECT_EQ(report->_getDateByTm(time, 0), "987050110");
}

// ---- The hour's row ----

TEST_F(ReportTest, CheckWithoutAKeyDoesNotEvenOpenTheFile) {
    makeSettledReport();
    report->checkRecord("");
    EXPECT_THAT(storage::calls(), IsEmpty());
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(ReportTest, CheckOfAMissingHourInsertsItAndDropsLaterOnes) {
    makeSettledReport();
    storeHours({{"2026050108", 30}, {"2026050110", 41}});
    report->checkRecord("2026050109");
    EXPECT_THAT(storage::statements(kFile),
                ElementsAre("SELECT * FROM power_usage_table WHERE date = '2026050109'",
                            "SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1",
                            "INSERT INTO power_usage_table (date, power_usage, running_time) "
                            "values('2026050109', '41', '0');",
                            "DELETE from power_usage_table WHERE date > '2026050109';"));
    EXPECT_THAT(log::messages(),
                ElementsAre("REPORT] insert date : 2026050109", "Records created successfully"));
    EXPECT_THAT(hours(), ElementsAre("2026050108 30", "2026050109 41"));
}

TEST_F(ReportTest, CheckOfAStoredHourChangesNothing) {
    makeSettledReport();
    storeHours({{"2026050109", 30}, {"2026050110", 41}});
    report->checkRecord("2026050109");
    EXPECT_THAT(storage::statements(kFile),
                ElementsAre("SELECT * FROM power_usage_table WHERE date = '2026050109'"));
    EXPECT_THAT(log::messages(), ElementsAre("REPORT] data exist"));
    EXPECT_THAT(hours(), ElementsAre("2026050109 30", "2026050110 41"));
}

TEST_F(ReportTest, EveryUseOfTheTableOpensAndClosesTheFileOnce) {
    makeSettledReport();
    for (const char *key : {"2026050109", "2026050109"}) {
        clearRecords();
        report->checkRecord(key);
        EXPECT_EQ(storage::opens(kFile), 1);
        EXPECT_EQ(storage::openConnections(), 0);
    }
}

// ---- The cycle: when ----

TEST_F(ReportTest, MicomsFourthByteStartsACycleASecondLater) {
    startLoop();
    makeSettledReport();
    publishEnergy(0, 1, 2, 3);
    EXPECT_THAT(log::messages(), ElementsAre("REPORT] callback Energy from Micom"));
    advance(0.9);
    EXPECT_THAT(metering::posts(), IsEmpty());
    advance(0.2);
    EXPECT_EQ(metering::posts().size(), 1U);
    EXPECT_TRUE(log::has("REPORT] Micom energy Wh: 66051"));
}

TEST_F(ReportTest, OtherBytesStartNothing) {
    startLoop();
    makeSettledReport();
    for (const char *number : {"1", "2", "3"}) {
        writeAsMicom(kWatt + number, 7);
    }
    advance(5);
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(ReportTest, EveryWriteOfTheFourthByteHasACycleAlsoOfTheSameValue) {
    startLoop();
    makeSettledReport();
    for (int i = 0; i < 3; ++i) {
        writeAsMicom(kWatt + "4", 7);
    }
    EXPECT_EQ(log::count("REPORT] callback Energy from Micom"), 3);
    advance(3 * 1.05 + 0.1);
    const std::vector<metering::Post> posts = metering::posts();
    ASSERT_EQ(posts.size(), 3U);
    EXPECT_EQ(posts[1].utcNs - posts[0].utcNs, 1'050'000'000);
    EXPECT_EQ(posts[2].utcNs - posts[1].utcNs, 1'050'000'000);
}

TEST_F(ReportTest, CycleTakesWhatTheMicomHasWrittenInTheMeantime) {
    startLoop();
    makeSettledReport();
    publishEnergy(0, 0, 0, 1);
    advance(0.5);
    settings::set(kWatt + "3", 2);
    advance(1);
    EXPECT_TRUE(log::has("REPORT] Micom energy Wh: 513"));
}

// ---- The cycle: the Micom's figure ----

TEST_F(ReportTest, MicomsFigureIsMadeOfFourBytes) {
    makeSettledReport();
    const struct {
        int watts[4];
        int figure;
    } cases[] = {
        {{0, 1, 2, 3}, 66051},           {{0, 0, 0, 0}, 0},          {{1, 0, 0, 0}, 1 << 24},
        {{0, 300, 0, 0}, 44 << 16}, // only the lowest eight bits count
        {{0, 0, 300, 0}, 44 << 8},       {{0, 0, 0, 300}, 44},       {{0, -1, -1, -1}, 0xFFFFFF},
        {{127, 255, 255, 255}, INT_MAX}, {{128, 0, 0, 0}, INT_MIN},  {{255, 255, 255, 255}, -1},
        {{-1, 0, 0, 0}, -(1 << 24)},     {{300, 0, 0, 0}, 44 << 24},
    };
    for (const auto &[watts, figure] : cases) {
        clearRecords();
        setWatts(watts[0], watts[1], watts[2], watts[3]);
        report->_checkEnergy();
        std::string expected = "REPORT] ";
        for (int i = 0; i < 4; ++i) {
            expected += "vconf" + std::to_string(i + 1) + ": " + std::to_string(watts[i]) + ", ";
        }
        EXPECT_TRUE(log::has(expected + "final: " + std::to_string(figure))) << expected;
        EXPECT_TRUE(log::has("REPORT] Micom energy Wh: " + std::to_string(figure))) << expected;
    }
}

TEST_F(ReportTest, ByteThatCannotBeReadCountsAsZero) {
    makeSettledReport();
    setWatts(1, 2, 3, 4);
    const std::string lines[] = {
        "vconf1: 0, vconf2: 2, vconf3: 3, vconf4: 4, final: 131844",
        "vconf1: 1, vconf2: 0, vconf3: 3, vconf4: 4, final: 16777988",
        "vconf1: 1, vconf2: 2, vconf3: 0, vconf4: 4, final: 16908292",
        "vconf1: 1, vconf2: 2, vconf3: 3, vconf4: 0, final: 16909056",
    };
    for (int i = 0; i < 4; ++i) {
        settings::failReads(kWatt + std::to_string(i + 1), 1);
        report->_checkEnergy();
        EXPECT_TRUE(log::has("REPORT] " + lines[i])) << lines[i];
    }
}

TEST_F(ReportTest, MicomThatNeverWroteCountsAsZero) {
    makeSettledReport();
    report->_checkEnergy();
    EXPECT_TRUE(log::has("REPORT] Micom energy Wh: 0"));
}

// ---- The cycle: the display's share ----

TEST_F(ReportTest, DisplaysShareIsWhole3600thsAndTheRestStays) {
    makeSettledReport();
    sampleOnce(7300);
    runCycle(40);
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 7300"));
    EXPECT_TRUE(log::has("REPORT] LCD energy Convert Wh: 2"));
    EXPECT_TRUE(log::has("REPORT] Remain LCD energy RAW: 100"));
    EXPECT_TRUE(log::has("REPORT] SUM LCD and Micom energy : 42"));

    clearRecords();
    sampleOnce(3500);
    runCycle(40);
    EXPECT_TRUE(log::has("REPORT] LCD energy RAW: 3600"));
    EXPECT_TRUE(log::has("REPORT] LCD energy Convert Wh: 1"));
    EXPECT_TRUE(log::has("REPORT] Remain LCD energy RAW: 0"));
}

// ---- The cycle: the post ----

TEST_F(ReportTest, PostCarriesTheSumInHundredsWithTwoDecimals) {
    makeSettledReport();
    const std::pair<int, std::string> cases[] = {
        {0, "0.00"},
        {5, "0.05"},
        {99, "0.99"},
        {100, "1.00"},
        {101, "1.01"},
        {12345, "123.45"},
        {66051, "660.51"},
        {-1, "0.-1"},
        {-12345, "-123.-45"},
        {INT_MAX, "21474836.47"},
        {INT_MIN, "-21474836.-48"},
    };
    for (const auto &[sum, figure] : cases) {
        clearRecords();
        runCycle(sum);
        const std::string url = kUrl + figure + "&duration=60";
        ASSERT_EQ(metering::posts().size(), 1U);
        EXPECT_EQ(metering::posts()[0].url, url);
        EXPECT_TRUE(log::has("uri : " + url + "\n"));
    }
}

TEST_F(ReportTest, PostHasAMethodAndAUrlAndNothingElse) {
    makeSettledReport();
    runCycle(12345);
    ASSERT_EQ(metering::posts().size(), 1U);
    EXPECT_THAT(metering::posts()[0].options,
                ElementsAre("CUSTOMREQUEST=POST", "URL=" + kUrl + "123.45&duration=60"));
    EXPECT_EQ(metering::openHandles(), 0);
}

TEST_F(ReportTest, CycleGoesOnWithoutAHandleToPostWith) {
    makeSettledReport();
    metering::failCreation(1);
    runCycle(12345);
    EXPECT_THAT(metering::posts(), IsEmpty());
    EXPECT_TRUE(log::has("curl fail\n"));
    EXPECT_EQ(countOfPrefix("uri : "), 0);
    EXPECT_EQ(report->getKestEnergy(), 2345);
}

TEST_F(ReportTest, FailedPostIsNotRepeatedAndChangesNothing) {
    makeSettledReport();
    metering::failTransfers(1);
    runCycle(12345);
    advance(10);
    EXPECT_EQ(metering::posts().size(), 1U);
    EXPECT_EQ(metering::openHandles(), 0);
    EXPECT_EQ(report->getKestEnergy(), 2345);
    EXPECT_EQ(countOfPrefix("curl fail"), 0);
}

TEST_F(ReportTest, NothingIsLockedWhileThePostTakesItsTime) {
    makeSettledReport();
    metering::hangTransfers(30);
    std::thread cycle([this] { runCycle(12345); });
    advance(5);
    const std::int64_t before = virtualtime::elapsedMs();
    EXPECT_EQ(report->getKestEnergy(), 0);
    EXPECT_EQ(virtualtime::elapsedMs(), before);
    cycle.join();
    EXPECT_EQ(report->getKestEnergy(), 2345);
}

// ---- The cycle: its lines ----

TEST_F(ReportTest, CycleTellsItsStepsInOrder) {
    setZone("Asia/Seoul");
    makeSettledReport("2026-05-01T09:59:56");
    report->setKestEnergy(9990);
    sampleOnce(7300);
    clearRecords();
    runCycle(13);
    const std::vector<std::string> messages = {
        "REPORT] [UTC]currentTime : Fri May  1 10:00:00 2026\n",
        "REPORT] vconf1: 0, vconf2: 0, vconf3: 0, vconf4: 13, final: 13",
        "REPORT] Micom energy Wh: 13",
        "REPORT] LCD energy RAW: 7300",
        "REPORT] LCD energy Convert Wh: 2",
        "REPORT] Remain LCD energy RAW: 100",
        "REPORT] SUM LCD and Micom energy : 15",
        "uri : " + kUrl + "0.15&duration=60\n",
        "REPORT] remainWatt : 5",
        "REPORT] Watt : 100",
        "REPORT] saveValue : 1",
        "REPORT] remainData : 5",
    };
    EXPECT_THAT(log::messages(), ElementsAreArray(messages));
    for (const log::Line &line : log::lines()) {
        EXPECT_EQ(line.file, "EnergyReport.cpp") << line.message;
        const std::string printed = "[" + line.function + ":" + std::to_string(line.line) + "] ";
        EXPECT_NE(standardOutput().find(printed + line.message + "\n"), std::string::npos);
    }
}

TEST_F(ReportTest, CycleWithoutDisplayEnergyTellsTheRestOnly) {
    makeSettledReport();
    runCycle(13);
    EXPECT_EQ(countOfPrefix("REPORT] LCD energy"), 0);
    EXPECT_TRUE(log::has("REPORT] Remain LCD energy RAW: 0"));
}

TEST_F(ReportTest, PostComesBeforeTheBookkeeping) {
    makeSettledReport();
    runCycle(13);
    const std::vector<std::string> trace = texts({Kind::Post, Kind::Log});
    const auto post = std::find(trace.begin(), trace.end(), "POST " + kUrl + "0.13&duration=60");
    ASSERT_NE(post, trace.end());
    EXPECT_EQ(*(post - 1), "uri : " + kUrl + "0.13&duration=60\n");
    EXPECT_EQ(*(post + 1), "REPORT] remainWatt : 13");
}

// ---- The cycle: the carried remainder ----

TEST_F(ReportTest, RemainderIsCarriedAndWholeUnitsAreSaved) {
    makeSettledReport();
    const struct {
        int carried;
        int sum;
        int units;
        int rest;
    } cases[] = {
        {0, 0, 0, 0},      {0, 9999, 0, 9999},    {9999, 1, 1, 0},        {9990, 15, 1, 5},
        {0, 10000, 1, 0},  {5, 123456, 12, 3461}, {9999, 66051, 7, 6050}, {1, 16777216, 1677, 7217},
        {100, -50, 0, 50}, {0, -9999, 0, -9999},  {0, -25000, -2, -5000},
    };
    for (const auto &example : cases) {
        clearRecords();
        report->setKestEnergy(example.carried);
        runCycle(example.sum);
        EXPECT_EQ(report->getKestEnergy(), example.rest) << example.carried << " " << example.sum;
        const int total = example.carried + example.sum;
        EXPECT_TRUE(log::has("REPORT] remainWatt : " + std::to_string(total % 100)));
        EXPECT_TRUE(log::has("REPORT] Watt : " + std::to_string(total / 100)));
        EXPECT_TRUE(log::has("REPORT] saveValue : " + std::to_string(example.units)));
        EXPECT_TRUE(log::has("REPORT] remainData : " + std::to_string(example.rest)));
    }
}

TEST_F(ReportTest, TotalBeyondAllBoundsDoesNoHarm) {
    makeSettledReport();
    report->setKestEnergy(9999);
    runCycle(INT_MAX);
    EXPECT_TRUE(log::has("REPORT] SUM LCD and Micom energy : 2147483647"));
}

TEST_F(ReportTest, NoEnergyIsLostBetweenCycles) {
    makeSettledReport("2026-05-01T10:00:00");
    for (int i = 0; i < 100; ++i) {
        runCycle(777);
    }
    advance(30);
    EXPECT_THAT(hours(), ElementsAre("2026050110 7"));
    EXPECT_EQ(report->getKestEnergy(), 7700);
}

TEST_F(ReportTest, CycleWithoutAWholeUnitQueuesNothing) {
    makeSettledReport();
    for (const int sum : {9999, -25000}) {
        report->setKestEnergy(0);
        runCycle(sum);
    }
    advance(10);
    EXPECT_THAT(storage::calls(), IsEmpty());
}

// ---- The store ----

TEST_F(ReportTest, UnitsAreAddedToTheHourASecondAfterTheCycle) {
    makeSettledReport("2026-05-01T10:00:00");
    report->setKestEnergy(9990);
    runCycle(15);
    advance(0.9);
    EXPECT_THAT(hours(), ElementsAre("2026050110 0"));
    advance(0.2);
    EXPECT_THAT(hours(), ElementsAre("2026050110 1"));
}

TEST_F(ReportTest, StoreChecksTheHourThenAddsThenDropsLaterHours) {
    makeSettledReport("2026-05-01T10:00:00");
    runCycle(25000);
    clearRecords();
    advance(1.2);
    EXPECT_THAT(storage::statements(kFile),
                ElementsAre("SELECT * FROM power_usage_table WHERE date = '2026050110'",
                            "SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1",
                            "UPDATE power_usage_table SET power_usage = '2' WHERE date = "
                            "'2026050110';",
                            "DELETE from power_usage_table WHERE date > '2026050110';"));
    EXPECT_THAT(log::messages(), ElementsAre("REPORT] data exist", "Records updated successfully"));
    EXPECT_EQ(storage::opens(kFile), 2); // one for the check, one for the sum
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(ReportTest, StoreOpensTheHourWhenItIsMissing) {
    makeSettledReport("2026-05-01T10:00:00");
    storeHours({{"2026050108", 41}});
    runCycle(10000);
    advance(1.2);
    EXPECT_TRUE(log::has("REPORT] insert date : 2026050110"));
    EXPECT_THAT(hours(), ElementsAre("2026050108 41", "2026050110 42"));
}

TEST_F(ReportTest, StoreWrapsTheCounterPastOneMillion) {
    makeSettledReport("2026-05-01T10:00:00");
    storeHours({{"2026050110", 999'990}});
    runCycle(20 * 10000);
    advance(1.2);
    EXPECT_THAT(hours(), ElementsAre("2026050110 10"));
}

TEST_F(ReportTest, UnitsBelongToTheHourOfTheirCycle) {
    makeSettledReport("2026-05-01T10:59:56.4");
    runCycle(10000); // at 10:59:59.4
    advance(1.1);    // the task of the next hour waits behind the store's
    EXPECT_THAT(hours(), ElementsAre("2026050110 1"));
    advance(2);
    EXPECT_THAT(hours(), ElementsAre("2026050110 1", "2026050111 1"));
}

TEST_F(ReportTest, ClockSetBackBeforeACycleDropsTheHoursAheadOfIt) {
    makeSettledReport("2026-05-01T10:00:00");
    storeHours({{"2026050109", 40}, {"2026050110", 41}});
    virtualtime::setClock("2026-05-01T09:30:00");
    runCycle(10000);
    advance(3.5);
    EXPECT_THAT(hours(), ElementsAre("2026050109 42"));
}

TEST_F(ReportTest, WholeCycleFromTheMicomToTheStoredHour) {
    startLoop();
    makeSettledReport("2026-05-01T10:00:00");
    publishEnergy(0, 0, 117, 48); // 30000
    advance(2.3);
    EXPECT_THAT(hours(), ElementsAre("2026050110 3"));
    ASSERT_EQ(metering::posts().size(), 1U);
    EXPECT_EQ(metering::posts()[0].url, kUrl + "300.00&duration=60");
}

TEST_F(ReportTest, StoreThatFailsIsNotRepeated) {
    makeSettledReport("2026-05-01T10:00:00");
    storage::failStatements(storage::Trouble::Full);
    runCycle(10000);
    advance(5);
    EXPECT_TRUE(log::has("Can not updated record : 13"));
    storage::heal();
    clearRecords();
    advance(60);
    EXPECT_THAT(storage::calls(), IsEmpty());
    EXPECT_THAT(hours(), ElementsAre("2026050110 0"));
    EXPECT_EQ(report->getKestEnergy(), 0);
}

// ---- What the mutex guards ----

class ReportMutexTest : public ReportTest {
protected:
    // Runs first with the file held by another process for a second, and second 100 ms later;
    // answers how long that took, in milliseconds.
    template <class First, class Second>
    std::int64_t timeBehind(First first, Second second,
                            storage::Lock::Kind kind = storage::Lock::Kind::Exclusive) {
        auto lock = std::make_unique<storage::Lock>(kFile, kind);
        std::thread holder(first);
        std::int64_t duration = 0;
        std::thread waiter([&second, &duration] {
            virtualtime::sleepMs(100);
            const std::int64_t start = virtualtime::elapsedMs();
            second();
            duration = virtualtime::elapsedMs() - start;
        });
        advance(1);
        lock.reset();
        holder.join();
        waiter.join();
        return duration;
    }
};

TEST_F(ReportMutexTest, EveryOperationWaitsForAnHourThatIsBeingChecked) {
    makeSettledReport();
    const tm time = fields("2026-05-01T10:00:00");
    const std::function<void()> operations[] = {
        [this] { (void)report->getKestEnergy(); },
        [this] { report->setKestEnergy(7); },
        [this, &time] { (void)report->_getDateByTm(time, 0); },
        [this] { report->checkRecord("2026050109"); },
        [this] { (void)report->_diffValByDate("2026050100", "2026060100"); },
        [this] { report->_checkEnergy(); },
    };
    int index = 0;
    for (const std::function<void()> &operation : operations) {
        EXPECT_GE(timeBehind([this] { report->checkRecord("2026050109"); }, operation), 900)
            << index;
        ++index;
    }
}

TEST_F(ReportMutexTest, EveryUseOfTheTableHoldsTheMutex) {
    makeSettledReport("2026-05-01T10:00:00");
    const std::function<void()> uses[] = {
        [this] { report->_initialize(); },
        [this] { report->checkRecord("2026050110"); },
        [this] { (void)report->_diffValByDate("2026050100", "2026060100"); },
    };
    int index = 0;
    for (const std::function<void()> &use : uses) {
        EXPECT_GE(timeBehind(use, [this] { (void)report->getKestEnergy(); }), 900) << index;
        ++index;
    }
}

TEST_F(ReportMutexTest, DeferredStoreHoldsTheMutexWhileItChecksAndWhileItAdds) {
    makeSettledReport("2026-05-01T10:00:00");
    // Behind a reader the check goes through, only the sum has to wait.
    for (const auto kind : {storage::Lock::Kind::Exclusive, storage::Lock::Kind::Shared}) {
        runCycle(10000);
        advance(0.95); // the task wakes up in 50 to 100 ms
        const auto ask = [this] {
            virtualtime::sleepMs(50);
            (void)report->getKestEnergy();
        };
        EXPECT_GE(timeBehind([] {}, ask, kind), 800);
        advance(5);
    }
}

TEST_F(ReportMutexTest, CycleTakesTheDisplaysShareUnderTheMutex) {
    makeSettledReport();
    const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
    std::thread holder([this] { report->checkRecord("2026050109"); });
    advance(0.1);
    std::thread cycle([this] { runCycle(13); });
    advance(0.5);
    EXPECT_TRUE(log::has("REPORT] Micom energy Wh: 13"));
    EXPECT_FALSE(log::has("REPORT] Remain LCD energy RAW: 0"));
    holder.join();
    cycle.join();
    EXPECT_TRUE(log::has("REPORT] Remain LCD energy RAW: 0"));
}

TEST_F(ReportMutexTest, DeferredDeletionHoldsTheMutex) {
    makeReport("2026-05-01T10:00:00");
    advance(1.9); // the month's task wakes up in 100 to 200 ms
    EXPECT_GE(timeBehind([] {},
                         [this] {
                             virtualtime::sleepMs(200);
                             (void)report->getKestEnergy();
                         }),
              700);
}

TEST_F(ReportMutexTest, SamplingWaitsForTheMutexWithItsReading) {
    makeSettledReport();
    power::set(5);
    const int before = power::readings();
    std::thread holder;
    {
        const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
        holder = std::thread([this] { report->checkRecord("2026050109"); });
        advance(5);
    }
    EXPECT_EQ(power::readings(), before + 1);
    holder.join();
}

TEST_F(ReportMutexTest, DisplayIsReadBeforeTheHourIsLookedAt) {
    makeSettledReport("2026-05-01T10:59:56"); // passes on whole seconds
    advanceTo("2026-05-01T10:59:59.5");
    const int before = power::readings();
    std::thread holder;
    {
        const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
        holder = std::thread([this] { report->checkRecord("2026050109"); });
        advance(1); // the new hour's key waits for the mutex
    }
    EXPECT_EQ(power::readings(), before + 1);
    holder.join();
}

TEST_F(ReportMutexTest, WorkerItselfNeverWaitsForTheFile) {
    makeSettledReport("2026-05-01T10:59:50");
    const int before = power::readings();
    const storage::Lock lock(kFile, storage::Lock::Kind::Shared); // the tasks can read, not write
    advance(20);
    EXPECT_EQ(power::readings(), before + 20);
}

TEST_F(ReportMutexTest, CallbackOfTheMicomWaitsForNothing) {
    startLoop();
    makeSettledReport();
    const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
    std::thread holder([this] { report->checkRecord("2026050109"); });
    advance(0.1);
    publishEnergy(0, 0, 0, 1);
    EXPECT_TRUE(log::has("REPORT] callback Energy from Micom"));
    holder.join();
}

} // namespace
