/*
 * The consumption query: its months, its two figures, and what it says about them. Queries come
 * through the proxy, to the controller that the manager has launched; the stored hours are put
 * beside it, and the clock is set just before the query, so that the worker does not get to react.
 */
#include "service_fixture.h"

#include "EnergyReport.h"

#include <dlog.h>
#include <gmock/gmock.h>

namespace {

using namespace fakes;
using Corvane::EnergyManager;
using Corvane::EnergyReport;
using ::testing::ElementsAre;

const std::string kFile = "usage.db";
const std::string kSeparator(47, '/');

struct Hour {
    std::string key;
    std::string counter;
};

void storeHours(const std::vector<Hour> &hours) {
    storage::execute(kFile, "DELETE FROM power_usage_table");
    for (const Hour &hour : hours) {
        storage::execute(kFile, "INSERT INTO power_usage_table VALUES('" + hour.key + "', '" +
                                    hour.counter + "', 0)");
    }
}

// ---- The growth over a range ----

class GrowthTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        report = std::make_unique<EnergyReport>();
        advance(3); // the tasks of its first pass are done
        clearRecords();
    }

    void TearDown() override {
        report.reset();
        ServiceTest::TearDown();
    }

    int growthOfMay() { return report->_diffValByDate("2026050100", "2026060100"); }

    std::unique_ptr<EnergyReport> report;
};

TEST_F(GrowthTest, GrowthIsTheLastStoredHourLessTheFirst) {
    storeHours({{"2026050110", "1500"}, {"2026050111", "1600"}, {"2026052008", "1720"}});
    EXPECT_EQ(growthOfMay(), 220);
    EXPECT_THAT(log::messages(), ElementsAre("start date : 2026050110, power : 1500",
                                             "end date : 2026052008, power : 1720"));
    EXPECT_THAT(storage::statements(kFile),
                ElementsAre("SELECT * FROM power_usage_table WHERE date >= 2026050100 AND date < "
                            "2026060100 ORDER BY date ASC LIMIT 1",
                            "SELECT * FROM power_usage_table WHERE date >= 2026050100 AND date < "
                            "2026060100 ORDER BY date DESC LIMIT 1"));
}

TEST_F(GrowthTest, RangeIncludesItsStartAndExcludesItsEnd) {
    storeHours(
        {{"2026043023", "1"}, {"2026050100", "10"}, {"2026053123", "30"}, {"2026060100", "99"}});
    EXPECT_EQ(growthOfMay(), 20);
}

TEST_F(GrowthTest, SingleHourHasNotGrown) {
    storeHours({{"2026050110", "1500"}});
    EXPECT_EQ(growthOfMay(), 0);
    EXPECT_THAT(log::messages(), ElementsAre("start date : 2026050110, power : 1500",
                                             "end date : 2026050110, power : 1500"));
}

TEST_F(GrowthTest, RangeWithoutHoursIsZeroAndAsksOnce) {
    storeHours({{"2026043023", "1500"}, {"2026060100", "1600"}});
    EXPECT_EQ(growthOfMay(), 0);
    EXPECT_THAT(log::messages(), ElementsAre("previous power empty"));
    EXPECT_EQ(storage::statements(kFile).size(), 1U);
}

TEST_F(GrowthTest, QueryThatFailsReadsAsNoHours) {
    storeHours({{"2026050110", "1500"}, {"2026050111", "1600"}});
    storage::failStatements(storage::Trouble::IoError, 10);
    EXPECT_EQ(growthOfMay(), 0);
    EXPECT_EQ(log::messages().back(), "previous power empty");
}

TEST_F(GrowthTest, QueryForTheLastHourThatFailsReadsAsNoGrowth) {
    storeHours({{"2026050110", "1500"}, {"2026050111", "1600"}});
    observe([](const Entry &entry) {
        if (entry.text.find(" DESC ") != std::string::npos) {
            storage::failFileOperation(1);
        }
    });
    EXPECT_EQ(growthOfMay(), 0);
    observe(nullptr);
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(GrowthTest, WrapOfTheCounterGivesANegativeGrowth) {
    storeHours({{"2026050110", "999950"}, {"2026050111", "30"}});
    EXPECT_EQ(growthOfMay(), -999920);
}

TEST_F(GrowthTest, CounterThatIsNoNumberThrowsAndLeavesNothingLocked) {
    storeHours({{"2026050110", "x"}, {"2026050111", "30"}});
    EXPECT_THROW(growthOfMay(), std::invalid_argument);
    storeHours({{"2026050110", "30"}, {"2026050111", "1e10"}}); // stored as an integer of 64 bits
    EXPECT_EQ(growthOfMay(), 1410065408 - 30);                  // its lower 32
    storeHours({{"2026050110", "30"}, {"2026050111", "1e19"}}); // stored as a real
    EXPECT_THROW(growthOfMay(), std::out_of_range);
    EXPECT_EQ(report->getKestEnergy(), 0);
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(GrowthTest, FileIsOpenedOnceAndClosed) {
    storeHours({{"2026050110", "1500"}, {"2026050111", "1600"}});
    growthOfMay();
    EXPECT_EQ(storage::opens(kFile), 1);
    EXPECT_EQ(storage::openConnections(), 0);
    storeHours({});
    growthOfMay();
    EXPECT_EQ(storage::opens(kFile), 2);
    EXPECT_EQ(storage::openConnections(), 0);
}

// ---- The query ----

class ConsumptionTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        EnergyManager::LaunchApp();
        advance(6); // launched, and the tasks of their first passes are done
        ASSERT_NE(EnergyManager::GetEnergyReport(), nullptr);
        storeHours({});
    }

    // The answer to a query at that moment; forgets all records before it.
    static proxy::Consumption ask(const std::string &utc = "2026-05-20T12:00:00") {
        clearRecords();
        virtualtime::setClock(utc);
        return proxy::getEnergyConsumption();
    }

    static void carry(int remainder) { EnergyManager::GetEnergyReport()->setKestEnergy(remainder); }
};

TEST_F(ConsumptionTest, FiguresAreThisMonthSoFarAndTheWholePreviousMonth) {
    storeHours({{"2026040100", "900"},
                {"2026043023", "1000"},
                {"2026050100", "1500"},
                {"2026052011", "1720"}});
    carry(4567);
    const proxy::Consumption consumption = ask();
    EXPECT_EQ(consumption.answer, 1);
    EXPECT_EQ(consumption.cumulative, "220.45");
    EXPECT_EQ(consumption.monthly, "100.00");
}

TEST_F(ConsumptionTest, MonthsWithoutStoredHoursAreZeroButForTheRemainder) {
    carry(4567);
    const proxy::Consumption consumption = ask();
    EXPECT_EQ(consumption.answer, 1);
    EXPECT_EQ(consumption.cumulative, "0.45");
    EXPECT_EQ(consumption.monthly, "0.00");
    EXPECT_EQ(log::count("previous power empty"), 2);
}

TEST_F(ConsumptionTest, MonthsWithASingleHourAreZeroButForTheRemainder) {
    storeHours({{"2026043023", "1000"}, {"2026052011", "1720"}});
    carry(99);
    EXPECT_EQ(ask().cumulative, "0.00");
    EXPECT_EQ(ask().monthly, "0.00");
}

TEST_F(ConsumptionTest, WrapOfTheCounterGivesNegativeFigures) {
    storeHours({{"2026040100", "999950"},
                {"2026043023", "30"},
                {"2026050100", "1000000"},
                {"2026052011", "7"}});
    carry(4567);
    EXPECT_EQ(ask().monthly, "-999920.00");
    EXPECT_EQ(ask().cumulative, "-999993.45");
}

TEST_F(ConsumptionTest, HundredthsAreTheRemaindersWholeHundreds) {
    const std::pair<int, std::string> cases[] = {
        {0, "0.00"},    {99, "0.00"},   {100, "0.01"},  {999, "0.09"},
        {1000, "0.10"}, {4567, "0.45"}, {9999, "0.99"},
    };
    for (const auto &[remainder, cumulative] : cases) {
        carry(remainder);
        EXPECT_EQ(ask().cumulative, cumulative) << remainder;
        EXPECT_EQ(ask().monthly, "0.00") << remainder;
    }
}

TEST_F(ConsumptionTest, QueryTellsItsStepsInOrder) {
    storeHours({{"2026040105", "900"},
                {"2026043023", "1000"},
                {"2026050102", "1500"},
                {"2026052011", "1720"}});
    carry(4567);
    ask("2026-05-20T12:34:56");
    EXPECT_THAT(
        log::messages(),
        ElementsAre("KestRegisterGetEnergyConsumptionFunc", kSeparator, "current Date : 2026052012",
                    "previous Part  start : 2026040100, end : 2026050100",
                    "current Part  start : 2026050100, end : 2026060100",
                    "start date : 2026040105, power : 900", "end date : 2026043023, power : 1000",
                    "start date : 2026050102, power : 1500", "end date : 2026052011, power : 1720",
                    "_cumulative : 220.45, _monthly : 100.00", kSeparator));
    for (const log::Line &line : log::lines()) {
        EXPECT_EQ(line.priority, DLOG_DEBUG) << line.message;
        EXPECT_EQ(line.file, "EnergyReport.cpp") << line.message;
        const std::string printed = "[" + line.function + ":" + std::to_string(line.line) + "] ";
        EXPECT_NE(standardOutput().find(printed + line.message + "\n"), std::string::npos);
    }
}

TEST_F(ConsumptionTest, FailingFileReadsAsZeroAndIsNoRefusal) {
    storeHours({{"2026050100", "1500"}, {"2026052011", "1720"}});
    carry(4567);
    storage::failStatements(storage::Trouble::IoError);
    const proxy::Consumption consumption = ask();
    EXPECT_EQ(consumption.answer, 1);
    EXPECT_EQ(consumption.cumulative, "0.45");
    EXPECT_EQ(consumption.monthly, "0.00");
}

struct Query {
    std::string utc;
    std::string current;
    std::string previousMonth;
    std::string thisMonth;
    std::string nextMonth;
};

const Query kQueries[] = {
    {"2026-01-10T05:00:00", "2026011005", "2025120100", "2026010100", "2026020100"},
    {"2026-12-31T23:59:59", "2026123123", "2026110100", "2026120100", "2027010100"},
    {"2027-01-01T00:00:00", "2027010100", "2026120100", "2027010100", "2027020100"},
    {"2026-03-31T08:00:00", "2026033108", "2026020100", "2026030100", "2026040100"},
    {"2028-02-29T23:00:00", "2028022923", "2028010100", "2028020100", "2028030100"},
    {"2026-03-29T01:30:00", "2026032901", "2026020100", "2026030100", "2026040100"},
    {"2026-11-01T06:30:00", "2026110106", "2026100100", "2026110100", "2026120100"},
    {"2026-04-30T23:30:00", "2026043023", "2026030100", "2026040100", "2026050100"},
    {"2026-05-01T00:30:00", "2026050100", "2026040100", "2026050100", "2026060100"},
};

class MonthsTest : public ConsumptionTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(MonthsTest, MonthsAreUtcMonthsAroundTheQuery) {
    setZone(GetParam());
    for (const Query &query : kQueries) {
        ask(query.utc);
        EXPECT_TRUE(log::has("current Date : " + query.current)) << query.utc;
        EXPECT_TRUE(log::has("previous Part  start : " + query.previousMonth +
                             ", end : " + query.thisMonth))
            << query.utc;
        EXPECT_TRUE(
            log::has("current Part  start : " + query.thisMonth + ", end : " + query.nextMonth))
            << query.utc;
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, MonthsTest,
                         ::testing::Values("UTC", "Asia/Seoul", "Europe/Berlin",
                                           "America/New_York"));

TEST_F(ConsumptionTest, QueryWithoutAControllerIsRefusedAndLeavesTheAnswerAlone) {
    const KestGetEnergyConsumptionFunc handler = proxy::handlers().getEnergyConsumption;
    EnergyManager::FinalThread();
    char cumulative[512] = "untouched";
    char monthly[512] = "as well";
    EXPECT_EQ(handler(cumulative, monthly), 0);
    EXPECT_STREQ(cumulative, "untouched");
    EXPECT_STREQ(monthly, "as well");
}

// ---- Beside the other threads ----

TEST_F(ConsumptionTest, QueryBesideAMeteringCycleAnswersWithWhatIsStored) {
    storeHours({{"2026050100", "1500"}, {"2026052012", "1720"}});
    virtualtime::setClock("2026-05-20T12:00:00");
    settings::set("memory/refrigerator/SmartGridWatt2", 1); // 65536: six units
    EnergyManager::GetEnergyReport()->_checkEnergy();
    EXPECT_EQ(proxy::getEnergyConsumption().cumulative, "220.55"); // not in the table yet
    advance(1.2);
    EXPECT_EQ(proxy::getEnergyConsumption().cumulative, "226.55");
}

} // namespace
