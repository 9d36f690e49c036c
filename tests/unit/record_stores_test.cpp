/*
 * DrDB and DefrostDB: the demand-response event and the defrost reservations on a real file. Both
 * tables are in one file, each store has its own connection.
 *
 * What the two do alike is tested once for each, as StoreTest.
 */
#include "virtual_test.h"

#include "EnergyDB.h"

#include <dlog.h>
#include <gmock/gmock.h>

namespace Corvane {

static bool operator==(const drRecord &a, const drRecord &b) {
    return a.rowid == b.rowid && a.drlcLevel == b.drlcLevel && a.duration == b.duration &&
           a.drlcStartTime == b.drlcStartTime;
}

static bool operator==(const scheduleRecord &a, const scheduleRecord &b) {
    return a.id == b.id && a.description == b.description && a.startTime == b.startTime &&
           a.endTime == b.endTime && a.period == b.period;
}

} // namespace Corvane

namespace {

using namespace fakes;
using Corvane::DefrostDB;
using Corvane::DrDB;
using Corvane::drRecord;
using Corvane::scheduleRecord;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kFile = "corvane.db";

std::vector<int> resultsOf(const std::string &function) {
    std::vector<int> results;
    for (const storage::Call &call : storage::calls()) {
        if (call.function == function) {
            results.push_back(call.result);
        }
    }
    return results;
}

// ---- What both stores do ----

template <class Store>
class StoreTest : public VirtualTest {
protected:
    // Defined for each store below.
    static const std::string table;
    static const std::string creation;
};

template <>
const std::string StoreTest<DrDB>::table = "dr_usage_table";
template <>
const std::string StoreTest<DrDB>::creation =
    "CREATE TABLE IF NOT EXISTS dr_usage_table(\t\t\t   rowid INTEGER PRIMARY KEY AUTOINCREMENT,"
    "\t\t\t   drlcLevel NUMERIC(4) NOT NULL, \t\t\t   duration TEXT NOT NULL, "
    "\t\t\t   drlcStartTime TEXT NOT NULL);";
template <>
const std::string StoreTest<DefrostDB>::table = "defrost_usage_table";
template <>
const std::string StoreTest<DefrostDB>::creation =
    "CREATE TABLE IF NOT EXISTS defrost_usage_table(\t\t\t   id NUMERIC(4) NOT NULL PRIMARY KEY,"
    "\t\t\t   description TEXT NOT NULL,\t\t\t   startTime TEXT NOT NULL, "
    "\t\t\t   endTime TEXT NOT NULL, \t\t\t   period TEXT NOT NULL);";

using Stores = ::testing::Types<DrDB, DefrostDB>;
TYPED_TEST_SUITE(StoreTest, Stores);

// Lets SQLite find no memory at all, the one failure after which an open leaves no handle behind.
class NoMemory {
public:
    NoMemory() { sqlite3_hard_heap_limit64(1); }
    ~NoMemory() { sqlite3_hard_heap_limit64(0); }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;
};

TYPED_TEST(StoreTest, ConstructionOpensTheMainFile) {
    const TypeParam store;
    const std::vector<storage::Call> calls = storage::calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "open");
    EXPECT_EQ(calls[0].text, "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/corvane.db");
}

TYPED_TEST(StoreTest, OpenIsTriedTenTimes) {
    {
        const NoMemory noMemory;
        const TypeParam store;
        EXPECT_THAT(resultsOf("open"), ElementsAre(7, 7, 7, 7, 7, 7, 7, 7, 7, 7));
    }
    EXPECT_EQ(log::count("Can't open database: out of memory"), 10);
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

TYPED_TEST(StoreTest, FailedOpenThatLeftAHandleCountsAsDoneAtTheSecondAttempt) {
    storage::failOpens(1);
    const TypeParam store;
    EXPECT_THAT(resultsOf("open"), ElementsAre(SQLITE_CANTOPEN));
}

TYPED_TEST(StoreTest, CreationRunsTheTablesTextOnce) {
    TypeParam store;
    store.create();
    EXPECT_THAT(storage::statements(kFile), ElementsAre(this->creation));
    EXPECT_TRUE(storage::tableExists(kFile, this->table));
    EXPECT_THAT(log::messages(), ElementsAre("Table created successfully"));
}

TYPED_TEST(StoreTest, CreationOfAnExistingTableChangesNothing) {
    TypeParam().create();
    const std::string everything = "SELECT * FROM sqlite_master";
    const storage::Rows before = storage::query(kFile, everything);
    TypeParam().create();
    EXPECT_EQ(storage::query(kFile, everything), before);
}

TYPED_TEST(StoreTest, CreationIsTriedTenTimes) {
    storage::failStatements(storage::Trouble::Full);
    TypeParam().create();
    EXPECT_EQ(storage::attempts(this->creation), 10 * 10); // ten attempts of ten statements each
    EXPECT_FALSE(log::has("Table created successfully"));
}

TYPED_TEST(StoreTest, CreationStopsAtTheFirstSuccess) {
    storage::failStatements(storage::Trouble::Full, 25);
    TypeParam().create();
    EXPECT_EQ(storage::attempts(this->creation), 26);
}

TYPED_TEST(StoreTest, CloseAnswersZeroAndMayBeRepeatedByTheDestructor) {
    {
        TypeParam store;
        EXPECT_EQ(store.close(), 0);
        EXPECT_EQ(store.close(), 0);
    }
    EXPECT_THAT(resultsOf("close"), ElementsAre(SQLITE_OK));
    EXPECT_EQ(storage::openConnections(), 0);
}

TYPED_TEST(StoreTest, DestructorCloses) {
    { const TypeParam store; }
    EXPECT_EQ(storage::openConnections(), 0);
}

TYPED_TEST(StoreTest, CloseIsTriedTenTimesAndAnswersTheLastCode) {
    storage::failCloses(10);
    TypeParam store;
    EXPECT_EQ(store.close(), SQLITE_BUSY);
    EXPECT_EQ(resultsOf("close").size(), 10U);
}

TYPED_TEST(StoreTest, CloseStopsAtTheFirstSuccess) {
    storage::failCloses(9);
    TypeParam store;
    EXPECT_EQ(store.close(), 0);
    EXPECT_EQ(resultsOf("close").size(), 10U);
}

TYPED_TEST(StoreTest, OpenGivesAClosedStoreItsConnectionBack) {
    TypeParam store;
    store.close();
    store.create();
    EXPECT_EQ(log::count("Can not exec DB. DB is NULL"), 10);
    store.open();
    store.create();
    EXPECT_TRUE(storage::tableExists(kFile, this->table));
}

TYPED_TEST(StoreTest, StoresAreDeletedThroughTheirBase) {
    { const std::unique_ptr<Corvane::Database> store = std::make_unique<TypeParam>(); }
    EXPECT_EQ(storage::openConnections(), 0);
}

// ---- The demand-response event ----

class EventStoreTest : public VirtualTest {
protected:
    void SetUp() override {
        VirtualTest::SetUp();
        DrDB().create();
        clearRecords();
    }

    static drRecord stored() {
        drRecord record{"left", "from", "the", "caller"};
        EXPECT_EQ(DrDB().selectRecord(record), 0);
        return record;
    }

    const drRecord event{"0", "2", "01:00:00", "2026-05-01T14:00:00"};
    const drRecord none{};
};

TEST_F(EventStoreTest, NewRecordIsEmpty) { EXPECT_EQ(drRecord(), (drRecord{"", "", "", ""})); }

TEST_F(EventStoreTest, EventIsReadBackAsItWasStored) {
    EXPECT_EQ(DrDB().insertRecord(event), 0);
    EXPECT_EQ(stored(), event);
    EXPECT_THAT(storage::statements(),
                ElementsAre("INSERT INTO dr_usage_table (rowid, drlcLevel, duration, "
                            "drlcStartTime) values('0', '2', '01:00:00', '2026-05-01T14:00:00');",
                            "SELECT * FROM dr_usage_table ORDER BY rowid DESC LIMIT 1"));
}

TEST_F(EventStoreTest, EventSurvivesTheProcess) {
    DrDB().insertRecord(event);
    newProcess();
    EXPECT_EQ(stored(), event);
}

TEST_F(EventStoreTest, LevelIsReadBackAsDecimalText) {
    for (const auto &[given, read] : {std::pair{"3", "3"}, {"03", "3"}, {"null", "null"}}) {
        DrDB().deleteRecord();
        DrDB().insertRecord({"0", given, "01:00:00", "2026-05-01T14:00:00"});
        EXPECT_EQ(stored().drlcLevel, read);
    }
    DrDB().deleteRecord();
    DrDB().insertRecord({"0", "3", "01:00:00", "2026-05-01T14:00:00"});
    EXPECT_EQ(storage::query(kFile, "SELECT typeof(drlcLevel) FROM dr_usage_table"),
              (storage::Rows{{"integer"}}));
}

TEST_F(EventStoreTest, EmptyTableGivesAnEmptyRecord) { EXPECT_EQ(stored(), none); }

TEST_F(EventStoreTest, OfSeveralRowsTheHighestKeyIsTheEvent) {
    storage::execute(kFile, "INSERT INTO dr_usage_table VALUES"
                            "(4, 1, '00:10:00', '2026-05-01T10:00:00'),"
                            "(7, 3, '00:20:00', '2026-05-01T11:00:00'),"
                            "(5, 2, '00:30:00', '2026-05-01T12:00:00')");
    EXPECT_EQ(stored(), (drRecord{"7", "3", "00:20:00", "2026-05-01T11:00:00"}));
}

TEST_F(EventStoreTest, QueryThatFailsReadsAsNoEvent) {
    DrDB().insertRecord(event);
    storage::failStatements(storage::Trouble::Busy);
    EXPECT_EQ(stored(), none);
    EXPECT_EQ(log::count("Can not select Record : database is locked, Error Code : 5"), 10);
}

TEST_F(EventStoreTest, DeletionRemovesEveryRow) {
    DrDB().insertRecord(event);
    DrDB().insertRecord({"1", "3", "00:10:00", "2026-05-01T10:00:00"});
    clearRecords();
    DrDB().deleteRecord();
    EXPECT_EQ(stored(), none);
    EXPECT_EQ(storage::statements().front(), "DELETE from dr_usage_table;");
}

TEST_F(EventStoreTest, DeletionOnAnEmptyTableIsSilent) {
    DrDB().deleteRecord();
    EXPECT_THAT(storage::statements(), ElementsAre("DELETE from dr_usage_table;"));
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(EventStoreTest, DeletionIsRepeatedByTheStatementsOwnTenAttemptsOnly) {
    DrDB().insertRecord(event);
    clearRecords();
    storage::failStatements(storage::Trouble::Full);
    DrDB().deleteRecord();
    EXPECT_EQ(storage::attempts("DELETE from dr_usage_table;"), 10);
    storage::heal();
    EXPECT_EQ(stored(), event);
}

TEST_F(EventStoreTest, InsertionIsRepeatedWithoutBound) {
    storage::failStatements(storage::Trouble::Full, 1234);
    EXPECT_EQ(DrDB().insertRecord(event), 0);
    EXPECT_EQ(storage::statements().size(), 1235U);
    EXPECT_EQ(stored(), event);
}

TEST_F(EventStoreTest, InsertionThatMeetsABusyFileWaitsForIt) {
    auto lock = std::make_unique<storage::Lock>(kFile, storage::Lock::Kind::Exclusive);
    std::thread other([&lock] {
        virtualtime::sleepSec(60);
        lock.reset();
    });
    EXPECT_EQ(DrDB().insertRecord(event), 0);
    EXPECT_GE(virtualtime::elapsedMs(), 60'000);
    EXPECT_EQ(stored(), event);
    other.join();
}

TEST_F(EventStoreTest, StoreLogsNothingOfItsOwn) {
    DrDB().insertRecord(event);
    EXPECT_EQ(stored(), event);
    DrDB().deleteRecord();
    EXPECT_THAT(log::messages(), ElementsAre("Records created successfully"));
}

// ---- The defrost reservations ----

class ReservationStoreTest : public VirtualTest {
protected:
    void SetUp() override {
        VirtualTest::SetUp();
        DefrostDB().create();
        clearRecords();
    }

    void insertAll(const std::vector<scheduleRecord> &records) {
        for (const scheduleRecord &record : records) {
            EXPECT_EQ(DefrostDB().insertRecord(record), 0);
        }
        clearRecords();
    }

    static std::vector<scheduleRecord> stored() {
        std::vector<scheduleRecord> records;
        EXPECT_EQ(DefrostDB().selectOrderByAsc(records), 0);
        return records;
    }

    const scheduleRecord summer{"0", "Summer Season", "0000-05-01T15:00:00", "0000-10-31T00:00:00",
                                "04:00:00"};
    const scheduleRecord winter{"1", "Winter Season", "0000-11-01T06:00:00", "0000-04-30T00:00:00",
                                "04:00:00"};
    const scheduleRecord remote{"2", "Holidays", "0000-07-01T00:00:00", "0000-07-31T01:30:00",
                                "01:30:00"};
};

TEST_F(ReservationStoreTest, NewRecordIsEmpty) {
    EXPECT_EQ(scheduleRecord(), (scheduleRecord{"", "", "", "", ""}));
}

TEST_F(ReservationStoreTest, ReservationIsStoredFieldByField) {
    EXPECT_EQ(DefrostDB().insertRecord(summer), 0);
    EXPECT_THAT(storage::statements(),
                ElementsAre("INSERT INTO defrost_usage_table (id, description, startTime, endTime, "
                            "period) values('0', 'Summer Season', '0000-05-01T15:00:00', "
                            "'0000-10-31T00:00:00', '04:00:00');"));
    EXPECT_THAT(stored(), ElementsAre(summer));
}

TEST_F(ReservationStoreTest, FieldsAreNotChecked) {
    EXPECT_EQ(DefrostDB().insertRecord(scheduleRecord{}), 0);
    EXPECT_THAT(stored(), ElementsAre(scheduleRecord{}));
}

TEST_F(ReservationStoreTest, InsertionOfATakenIdFailsAndChangesNothing) {
    insertAll({summer});
    EXPECT_EQ(DefrostDB().insertRecord({"0", "x", "x", "x", "x"}), SQLITE_CONSTRAINT);
    EXPECT_THAT(stored(), ElementsAre(summer));
}

TEST_F(ReservationStoreTest, InsertionIsRepeatedByTheStatementsOwnTenAttemptsOnly) {
    storage::failStatements(storage::Trouble::Full);
    EXPECT_EQ(DefrostDB().insertRecord(summer), SQLITE_FULL);
    EXPECT_EQ(storage::statements().size(), 10U);
}

TEST_F(ReservationStoreTest, ApostropheBreaksTheStatement) {
    scheduleRecord record = remote;
    record.description = "Owner's";
    EXPECT_EQ(DefrostDB().insertRecord(record), SQLITE_ERROR);
    EXPECT_THAT(stored(), IsEmpty());
    record.id = "";
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_TRUE(log::has("constainer size : 0"));
}

TEST_F(ReservationStoreTest, DeletionNamesTheIdUnquoted) {
    insertAll({summer, winter, remote});
    EXPECT_EQ(DefrostDB().deleteRecord("1"), 0);
    EXPECT_THAT(storage::statements(),
                ElementsAre("DELETE from defrost_usage_table WHERE id = 1;"));
    EXPECT_THAT(stored(), ElementsAre(summer, remote));
}

TEST_F(ReservationStoreTest, DeletionWithoutAnIdAnswersOneAndLeavesTheTableAlone) {
    insertAll({summer});
    EXPECT_EQ(DefrostDB().deleteRecord(""), 1);
    EXPECT_THAT(log::messages(), ElementsAre("Not exist key"));
    EXPECT_EQ(log::find("Not exist key").priority, DLOG_DEBUG);
    EXPECT_EQ(log::find("Not exist key").function, "deleteRecord");
    EXPECT_THAT(storage::statements(), IsEmpty());
    EXPECT_THAT(stored(), ElementsAre(summer));
}

TEST_F(ReservationStoreTest, DeletionOfAnUnknownIdAnswersZero) {
    insertAll({summer});
    EXPECT_EQ(DefrostDB().deleteRecord("3"), 0);
    EXPECT_THAT(stored(), ElementsAre(summer));
}

TEST_F(ReservationStoreTest, DeletionThatFailsAnswersTheCode) {
    EXPECT_EQ(DefrostDB().deleteRecord("no number"), SQLITE_ERROR);
}

TEST_F(ReservationStoreTest, LookUpById) {
    insertAll({summer, winter});
    scheduleRecord record;
    record.id = "1";
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, winter);
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM defrost_usage_table WHERE id = '1'"));
    EXPECT_THAT(log::messages(), ElementsAre("constainer size : 1"));
    EXPECT_EQ(log::find("constainer size : 1").priority, DLOG_DEBUG);
    EXPECT_EQ(log::find("constainer size : 1").function, "selectRecord");
}

TEST_F(ReservationStoreTest, LookUpByDescriptionWithoutAnId) {
    insertAll({summer, winter});
    scheduleRecord record;
    record.description = "Summer Season";
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, summer);
    EXPECT_THAT(
        storage::statements(),
        ElementsAre("SELECT * FROM defrost_usage_table WHERE description = 'Summer Season'"));
}

TEST_F(ReservationStoreTest, LookUpWithAnIdIgnoresTheDescription) {
    insertAll({summer, winter});
    scheduleRecord record{"1", "Summer Season", "", "", ""};
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, winter);
}

TEST_F(ReservationStoreTest, LookUpWithoutAnyKeyAnswersOneAndSendsNoQuery) {
    insertAll({summer});
    scheduleRecord record{"", "", "start", "end", "period"};
    EXPECT_EQ(DefrostDB().selectRecord(record), 1);
    EXPECT_EQ(record, (scheduleRecord{"", "", "start", "end", "period"}));
    EXPECT_THAT(storage::statements(), IsEmpty());
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(ReservationStoreTest, LookUpThatFindsNothingLeavesTheRecordAsItWas) {
    insertAll({summer});
    const scheduleRecord asked{"3", "d", "s", "e", "p"};
    scheduleRecord record = asked;
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, asked);
    EXPECT_THAT(log::messages(), ElementsAre("constainer size : 0"));
}

TEST_F(ReservationStoreTest, LookUpThatFindsSeveralLeavesTheRecordAsItWas) {
    insertAll({{"2", "same", "a", "b", "c"}, {"3", "same", "d", "e", "f"}});
    const scheduleRecord asked{"", "same", "", "", ""};
    scheduleRecord record = asked;
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, asked);
    EXPECT_THAT(log::messages(), ElementsAre("constainer size : 2"));
}

TEST_F(ReservationStoreTest, LookUpThatFailsLeavesTheRecordAsItWas) {
    insertAll({summer});
    storage::failStatements(storage::Trouble::IoError);
    scheduleRecord record{"0", "", "", "", ""};
    EXPECT_EQ(DefrostDB().selectRecord(record), 0);
    EXPECT_EQ(record, (scheduleRecord{"0", "", "", "", ""}));
    EXPECT_EQ(log::messages().back(), "constainer size : 0");
}

TEST_F(ReservationStoreTest, OrderedReadingSortsIdsAsNumbers) {
    const auto named = [](const std::string &id) { return scheduleRecord{id, "d", "s", "e", "p"}; };
    insertAll({named("2"), named("10"), named("0"), named("1")});
    std::vector<scheduleRecord> ascending;
    std::vector<scheduleRecord> descending;
    EXPECT_EQ(DefrostDB().selectOrderByAsc(ascending), 0);
    EXPECT_EQ(DefrostDB().selectOrderByDesc(descending), 0);
    EXPECT_THAT(ascending, ElementsAre(named("0"), named("1"), named("2"), named("10")));
    EXPECT_THAT(descending, ElementsAre(named("10"), named("2"), named("1"), named("0")));
    EXPECT_THAT(storage::statements(),
                ElementsAre("SELECT * FROM defrost_usage_table ORDER BY id ASC",
                            "SELECT * FROM defrost_usage_table ORDER BY id DESC"));
    EXPECT_THAT(log::messages(), IsEmpty());
}

TEST_F(ReservationStoreTest, OrderedReadingAppendsToWhatTheListHolds) {
    insertAll({summer});
    std::vector<scheduleRecord> records{remote};
    EXPECT_EQ(DefrostDB().selectOrderByAsc(records), 0);
    EXPECT_THAT(records, ElementsAre(remote, summer));
    EXPECT_EQ(DefrostDB().selectOrderByDesc(records), 0);
    EXPECT_THAT(records, ElementsAre(remote, summer, summer));
}

TEST_F(ReservationStoreTest, OrderedReadingOfAnEmptyTableAppendsNothing) {
    std::vector<scheduleRecord> records{remote};
    EXPECT_EQ(DefrostDB().selectOrderByAsc(records), 0);
    EXPECT_EQ(DefrostDB().selectOrderByDesc(records), 0);
    EXPECT_THAT(records, ElementsAre(remote));
}

TEST_F(ReservationStoreTest, OpenAnswersTheLastCode) {
    DefrostDB store;
    store.close();
    {
        const NoMemory noMemory;
        EXPECT_EQ(store.open(), SQLITE_NOMEM);
    }
    EXPECT_EQ(store.open(), 0);
    EXPECT_EQ(store.open(), 0);
}

TEST_F(ReservationStoreTest, OperationsAfterAFailedOpenFailInTheLayerBelow) {
    storage::failOpens(1);
    DefrostDB store;
    EXPECT_EQ(store.insertRecord(summer), SQLITE_MISUSE);
    std::vector<scheduleRecord> records;
    EXPECT_EQ(store.selectOrderByAsc(records), 0);
    EXPECT_THAT(records, IsEmpty());
    EXPECT_THAT(log::messages(), Not(IsEmpty()));
}

TEST_F(ReservationStoreTest, EventAndReservationsShareTheFileWithoutTouchingEachOther) {
    DrDB().create();
    insertAll({summer});
    DrDB events;
    events.insertRecord({"0", "2", "01:00:00", "2026-05-01T14:00:00"});
    EXPECT_EQ(DefrostDB().insertRecord(winter), 0); // over a connection beside the first
    events.deleteRecord();
    EXPECT_THAT(stored(), ElementsAre(summer, winter));
}

} // namespace
