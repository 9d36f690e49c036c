/*
 * PowerDB: the hourly energy counter in its own file.
 */
#include "virtual_test.h"

#include "EnergyDB.h"

#include <dlog.h>
#include <gmock/gmock.h>

namespace Corvane {

static bool operator==(const powerRecord &a, const powerRecord &b) {
    return a.date == b.date && a.power_usage == b.power_usage && a.running_time == b.running_time;
}

} // namespace Corvane

namespace {

using namespace fakes;
using Corvane::PowerDB;
using Corvane::powerRecord;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kFile = "usage.db";
const std::string kCreation =
    "CREATE TABLE IF NOT EXISTS power_usage_table(\t\t\t   date NUMERIC(12) NOT NULL, "
    "\t\t\t   power_usage NUMERIC(14) NOT NULL, \t\t\t   running_time NUMERIC(14) NOT NULL);";

int callsOf(const std::string &function) {
    int count = 0;
    for (const storage::Call &call : storage::calls()) {
        count += call.function == function ? 1 : 0;
    }
    return count;
}

// ---- Opening, creating, closing ----

class PowerFileTest : public VirtualTest {};

TEST_F(PowerFileTest, ConstructionOpensTheUsageFile) {
    const PowerDB store;
    const std::vector<storage::Call> calls = storage::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "open");
    EXPECT_EQ(calls[0].text, "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/usage.db");
}

TEST_F(PowerFileTest, OpenIsTriedTenTimesWithoutPauseAndAnswersTheLastCode) {
    sqlite3_hard_heap_limit64(1); // an open without memory leaves no handle behind
    PowerDB store;
    EXPECT_EQ(storage::opens(kFile), 10);
    EXPECT_EQ(store.open(), SQLITE_NOMEM);
    EXPECT_EQ(storage::opens(kFile), 20);
    sqlite3_hard_heap_limit64(0);
    EXPECT_EQ(store.open(), 0);
    EXPECT_EQ(storage::opens(kFile), 21);
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TEST_F(PowerFileTest, CreationRunsTheTablesTextAndAnswersZero) {
    PowerDB store;
    EXPECT_EQ(store.create(), 0);
    EXPECT_THAT(storage::statements(kFile), ElementsAre(kCreation));
    EXPECT_EQ(storage::query(kFile, "PRAGMA index_list(power_usage_table)"), storage::Rows());
    EXPECT_EQ(store.create(), 0);
}

TEST_F(PowerFileTest, CreationIsTriedTenTimesWithoutPauseAndAnswersTheLastCode) {
    storage::failStatements(storage::Trouble::Full);
    EXPECT_EQ(PowerDB().create(), SQLITE_FULL);
    EXPECT_EQ(storage::attempts(kCreation), 10 * 10); // ten attempts of ten statements each
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TEST_F(PowerFileTest, CreationStopsAtTheFirstSuccess) {
    storage::failStatements(storage::Trouble::Full, 99);
    EXPECT_EQ(PowerDB().create(), 0);
    EXPECT_EQ(storage::attempts(kCreation), 100);
}

TEST_F(PowerFileTest, CloseIsHarmlessWhenRepeatedAndLeavesNothingToTheDestructor) {
    {
        PowerDB store;
        EXPECT_EQ(store.close(), 0);
        EXPECT_EQ(store.close(), 0);
    }
    EXPECT_EQ(callsOf("close"), 1);
    { const PowerDB store; }
    EXPECT_EQ(callsOf("close"), 2);
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(PowerFileTest, CloseIsTriedTenTimesWithoutPauseAndAnswersTheLastCode) {
    PowerDB store;
    storage::failCloses(11);
    EXPECT_EQ(store.close(), SQLITE_BUSY);
    EXPECT_EQ(callsOf("close"), 10);
    EXPECT_EQ(store.close(), 0);
    EXPECT_EQ(callsOf("close"), 12);
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TEST_F(PowerFileTest, OperationsAfterAFailedOpenAreLoggedByTheLayerBelow) {
    PowerDB store;
    store.close();
    powerRecord record;
    EXPECT_EQ(store.create(), -1);
    store.deleteKeyLow("2026050110");
    EXPECT_EQ(log::count("Can not exec DB. DB is NULL"), 10 + 1);
    EXPECT_EQ(store.selectLastRecord(record), 0);
    EXPECT_EQ(record, powerRecord());
}

// ---- The hours ----

class PowerStoreTest : public VirtualTest {
protected:
    void SetUp() override {
        VirtualTest::SetUp();
        PowerDB().create();
        clearRecords();
    }

    struct Hour {
        std::string key;
        std::string counter;
        std::string runningTime = "0";
    };

    static void store(const std::vector<Hour> &hours) {
        for (const Hour &hour : hours) {
            storage::execute(kFile, "INSERT INTO power_usage_table VALUES('" + hour.key + "', '" +
                                        hour.counter + "', '" + hour.runningTime + "')");
        }
    }

    static storage::Rows stored() {
        return storage::query(kFile, "SELECT * FROM power_usage_table ORDER BY date");
    }

    static std::vector<std::string> storedKeys() {
        std::vector<std::string> keys;
        for (const std::vector<std::string> &row : stored()) {
            keys.push_back(row[0]);
        }
        return keys;
    }

    static powerRecord last() {
        powerRecord record;
        EXPECT_EQ(PowerDB().selectLastRecord(record), 0);
        return record;
    }

    static powerRecord inRange(const std::string &start, const std::string &end,
                               const std::string &order) {
        powerRecord record;
        EXPECT_EQ(PowerDB().selectAlignRecordByPart(record, start, end, order), 0);
        return record;
    }

    const powerRecord empty{};
};

TEST_F(PowerStoreTest, NewRecordIsEmpty) { EXPECT_EQ(empty, (powerRecord{"", "", ""})); }

// ---- Looking hours up ----

TEST_F(PowerStoreTest, HourIsLookedUpByItsQuotedKey) {
    store({{"2026050109", "7"}, {"2026050110", "8", "3"}, {"2026050111", "9"}});
    powerRecord record{"2026050110", "", ""};
    EXPECT_EQ(PowerDB().selectRecord(record), 0);
    EXPECT_EQ(record, (powerRecord{"2026050110", "8", "3"}));
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM power_usage_table WHERE date = '2026050110'"));
}

TEST_F(PowerStoreTest, LookUpWithoutAKeyAnswersOneAndTouchesNothing) {
    store({{"2026050110", "8"}});
    powerRecord record{"", "as", "before"};
    EXPECT_EQ(PowerDB().selectRecord(record), 1);
    EXPECT_EQ(record, (powerRecord{"", "as", "before"}));
    EXPECT_THAT(storage::statements(), IsEmpty());
}

TEST_F(PowerStoreTest, LookUpThatFindsNoRowOrSeveralLeavesTheRecordAsItWas) {
    store({{"2026050110", "8"}, {"2026050110", "9"}});
    for (const char *key : {"2026050110", "2026050111"}) {
        powerRecord record{key, "as", "before"};
        EXPECT_EQ(PowerDB().selectRecord(record), 0);
        EXPECT_EQ(record, (powerRecord{key, "as", "before"}));
    }
}

TEST_F(PowerStoreTest, LookUpThatFailsLeavesTheRecordAsItWas) {
    store({{"2026050110", "8"}});
    PowerDB table;
    storage::failStatements(storage::Trouble::IoError);
    powerRecord record{"2026050110", "as", "before"};
    table.selectRecord(record);
    table.selectLastRecord(record);
    table.selectAlignRecordByPart(record, "2026050100", "2026060100", "ASC");
    EXPECT_EQ(record, (powerRecord{"2026050110", "as", "before"}));
    EXPECT_EQ(log::count("Can not select Record : disk I/O error, Error Code : 10"), 3 * 10);
}

TEST_F(PowerStoreTest, NewestHourIsTheOneWithTheHighestKey) {
    store({{"2026050110", "8"}, {"2026123123", "90", "4"}, {"2025123123", "100"}});
    EXPECT_EQ(last(), (powerRecord{"2026123123", "90", "4"}));
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1"));
}

TEST_F(PowerStoreTest, NewestHourOfAnEmptyTableLeavesTheRecordAsItWas) {
    powerRecord record{"as", "it", "was"};
    EXPECT_EQ(PowerDB().selectLastRecord(record), 0);
    EXPECT_EQ(record, (powerRecord{"as", "it", "was"}));
}

TEST_F(PowerStoreTest, RangeGivesItsFirstAndItsLastHour) {
    store({{"2026043023", "1"},
           {"2026050105", "2"},
           {"2026050917", "3", "6"},
           {"2026053123", "4"},
           {"2026060100", "5"}});
    EXPECT_EQ(inRange("2026050100", "2026060100", "ASC"), (powerRecord{"2026050105", "2", "0"}));
    EXPECT_EQ(inRange("2026050100", "2026060100", "DESC"), (powerRecord{"2026053123", "4", "0"}));
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM power_usage_table WHERE date >= 2026050100 AND date < "
                            "2026060100 ORDER BY date ASC LIMIT 1",
                            "SELECT * FROM power_usage_table WHERE date >= 2026050100 AND date < "
                            "2026060100 ORDER BY date DESC LIMIT 1"));
}

TEST_F(PowerStoreTest, RangeIncludesItsStartAndExcludesItsEnd) {
    store({{"2025120100", "1"}, {"2026010100", "2"}});
    EXPECT_EQ(inRange("2025120100", "2026010100", "DESC").date, "2025120100");
    EXPECT_EQ(inRange("2026010100", "2026020100", "ASC").date, "2026010100");
}

TEST_F(PowerStoreTest, RangeWithoutHoursLeavesTheRecordAsItWas) {
    store({{"2026043023", "1"}, {"2026060100", "5"}});
    EXPECT_EQ(inRange("2026050100", "2026060100", "ASC"), empty);
    powerRecord record{"as", "it", "was"};
    EXPECT_EQ(PowerDB().selectAlignRecordByPart(record, "2026050100", "2026060100", "DESC"), 0);
    EXPECT_EQ(record, (powerRecord{"as", "it", "was"}));
}

TEST_F(PowerStoreTest, CheckTellsAnHourWithARowFromOneWithout) {
    store({{"2026050110", "0"}});
    EXPECT_EQ(PowerDB().checkDate("2026050110"), 0);
    EXPECT_EQ(PowerDB().checkDate("2026050111"), 1);
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM power_usage_table WHERE date = '2026050110'",
                            "SELECT * FROM power_usage_table WHERE date = '2026050111'"));
}

TEST_F(PowerStoreTest, CheckWithoutAKeyAnswersMinusOneAndSendsNoQuery) {
    EXPECT_EQ(PowerDB().checkDate(""), -1);
    EXPECT_THAT(storage::statements(), IsEmpty());
}

// ---- Opening an hour ----

TEST_F(PowerStoreTest, FirstHourStartsTheCounterAtZero) {
    PowerDB().insertRecord("2026050110");
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1",
                            "INSERT INTO power_usage_table (date, power_usage, running_time) "
                            "values('2026050110', '0', '0');"));
    EXPECT_THAT(stored(), ElementsAre(ElementsAre("2026050110", "0", "0")));
}

TEST_F(PowerStoreTest, FurtherHourGoesOnWithTheNewestHoursCounterAndRunningTime) {
    store({{"2026050108", "41", "7"}, {"2026050106", "30", "5"}});
    PowerDB().insertRecord("2026050110");
    EXPECT_THAT(storage::statements().back(),
                "INSERT INTO power_usage_table (date, power_usage, running_time) "
                "values('2026050110', '41', '7');");
    EXPECT_EQ(last(), (powerRecord{"2026050110", "41", "7"}));
}

TEST_F(PowerStoreTest, HourThatIsThereAlreadyIsStoredOnceMore) {
    PowerDB().insertRecord("2026050110");
    PowerDB().insertRecord("2026050110"); // keeping keys unique is the caller's affair
    EXPECT_EQ(stored().size(), 2U);
}

TEST_F(PowerStoreTest, InsertionThatFailsIsGivenUpAfterTheStatementsTenAttempts) {
    PowerDB().insertRecord("2026050110");
    clearRecords();
    storage::failStatements(storage::Trouble::Full);
    PowerDB().insertRecord("2026050111");
    EXPECT_EQ(log::count("SQL error: database or disk is full"), 10);
    storage::heal();
    EXPECT_THAT(storedKeys(), ElementsAre("2026050110"));
}

// ---- Adding energy ----

TEST_F(PowerStoreTest, EnergyIsAddedToTheCounterWhichWrapsPastOneMillion) {
    const struct {
        std::string counter;
        int energy;
        std::string sum;
    } cases[] = {
        {"0", 0, "0"},
        {"41", 1, "42"},
        {"999990", 9, "999999"},
        {"999990", 10, "1000000"}, // kept
        {"999990", 11, "1"},
        {"999990", 20, "10"},
        {"1000000", 1, "1"},
        {"5", 2000000, "1000005"}, // wraps once only
        {"5", 2147483647, "2146483652"},
        {"100", -30, "70"},
        {"30", -30, "0"},
        {"10", -20, "18446744073708551606"}, // 2^64 - 10, less 1000000
        {"0", -2147483647 - 1, "18446744071561067968"},
    };
    for (const auto &example : cases) {
        storage::execute(kFile, "DELETE FROM power_usage_table");
        store({{"2026050110", example.counter}});
        clearRecords();
        PowerDB().updateLastRecord("2026050110", example.energy);
        EXPECT_THAT(storage::statements(),
                    ElementsAre("SELECT * FROM power_usage_table ORDER BY date DESC LIMIT 1",
                                "UPDATE power_usage_table SET power_usage = '" + example.sum +
                                    "' WHERE date = '2026050110';"))
            << example.counter << " + " << example.energy;
        EXPECT_TRUE(log::has("Records updated successfully"));
    }
}

TEST_F(PowerStoreTest, SumIsReadBackFromTheHoursRow) {
    store({{"2026050109", "41", "6"}, {"2026050110", "999990", "7"}});
    PowerDB().updateLastRecord("2026050110", 20);
    EXPECT_THAT(stored(), ElementsAre(ElementsAre("2026050109", "41", "6"),
                                      ElementsAre("2026050110", "10", "7")));
}

TEST_F(PowerStoreTest, EnergyIsAddedToTheNewestCounterWhateverHourIsWritten) {
    store({{"2026050109", "41"}, {"2026050110", "50"}});
    PowerDB().updateLastRecord("2026050109", 2);
    EXPECT_THAT(stored(), ElementsAre(ElementsAre("2026050109", "52", "0"),
                                      ElementsAre("2026050110", "50", "0")));
}

TEST_F(PowerStoreTest, EnergyForAnHourWithoutARowIsLost) {
    store({{"2026050109", "41"}});
    PowerDB().updateLastRecord("2026050110", 2);
    EXPECT_THAT(stored(), ElementsAre(ElementsAre("2026050109", "41", "0")));
}

TEST_F(PowerStoreTest, EmptyTableCountsAsACounterOfZero) {
    PowerDB().updateLastRecord("2026050110", 7);
    EXPECT_EQ(storage::statements().back(),
              "UPDATE power_usage_table SET power_usage = '7' WHERE date = '2026050110';");
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(PowerStoreTest, CounterIsReadUpToWhatIsNoDigit) {
    store({{"2026050110", "12abc"}});
    PowerDB().updateLastRecord("2026050110", 1);
    EXPECT_EQ(last().power_usage, "13");
}

TEST_F(PowerStoreTest, CounterThatIsNoNumberThrows) {
    store({{"2026050110", "abc"}});
    EXPECT_THROW(PowerDB().updateLastRecord("2026050110", 1), std::invalid_argument);
}

TEST_F(PowerStoreTest, CounterBeyond64BitsThrows) {
    store({{"2026050110", "18446744073709600000"}});
    EXPECT_THROW(PowerDB().updateLastRecord("2026050110", 1), std::out_of_range);
}

TEST_F(PowerStoreTest, UpdateThatFailsIsGivenUpAfterTheStatementsTenAttempts) {
    store({{"2026050110", "41"}});
    storage::failStatements(storage::Trouble::Full);
    PowerDB().updateLastRecord("2026050110", 1);
    EXPECT_EQ(log::count("SQL error: database or disk is full"), 10);
    EXPECT_EQ(log::messages().back(), "Can not updated record : 13");
    storage::heal();
    EXPECT_EQ(last().power_usage, "41");
}

// ---- Deleting hours ----

TEST_F(PowerStoreTest, EarlierHoursAreDeletedUpToButWithoutTheKey) {
    store({{"2025083123", "1"}, {"2025090100", "2"}, {"2026050110", "3"}});
    PowerDB().deleteKeyLow("2025090100");
    EXPECT_THAT(storage::statements(),
                ElementsAre("DELETE from power_usage_table WHERE date < '2025090100';"));
    EXPECT_THAT(storedKeys(), ElementsAre("2025090100", "2026050110"));
}

TEST_F(PowerStoreTest, LaterHoursAreDeletedFromBehindTheKeyOn) {
    store({{"2026050109", "1"}, {"2026050110", "2"}, {"2026050111", "3"}, {"2027010100", "4"}});
    PowerDB().deleteKeyHigh("2026050110");
    EXPECT_THAT(storage::statements(),
                ElementsAre("DELETE from power_usage_table WHERE date > '2026050110';"));
    EXPECT_THAT(storedKeys(), ElementsAre("2026050109", "2026050110"));
}

TEST_F(PowerStoreTest, DeletionWithoutAKeyIsLoggedAndTouchesNothing) {
    store({{"2026050110", "1"}});
    PowerDB().deleteKeyLow("");
    PowerDB().deleteKeyHigh("");
    EXPECT_THAT(log::messages(), ElementsAre("Not exist key", "Not exist key"));
    EXPECT_EQ(log::find("Not exist key").priority, DLOG_DEBUG);
    EXPECT_EQ(log::find("Not exist key").file, "EnergyDB.cpp");
    EXPECT_THAT(storage::statements(), IsEmpty());
    EXPECT_THAT(storedKeys(), ElementsAre("2026050110"));
}

TEST_F(PowerStoreTest, DeletionThatFailsIsGivenUpAfterTheStatementsTenAttempts) {
    store({{"2026050109", "1"}, {"2026050111", "3"}});
    storage::failStatements(storage::Trouble::Full);
    PowerDB().deleteKeyLow("2026050110");
    PowerDB().deleteKeyHigh("2026050110");
    EXPECT_EQ(storage::statements().size(), 20U);
    storage::heal();
    EXPECT_EQ(stored().size(), 2U);
}

} // namespace
