/*
 * Where SQLite's files really are, and how safe a commit is.
 */
#include "storage.h"

#include "child.h"
#include "recorded_log.h"
#include "temp_folder.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <thread>

#include <signal.h>
#include <unistd.h>

using namespace corvane::platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *kFrom = "/nowhere/trusted/";

struct Close {
    void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, Close>;

Connection openDatabase(const std::string &path) {
    sqlite3 *opened = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &opened,
                                         SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr))
        << path;
    return Connection(opened);
}

int run(const Connection &connection, const char *sql) {
    return sqlite3_exec(connection.get(), sql, nullptr, nullptr, nullptr);
}

int numberOf(const Connection &connection, const char *sql) {
    sqlite3_stmt *statement = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(connection.get(), sql, -1, &statement, nullptr));
    EXPECT_EQ(SQLITE_ROW, sqlite3_step(statement));
    const int number = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    return number;
}

class StorageVfsTest : public testing::Test {
protected:
    StorageVfsTest() { EXPECT_TRUE(makeFolder(temp / "db").ok()); }

    TempFolder temp;
    StorageVfs vfs{kFrom, temp / "db"};
};

} // namespace

TEST_F(StorageVfsTest, FilesOfTheFolderAreKeptElsewhere) {
    const Connection connection = openDatabase(std::string(kFrom) + "usage.db");
    ASSERT_EQ(SQLITE_OK, run(connection, "CREATE TABLE t(x)"));
    EXPECT_THAT(namesIn(temp / "db"), ElementsAre("usage.db"));
    EXPECT_EQ(temp / "db/usage.db", sqlite3_db_filename(connection.get(), "main"));
}

TEST_F(StorageVfsTest, JournalIsBesideTheFile) {
    const Connection connection = openDatabase(std::string(kFrom) + "usage.db");
    ASSERT_EQ(SQLITE_OK, run(connection, "CREATE TABLE t(x); BEGIN; INSERT INTO t VALUES(1)"));
    EXPECT_THAT(namesIn(temp / "db"), ElementsAre("usage.db", "usage.db-journal"));
    ASSERT_EQ(SQLITE_OK, run(connection, "COMMIT"));
    EXPECT_THAT(namesIn(temp / "db"), ElementsAre("usage.db"));
}

TEST_F(StorageVfsTest, JournalOfAKilledWriterIsRolledBack) {
    const std::string path = std::string(kFrom) + "usage.db";
    ASSERT_EQ(SQLITE_OK, run(openDatabase(path), "CREATE TABLE t(x); INSERT INTO t VALUES(1)"));
    const int status = waitForChild(startChild([&] {
        const Connection writer = openDatabase(path);
        // A cache of one page puts changed pages into the file before the commit.
        run(writer, "PRAGMA cache_size=1; BEGIN; CREATE TABLE u(x); UPDATE t SET x=2;"
                    "INSERT INTO u SELECT zeroblob(4000) FROM (WITH RECURSIVE n(i) AS"
                    "(SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<100) SELECT i FROM n)");
        return raise(SIGKILL);
    }));
    ASSERT_EQ(128 + SIGKILL, status);
    ASSERT_THAT(namesIn(temp / "db"), ElementsAre("usage.db", "usage.db-journal"));
    const Connection reader = openDatabase(path);
    EXPECT_EQ(1, numberOf(reader, "SELECT x FROM t"));
    EXPECT_EQ(1, numberOf(reader, "SELECT count(*) FROM sqlite_master"));
    EXPECT_THAT(namesIn(temp / "db"), ElementsAre("usage.db"));
}

TEST_F(StorageVfsTest, FilesOutsideTheFolderStayWhereTheyAre) {
    ASSERT_EQ(SQLITE_OK, run(openDatabase(temp / "own.db"), "CREATE TABLE t(x)"));
    EXPECT_TRUE(std::filesystem::exists(temp / "own.db"));
    EXPECT_THAT(namesIn(temp / "db"), IsEmpty());
    const std::string from = kFrom;
    for (const std::string &name :
         {from, from + "sub/x.db", from + "../x.db", from + "..", from + ".",
          std::string("/nowhere/trusted"), std::string("/nowhere/trustedx.db"),
          std::string("nowhere/trusted/x.db"), "/prefix" + from + "x.db"})
        EXPECT_EQ(name, vfs.mapped(name));
    EXPECT_EQ(temp / "db/x.db", vfs.mapped(from + "x.db"));
}

TEST_F(StorageVfsTest, EveryOtherStepIsTheBaseLayers) {
    sqlite3_vfs *wrapped = sqlite3_vfs_find(nullptr);
    ASSERT_STREQ("corvane", wrapped->zName);
    int exists = 0;
    ASSERT_EQ(SQLITE_OK,
              wrapped->xAccess(wrapped, temp.path().c_str(), SQLITE_ACCESS_EXISTS, &exists));
    EXPECT_EQ(1, exists);
    sqlite3_int64 time = 0;
    EXPECT_EQ(SQLITE_OK, wrapped->xCurrentTimeInt64(wrapped, &time));
    EXPECT_GT(time, 0);
    double day = 0;
    EXPECT_EQ(SQLITE_OK, wrapped->xCurrentTime(wrapped, &day));
    EXPECT_GT(day, 2440587.5);
    EXPECT_NE(nullptr, wrapped->xGetSystemCall(wrapped, "open"));
    EXPECT_NE(nullptr, wrapped->xNextSystemCall(wrapped, nullptr));
    std::string bytes(64, '\0');
    EXPECT_EQ(64, wrapped->xRandomness(wrapped, 64, bytes.data()));
    EXPECT_NE(std::string(64, '\0'), bytes);
}

TEST_F(StorageVfsTest, NameThatBecomesTooLongIsAnError) {
    sqlite3_vfs *wrapped = sqlite3_vfs_find(nullptr);
    std::string result(8, '\0');
    EXPECT_NE(SQLITE_OK, wrapped->xFullPathname(wrapped, "/nowhere/trusted/x.db",
                                                static_cast<int>(result.size()), result.data()));
}

TEST(Storage, EveryConnectionCommitsWithExtraSynchronous) {
    const TempFolder temp;
    ASSERT_TRUE(prepareStorage(temp.path()).ok());
    ASSERT_TRUE(prepareStorage(temp.path()).ok());
    const std::string path = std::string(kServiceFolder) + "corvane.db";
    for (int i = 0; i < 2; ++i) {
        const Connection connection = openDatabase(path);
        EXPECT_EQ(3, numberOf(connection, "PRAGMA synchronous"));
        ASSERT_EQ(SQLITE_OK, run(connection, "CREATE TABLE IF NOT EXISTS t(x)"));
    }
    EXPECT_THAT(namesIn(temp / "db"), ElementsAre("corvane.db"));
}

TEST(Storage, ConnectionWaitsForTheCommitOfAnotherOne) {
    const TempFolder temp;
    ASSERT_TRUE(prepareStorage(temp.path()).ok());
    const std::string path = temp / "busy.db";
    const Connection writer = openDatabase(path);
    ASSERT_EQ(SQLITE_OK, run(writer, "CREATE TABLE t(x); BEGIN EXCLUSIVE"));
    int synchronous = 0;
    std::thread opener([&] {
        const Connection connection = openDatabase(path);
        synchronous = numberOf(connection, "PRAGMA synchronous");
    });
    EXPECT_EQ(SQLITE_OK, run(writer, "INSERT INTO t VALUES(1); COMMIT"));
    opener.join();
    EXPECT_EQ(3, synchronous);
}

TEST(Storage, FileThatIsNoDatabaseIsToldByTheFirstStatement) {
    const TempFolder temp;
    ASSERT_TRUE(prepareStorage(temp.path()).ok());
    writeFile(temp / "rubbish.db", std::string(4096, 'x'));
    takeLog();
    const Connection connection = openDatabase(temp / "rubbish.db");
    EXPECT_THAT(takeLog(), ElementsAre(HasSubstr("file is not a database")));
    EXPECT_EQ(SQLITE_NOTADB, run(connection, "CREATE TABLE t(x)"));
}

TEST(Storage, FolderThatCannotBeMadeIsOneLine) {
    const TempFolder temp;
    writeFile(temp / "db", "");
    const Status status = prepareStorage(temp.path());
    EXPECT_FALSE(status.ok());
    EXPECT_THAT(status.text, HasSubstr("CORVANE_STATE_DIR"));
}
