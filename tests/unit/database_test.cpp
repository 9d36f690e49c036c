/*
 * Database: how statements are composed, run, repeated and read back, on a real SQLite file.
 *
 * Every test also holds that the layer logs with debug priority only, see TearDown().
 */
#include "virtual_test.h"

#include "EnergyDB.h"

#include <functional>

#include <dlog.h>
#include <gmock/gmock.h>

namespace {

using namespace fakes;
using Corvane::Database;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kFile = "corvane.db";
const std::string kPath = storage::kServiceFolder + kFile;

// The connection that was opened last, also when its owner has forgotten it.
sqlite3 *lastOpened = nullptr;
int keepOpened(sqlite3 *connection, char **, const sqlite3_api_routines *) {
    lastOpened = connection;
    return SQLITE_OK;
}

class DatabaseTest : public VirtualTest {
protected:
    void TearDown() override {
        database.reset();
        for (const log::Line &line : log::lines()) {
            EXPECT_EQ(line.priority, DLOG_DEBUG) << line.message;
            EXPECT_EQ(line.file, "EnergyDB.cpp") << line.message;
        }
        VirtualTest::TearDown();
    }

    // The base class leaves its connection open; these tests do not.
    struct ClosingDatabase : Database {
        ~ClosingDatabase() override { _close(); }
    };
    std::unique_ptr<Database> database = std::make_unique<ClosingDatabase>();

    static std::vector<std::string> callsOf(const std::string &function) {
        std::vector<std::string> texts;
        for (const storage::Call &call : storage::calls()) {
            if (call.function == function) {
                texts.push_back(call.text);
            }
        }
        return texts;
    }

    Database::Rows select(const std::string &table, const std::string &condition = "") {
        Database::Rows rows;
        EXPECT_EQ(database->_select(table, rows, condition), 0);
        return rows;
    }
};

class OpenDatabaseTest : public DatabaseTest {
protected:
    void SetUp() override {
        DatabaseTest::SetUp();
        ASSERT_EQ(database->_open(kPath), 0);
    }

    // A table of the test's own with the values in one row or, of a single column, in many.
    static void makeTable(const std::string &columns, const std::string &values) {
        storage::execute(kFile, "CREATE TABLE things(" + columns + ")");
        storage::execute(kFile, "INSERT INTO things VALUES" + values);
    }
};

// ---- Opening and closing ----

TEST_F(DatabaseTest, OpeningMakesAMissingFileAndLetsItBeWritten) {
    EXPECT_EQ(database->_open(kPath), 0);
    EXPECT_THAT(callsOf("open"), ElementsAre(kPath));
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), 0);
    EXPECT_TRUE(storage::tableExists(kFile, "things"));
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(OpenDatabaseTest, OpeningWithAHandleHeldAnswersZeroAndDoesNothing) {
    EXPECT_EQ(database->_open(storage::kServiceFolder + std::string("usage.db")), 0);
    EXPECT_THAT(callsOf("open"), ElementsAre(kPath));
}

TEST_F(DatabaseTest, FailedOpenIsLoggedAndAnswersSqlitesCode) {
    storage::failOpens(1);
    EXPECT_EQ(database->_open(kPath), SQLITE_CANTOPEN);
    EXPECT_THAT(log::messages(), ElementsAre("Can't open database: unable to open database file"));
}

TEST_F(DatabaseTest, FailedOpenKeepsItsHandleSoThatTheNextOneAnswersZeroAtOnce) {
    storage::failOpens(1);
    database->_open(kPath);
    EXPECT_EQ(database->_open(kPath), 0);
    EXPECT_EQ(storage::opens(), 1);
    EXPECT_EQ(storage::openConnections(), 1);
}

TEST_F(DatabaseTest, StatementAfterAFailedOpenFailsTenTimesAndIsLoggedThoughSqliteGivesNoMessage) {
    storage::failOpens(1);
    database->_open(kPath);
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), SQLITE_MISUSE);
    EXPECT_EQ(storage::attempts("CREATE TABLE things(a)"), 10);
    int logged = 0;
    for (const std::string &message : log::messages()) {
        logged += message.starts_with("SQL error: ") ? 1 : 0;
        EXPECT_EQ(message.find("(null)"), std::string::npos);
    }
    EXPECT_EQ(logged, 10);
}

TEST_F(DatabaseTest, SelectAfterAFailedOpenGivesNoRowsAndZero) {
    storage::failOpens(1);
    database->_open(kPath);
    EXPECT_THAT(select("things"), IsEmpty());
    EXPECT_EQ(storage::attempts("SELECT * FROM things"), 10);
    EXPECT_EQ(log::messages().back(), "ret : 21");
}

TEST_F(DatabaseTest, HandleOfAFailedOpenIsClosedLikeAnyOther) {
    storage::failOpens(1);
    database->_open(kPath);
    EXPECT_EQ(database->_close(), 0);
    EXPECT_EQ(storage::openConnections(), 0);
    EXPECT_EQ(database->_open(kPath), 0);
    EXPECT_EQ(storage::opens(), 2);
}

TEST_F(DatabaseTest, ClosingWithoutAHandleAnswersZeroAndDoesNothing) {
    EXPECT_EQ(database->_close(), 0);
    EXPECT_THAT(storage::calls(), IsEmpty());
}

TEST_F(OpenDatabaseTest, ClosingTwiceIsHarmless) {
    EXPECT_EQ(database->_close(), 0);
    EXPECT_EQ(database->_close(), 0);
    EXPECT_EQ(callsOf("close").size(), 1U);
    EXPECT_EQ(storage::openConnections(), 0);
}

TEST_F(OpenDatabaseTest, FailedCloseIsLoggedAndKeepsTheHandle) {
    storage::failCloses(1);
    EXPECT_EQ(database->_close(), SQLITE_BUSY);
    EXPECT_THAT(log::messages(),
                ElementsAre("Can't close database: unable to close due to unfinalized statements "
                            "or unfinished backups"));
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), 0);
    EXPECT_EQ(database->_close(), 0);
}

TEST_F(DatabaseTest, DestructionLeavesTheConnectionOpen) {
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(keepOpened));
    auto bare = std::make_unique<Database>();
    EXPECT_EQ(bare->_open(kPath), 0);
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(keepOpened));
    bare.reset();
    EXPECT_THAT(callsOf("close"), IsEmpty());
    EXPECT_EQ(sqlite3_close(lastOpened), SQLITE_OK);
}

// ---- Running a statement ----

TEST_F(OpenDatabaseTest, StatementRunsUnchangedAndOnce) {
    const std::string sql = "CREATE  TABLE\tthings ( a ) ;";
    EXPECT_EQ(database->_exec(sql), 0);
    EXPECT_THAT(storage::statements(), ElementsAre(sql));
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(OpenDatabaseTest, EmptyStatementAnswersMinusOneAndIsNotRun) {
    EXPECT_EQ(database->_exec(""), -1);
    EXPECT_THAT(storage::statements(), IsEmpty());
}

TEST_F(OpenDatabaseTest, FailingStatementIsTriedTenTimesStraightAway) {
    EXPECT_EQ(database->_exec("nonsense"), SQLITE_ERROR);
    EXPECT_EQ(storage::attempts("nonsense"), 10);
    EXPECT_EQ(log::count("SQL error: near \"nonsense\": syntax error"), 10);
    EXPECT_EQ(log::messages().size(), 10U);
    EXPECT_THAT(callsOf("busy_timeout"), IsEmpty());
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TEST_F(OpenDatabaseTest, StatementThatSucceedsAtTheTenthAttemptAnswersZero) {
    storage::failStatements(storage::Trouble::Full, 9);
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), 0);
    EXPECT_EQ(storage::attempts("CREATE TABLE things(a)"), 10);
    EXPECT_EQ(log::count("SQL error: database or disk is full"), 9);
}

TEST_F(OpenDatabaseTest, StatementThatStaysBusyIsTriedTenTimesAndAnswersBusy) {
    const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), SQLITE_BUSY);
    EXPECT_EQ(storage::attempts("CREATE TABLE things(a)"), 10);
    EXPECT_EQ(log::count("SQL error: database is locked"), 10);
}

TEST_F(OpenDatabaseTest, BusyFileIsWaitedFor200MsAnAttemptFromTheSecondOn) {
    const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
    database->_exec("CREATE TABLE things(a)");
    EXPECT_THAT(callsOf("busy_timeout"), ::testing::AllOf(::testing::SizeIs(10), Each("200")));
    EXPECT_EQ(virtualtime::elapsedMs(), 9 * 200);
}

TEST_F(OpenDatabaseTest, StatementGoesThroughOnceTheBusyFileIsFree) {
    auto lock = std::make_unique<storage::Lock>(kFile, storage::Lock::Kind::Exclusive);
    std::thread other([&lock] {
        virtualtime::sleepMs(700);
        lock.reset();
    });
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), 0);
    EXPECT_EQ(log::count("SQL error: database is locked"), 4); // at 0, 200, 400 and 600 ms
    other.join();
}

TEST_F(DatabaseTest, TableLockedByASharedCacheIsWaitedForLikeABusyFile) {
    storage::execute(kFile, "CREATE TABLE things(a)");
    sqlite3_enable_shared_cache(1);
    Database other;
    EXPECT_EQ(other._open(kPath), 0);
    EXPECT_EQ(database->_open(kPath), 0);
    sqlite3_enable_shared_cache(0);
    EXPECT_EQ(other._exec("BEGIN; INSERT INTO things VALUES(1)"), 0);

    EXPECT_EQ(database->_exec("INSERT INTO things VALUES(2)"), SQLITE_LOCKED);
    EXPECT_THAT(callsOf("busy_timeout"), ::testing::AllOf(::testing::SizeIs(10), Each("200")));
    other._close();
}

TEST_F(OpenDatabaseTest, ConnectionStaysUsableAfterAFailedStatement) {
    database->_exec("nonsense");
    EXPECT_EQ(database->_exec("CREATE TABLE things(a)"), 0);
}

TEST_F(DatabaseTest, WithoutAConnectionEveryWritingOperationAnswersMinusOneAndSaysSo) {
    const std::function<int()> operations[] = {
        [this] { return database->_exec("SELECT 1"); },
        [this] { return database->_create("dr_usage_table"); },
        [this] {
            return database->_insert("dr_usage_table", {"0", "1", "2", "3"});
        },
        [this] { return database->_delete("dr_usage_table", ""); },
        [this] {
            return database->_update("dr_usage_table", {"a = 1", "b = 2"});
        },
    };
    for (const std::function<int()> &operation : operations) {
        clearRecords();
        EXPECT_EQ(operation(), -1);
        EXPECT_EQ(log::messages().front(), "Can not exec DB. DB is NULL");
        EXPECT_THAT(storage::calls(), IsEmpty());
    }
    EXPECT_EQ(log::messages().back(), "Can not updated record : -1");
}

TEST_F(DatabaseTest, SelectWithoutAConnectionFailsInPreparationAndAnswersZeroWithoutRows) {
    EXPECT_THAT(select("dr_usage_table"), IsEmpty());
    EXPECT_EQ(log::count("Can not select Record : out of memory, Error Code : 21"), 10);
    EXPECT_EQ(log::messages().back(), "ret : 21");
}

// ---- Creating tables ----

struct Creation {
    std::string table;
    std::string sql;
};

void PrintTo(const Creation &creation, std::ostream *out) { *out << creation.table; }

class CreationTest : public OpenDatabaseTest, public ::testing::WithParamInterface<Creation> {};

TEST_P(CreationTest, RunsTheTablesOwnTextAndLogsIt) {
    EXPECT_EQ(database->_create(GetParam().table), 0);
    EXPECT_THAT(storage::statements(), ElementsAre(GetParam().sql));
    EXPECT_THAT(log::messages(), ElementsAre("Table created successfully"));
    EXPECT_TRUE(storage::tableExists(kFile, GetParam().table));
}

TEST_P(CreationTest, ThatFailsTenTimesAnswersTheLastCodeAndLogsNoSuccess) {
    storage::failStatements(storage::Trouble::Full);
    EXPECT_EQ(database->_create(GetParam().table), SQLITE_FULL);
    EXPECT_EQ(storage::attempts(GetParam().sql), 10);
    EXPECT_FALSE(log::has("Table created successfully"));
}

INSTANTIATE_TEST_SUITE_P(
    Tables, CreationTest,
    ::testing::Values(
        Creation{"power_usage_table",
                 "CREATE TABLE IF NOT EXISTS power_usage_table("
                 "\t\t\t   date NUMERIC(12) NOT NULL, \t\t\t   power_usage NUMERIC(14) "
                 "NOT NULL, \t\t\t   running_time NUMERIC(14) NOT NULL);"},
        Creation{"defrost_usage_table",
                 "CREATE TABLE IF NOT EXISTS defrost_usage_table("
                 "\t\t\t   id NUMERIC(4) NOT NULL PRIMARY KEY,\t\t\t   description "
                 "TEXT NOT NULL,\t\t\t   startTime TEXT NOT NULL, \t\t\t   endTime "
                 "TEXT NOT NULL, \t\t\t   period TEXT NOT NULL);"},
        Creation{"dr_usage_table",
                 "CREATE TABLE IF NOT EXISTS dr_usage_table("
                 "\t\t\t   rowid INTEGER PRIMARY KEY AUTOINCREMENT,\t\t\t   drlcLevel "
                 "NUMERIC(4) NOT NULL, \t\t\t   duration TEXT NOT NULL, \t\t\t   "
                 "drlcStartTime TEXT NOT NULL);"}),
    [](const auto &instance) { return instance.param.table; });

TEST_F(OpenDatabaseTest, CreationOfAnyOtherTableAnswersMinusOneAndTouchesNothing) {
    for (const char *name : {"", "things", "dr_usage_tabl", "DR_USAGE_TABLE", "dr_usage_table "}) {
        EXPECT_EQ(database->_create(name), -1) << name;
    }
    EXPECT_THAT(storage::statements(), IsEmpty());
    EXPECT_THAT(log::messages(), IsEmpty());
    EXPECT_THAT(storage::query(kFile, "SELECT name FROM sqlite_master"), IsEmpty());
}

TEST_F(OpenDatabaseTest, CreationOfAnExistingTableKeepsItsRows) {
    database->_create("dr_usage_table");
    database->_insert("dr_usage_table", {"0", "2", "01:00:00", "2026-05-01T14:00:00"});
    EXPECT_EQ(database->_create("dr_usage_table"), 0);
    EXPECT_EQ(storage::query(kFile, "SELECT * FROM dr_usage_table").size(), 1U);
}

// ---- Inserting, deleting, updating ----

TEST_F(OpenDatabaseTest, InsertQuotesEachValueBehindTheTablesColumns) {
    const struct {
        std::string table;
        std::vector<std::string> values;
        std::string sql;
    } cases[] = {
        {"dr_usage_table",
         {"1", "2", "60", "2016-01-01T00:00:00"},
         "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) "
         "values('1', '2', '60', '2016-01-01T00:00:00');"},
        {"defrost_usage_table",
         {"0", "Summer Season", "0000-06-01T14:00:00", "0000-09-30T18:00:00", "04:00:00"},
         "INSERT INTO defrost_usage_table (id, description, startTime, endTime, period) "
         "values('0', 'Summer Season', '0000-06-01T14:00:00', '0000-09-30T18:00:00', "
         "'04:00:00');"},
        {"power_usage_table",
         {"2026050110", "0", "0"},
         "INSERT INTO power_usage_table (date, power_usage, running_time) "
         "values('2026050110', '0', '0');"},
    };
    for (const auto &example : cases) {
        database->_create(example.table);
        clearRecords();
        EXPECT_EQ(database->_insert(example.table, example.values), 0);
        EXPECT_THAT(storage::statements(), ElementsAre(example.sql));
        EXPECT_THAT(log::messages(), ElementsAre("Records created successfully"));
        EXPECT_THAT(select(example.table), ElementsAre(example.values));
    }
}

TEST_F(OpenDatabaseTest, InsertThatCannotBeAStatementFailsTenTimes) {
    database->_create("dr_usage_table");
    const std::string columns =
        "INSERT INTO dr_usage_table (rowid, drlcLevel, duration, drlcStartTime) values('";
    const struct {
        std::string table;
        std::vector<std::string> values;
        std::string sql;
    } cases[] = {
        {"dr_usage_table", {}, columns},             // nothing appended, text unterminated
        {"dr_usage_table", {"7"}, columns + "7');"}, // a single value is the last one
        {"dr_usage_table", {"0", "1", "it's", "x"}, columns + "0', '1', 'it's', 'x');"}, // as it is
        {"things", {"1", "2"}, "INSERT INTO things1', '2');"}, // no column list for another name
    };
    for (const auto &example : cases) {
        clearRecords();
        EXPECT_EQ(database->_insert(example.table, example.values), SQLITE_ERROR);
        EXPECT_EQ(storage::attempts(example.sql), 10) << storage::statements().front();
        EXPECT_FALSE(log::has("Records created successfully"));
    }
    EXPECT_THAT(select("dr_usage_table"), IsEmpty());
}

TEST_F(OpenDatabaseTest, InsertOfATakenKeyAnswersTheConstraintsCode) {
    database->_create("dr_usage_table");
    database->_insert("dr_usage_table", {"0", "1", "2", "3"});
    EXPECT_EQ(database->_insert("dr_usage_table", {"0", "1", "2", "3"}), SQLITE_CONSTRAINT);
}

TEST_F(OpenDatabaseTest, DeleteAppendsTheConditionAndLogsNothing) {
    makeTable("id", "(1), (2), (3)");
    EXPECT_EQ(database->_delete("things", " WHERE id = 3"), 0);
    EXPECT_THAT(storage::statements(), ElementsAre("DELETE from things WHERE id = 3;"));
    EXPECT_THAT(log::messages(), IsEmpty());
    EXPECT_THAT(select("things"), ElementsAre(ElementsAre("1"), ElementsAre("2")));
}

TEST_F(OpenDatabaseTest, DeleteWithoutConditionRemovesEveryRow) {
    makeTable("id", "(1), (2), (3)");
    EXPECT_EQ(database->_delete("things", ""), 0);
    EXPECT_THAT(storage::statements(), ElementsAre("DELETE from things;"));
    EXPECT_THAT(select("things"), IsEmpty());
}

TEST_F(OpenDatabaseTest, DeleteThatFailsAnswersTheCode) {
    EXPECT_EQ(database->_delete("nowhere", ""), SQLITE_ERROR);
    EXPECT_EQ(storage::attempts("DELETE from nowhere;"), 10);
}

TEST_F(OpenDatabaseTest, UpdateJoinsAssignmentsAndConditionAndIgnoresFurtherParts) {
    database->_create("defrost_usage_table");
    database->_insert("defrost_usage_table", {"2", "a", "b", "c", "d"});
    clearRecords();
    EXPECT_EQ(database->_update("defrost_usage_table", {"endTime = 'x'", "id = 2", "ignored"}), 0);
    EXPECT_THAT(storage::statements(),
                ElementsAre("UPDATE defrost_usage_table SET endTime = 'x' WHERE id = 2;"));
    EXPECT_THAT(log::messages(), ElementsAre("Records updated successfully"));
    EXPECT_THAT(select("defrost_usage_table"), ElementsAre(ElementsAre("2", "a", "b", "x", "d")));
}

TEST_F(OpenDatabaseTest, UpdateThatFailsLogsItsCodeAfterTenAttempts) {
    EXPECT_EQ(database->_update("nowhere", {"a = 1", "b = 2"}), SQLITE_ERROR);
    EXPECT_EQ(storage::attempts("UPDATE nowhere SET a = 1 WHERE b = 2;"), 10);
    EXPECT_EQ(log::messages().back(), "Can not updated record : 1");
    EXPECT_EQ(log::count("Can not updated record : 1"), 1);
}

// ---- Selecting ----

TEST_F(OpenDatabaseTest, SelectAppendsTheConditionAndNoSemicolon) {
    makeTable("id", "(1), (2), (3)");
    select("things");
    EXPECT_THAT(select("things", " WHERE id > 1 ORDER BY id DESC"),
                ElementsAre(ElementsAre("3"), ElementsAre("2")));
    EXPECT_THAT(
        storage::statements(),
        ElementsAre("SELECT * FROM things", "SELECT * FROM things WHERE id > 1 ORDER BY id DESC"));
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(OpenDatabaseTest, SelectedRowsGoBehindWhatTheListHolds) {
    makeTable("a, b", "('one', 'two')");
    Database::Rows rows{{"before"}};
    EXPECT_EQ(database->_select("things", rows, ""), 0);
    EXPECT_THAT(rows, ElementsAre(ElementsAre("before"), ElementsAre("one", "two")));
}

TEST_F(OpenDatabaseTest, EachStorageClassHasItsText) {
    const struct {
        const char *literal;
        const char *text;
    } cases[] = {
        {"42", "42"},
        {"-7", "-7"},
        {"2147483647", "2147483647"},
        {"2147483648", "-2147483648"}, // read as 32 bits
        {"4294967297", "1"},
        {"1.5", "1.500000"},
        {"-0.1234567", "-0.123457"},
        {"1e20", "100000000000000000000.000000"},
        {"'as it is, \"quoted\"'", "as it is, \"quoted\""},
        {"'0012'", "0012"},
        {"''", ""},
        {"NULL", ""},
        {"x'414243'", ""},
    };
    storage::execute(kFile, "CREATE TABLE things(a)");
    for (const auto &example : cases) {
        storage::execute(kFile, "DELETE FROM things");
        storage::execute(kFile, "INSERT INTO things VALUES(" + std::string(example.literal) + ")");
        EXPECT_THAT(select("things"), ElementsAre(ElementsAre(example.text))) << example.literal;
    }
}

TEST_F(OpenDatabaseTest, WidestRealIsRenderedWhole) {
    makeTable("a", "(-1.5e308)");
    const Database::Rows rows = select("things");
    EXPECT_EQ(rows[0][0].size(), 1U + 309 + 1 + 6);
}

TEST_F(OpenDatabaseTest, ColumnsComeInTheTablesOrder) {
    makeTable("a, b, c, d", "(1, 'two', 3.0, NULL), ('four', 5, NULL, 6.5)");
    EXPECT_THAT(select("things"), ElementsAre(ElementsAre("1", "two", "3.000000", ""),
                                              ElementsAre("four", "5", "", "6.500000")));
}

TEST_F(OpenDatabaseTest, SelectThatCannotBePreparedIsTriedTenTimesAndAnswersZero) {
    Database::Rows rows{{"before"}};
    EXPECT_EQ(database->_select("nowhere", rows, ""), 0);
    EXPECT_THAT(rows, ElementsAre(ElementsAre("before")));
    EXPECT_EQ(storage::attempts("SELECT * FROM nowhere"), 10);
    EXPECT_EQ(log::count("Can not select Record : no such table: nowhere, Error Code : 1"), 10);
    EXPECT_EQ(log::messages().back(), "ret : 21");
    EXPECT_THAT(callsOf("busy_timeout"), IsEmpty());
}

TEST_F(OpenDatabaseTest, SelectWaitsForABusyFileAsOtherStatementsDo) {
    makeTable("a", "(1)");
    {
        const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
        EXPECT_THAT(select("things"), IsEmpty());
    }
    EXPECT_EQ(log::count("Can not select Record : database is locked, Error Code : 5"), 10);
    EXPECT_THAT(callsOf("busy_timeout"), ::testing::AllOf(::testing::SizeIs(10), Each("200")));
    EXPECT_EQ(virtualtime::elapsedMs(), 9 * 200);
    EXPECT_THAT(select("things"), ElementsAre(ElementsAre("1")));
}

TEST_F(OpenDatabaseTest, SelectPreparedAtTheTenthAttemptGivesItsRows) {
    makeTable("a", "(1)");
    storage::failStatements(storage::Trouble::IoError, 9);
    EXPECT_THAT(select("things"), ElementsAre(ElementsAre("1")));
    EXPECT_EQ(storage::attempts("SELECT * FROM things"), 10);
    EXPECT_EQ(log::count("Can not select Record : disk I/O error, Error Code : 10"), 9);
}

TEST_F(OpenDatabaseTest, SelectThatFailsWhileReadingLogsTheCodeAndIsNotRepeated) {
    makeTable("a", "(1)");
    select("things"); // from now on preparing does not need the file
    const storage::Lock lock(kFile, storage::Lock::Kind::Exclusive);
    EXPECT_THAT(select("things"), IsEmpty());
    EXPECT_EQ(storage::attempts("SELECT * FROM things"), 2);
    EXPECT_THAT(log::messages(), ElementsAre("ret : 5"));
}

TEST_F(OpenDatabaseTest, RowsReadBeforeAFailureStay) {
    makeTable("a", "(zeroblob(3000)), (zeroblob(3000)), (zeroblob(3000))"); // a page each
    std::size_t least = 3;
    for (int operation = 1; operation <= 20; ++operation) {
        storage::failFileOperation(operation);
        const std::size_t count = select("things").size();
        least = count > 0 ? std::min(least, count) : least;
        storage::heal();
        database->_close(); // the next one reads the file anew
        database->_open(kPath);
    }
    EXPECT_LT(least, 3U);
    EXPECT_TRUE(log::has("ret : 10"));
}

TEST_F(OpenDatabaseTest, SelectLeavesNoStatementOpen) {
    makeTable("a", "(1)");
    select("things");
    select("nowhere");
    EXPECT_EQ(database->_close(), 0);
    EXPECT_EQ(storage::openConnections(), 0);
}

// ---- Logging ----

TEST_F(OpenDatabaseTest, EveryMessageGoesToThePlatformLogAndToStandardOutput) {
    database->_exec("nonsense");
    const log::Line line = log::lines().front();
    EXPECT_EQ(line.buffer, LOG_ID_MAIN);
    EXPECT_EQ(line.tag, "corvane");
    const std::string number = std::to_string(line.line);
    const std::string message = "SQL error: near \"nonsense\": syntax error";
    EXPECT_EQ(line.text, "EnergyDB.cpp: _exec(" + number + ") > " + message);
    EXPECT_TRUE(standardOutput().starts_with("[_exec:" + number + "] " + message + "\n["));
}

TEST_F(OpenDatabaseTest, MessagesNameTheOperationTheyComeFrom) {
    const auto lastFunction = [] { return log::lines().back().function; };
    database->_create("dr_usage_table");
    EXPECT_EQ(lastFunction(), "_create");
    database->_insert("dr_usage_table", {"0", "1", "2", "3"});
    EXPECT_EQ(lastFunction(), "_insert");
    database->_update("dr_usage_table", {"drlcLevel = 1", "rowid = 0"});
    EXPECT_EQ(lastFunction(), "_update");
    database->_delete("nowhere", "");
    EXPECT_EQ(lastFunction(), "_exec");
    select("nowhere");
    EXPECT_EQ(log::find("Can not select Record : no such table: nowhere, Error Code : 1").function,
              "_select");
    storage::failCloses(1);
    database->_close();
    EXPECT_EQ(lastFunction(), "_close");
}

} // namespace
