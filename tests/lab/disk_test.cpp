/*
 * The laboratory's disk: what a power cut leaves of it, and that SQLite's commits on it are sure.
 */
#include "disk.h"

#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>

namespace {

using corvane::lab::Disk;

/* A file through SQLite's own interface, as SQLite uses it. */
class OpenFile {
public:
    explicit OpenFile(const char *name, int kind = SQLITE_OPEN_MAIN_DB)
        : vfs_(sqlite3_vfs_find("lab")),
          memory_(std::make_unique<char[]>(static_cast<std::size_t>(vfs_->szOsFile))) {
        EXPECT_EQ(vfs_->xOpen(vfs_, name, file(), kind | SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                              nullptr),
                  SQLITE_OK);
    }
    ~OpenFile() { file()->pMethods->xClose(file()); }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    void write(const std::string &bytes, sqlite3_int64 offset = 0) {
        EXPECT_EQ(
            file()->pMethods->xWrite(file(), bytes.data(), static_cast<int>(bytes.size()), offset),
            SQLITE_OK);
    }
    void sync() { EXPECT_EQ(file()->pMethods->xSync(file(), SQLITE_SYNC_FULL), SQLITE_OK); }
    int lock(int level) { return file()->pMethods->xLock(file(), level); }
    std::string read() {
        sqlite3_int64 size = 0;
        file()->pMethods->xFileSize(file(), &size);
        std::string bytes(static_cast<std::size_t>(size), '?');
        file()->pMethods->xRead(file(), bytes.data(), static_cast<int>(size), 0);
        return bytes;
    }

private:
    sqlite3_file *file() { return reinterpret_cast<sqlite3_file *>(memory_.get()); }

    sqlite3_vfs *vfs_;
    std::unique_ptr<char[]> memory_;
};

std::unique_ptr<Disk> madeDisk(std::uint64_t seed) {
    auto disk = std::make_unique<Disk>(seed);
    disk->install();
    return disk;
}

/* A file that is there for sure: its name was synced with a journal's. */
void makeSureFile(const std::string &bytes) {
    OpenFile file("/lab/file");
    file.write(bytes);
    file.sync();
    OpenFile journal("/lab/journal", SQLITE_OPEN_MAIN_JOURNAL);
    journal.sync();
}

TEST(LabDisk, SyncedBytesSurviveAPowerCut) {
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        const auto disk = madeDisk(seed);
        makeSureFile("synced");
        disk->cutPower();
        EXPECT_EQ(OpenFile("/lab/file").read(), "synced");
    }
}

TEST(LabDisk, UnsyncedSectorsAreKeptOrLostEachByItself) {
    const std::string old(1024, 'o');
    const std::string young(1024, 'y');
    std::set<std::string> outcomes;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        const auto disk = madeDisk(seed);
        makeSureFile(old);
        OpenFile("/lab/file").write(young);
        EXPECT_EQ(OpenFile("/lab/file").read(), young) << "without a cut all is there";
        disk->cutPower();
        outcomes.insert(OpenFile("/lab/file").read());
    }
    const std::string half(512, 'o'), otherHalf(512, 'y');
    EXPECT_EQ(outcomes, (std::set<std::string>{old, young, half + otherHalf, otherHalf + half}));
}

TEST(LabDisk, RemovalIsCertainOnlyOnceItsFolderIsSynced) {
    sqlite3_vfs *vfs = sqlite3_vfs_find("lab");
    for (const int syncsFolder : {0, 1}) {
        std::set<bool> outcomes;
        for (std::uint64_t seed = 1; seed <= 50; ++seed) {
            const auto disk = madeDisk(seed);
            vfs = sqlite3_vfs_find("lab");
            makeSureFile("bytes");
            EXPECT_EQ(vfs->xDelete(vfs, "/lab/file", syncsFolder), SQLITE_OK);
            EXPECT_FALSE(disk->exists("/lab/file"));
            disk->cutPower();
            outcomes.insert(disk->exists("/lab/file"));
        }
        EXPECT_EQ(outcomes.count(true), syncsFolder == 0 ? 1U : 0U);
    }
}

TEST(LabDisk, WriterWaitsForReadersAndLocksGoWithTheProcess) {
    const auto disk = madeDisk(1);
    OpenFile reader("/lab/file");
    OpenFile writer("/lab/file");
    EXPECT_EQ(reader.lock(SQLITE_LOCK_SHARED), SQLITE_OK);
    EXPECT_FALSE(disk->isIdle("/lab/file"));
    EXPECT_EQ(writer.lock(SQLITE_LOCK_SHARED), SQLITE_OK);
    EXPECT_EQ(writer.lock(SQLITE_LOCK_RESERVED), SQLITE_OK);
    EXPECT_EQ(writer.lock(SQLITE_LOCK_EXCLUSIVE), SQLITE_BUSY);
    EXPECT_EQ(disk->busyAnswers(), 1U);
    disk->forgetLocks();
    EXPECT_TRUE(disk->isIdle("/lab/file"));
}

int countRows(sqlite3 *connection) {
    int rows = -1;
    sqlite3_exec(
        connection, "SELECT count(*) FROM t",
        [](void *count, int, char **values, char **) {
            *static_cast<int *>(count) = std::atoi(values[0]);
            return 0;
        },
        &rows, nullptr);
    return rows;
}

TEST(LabDisk, CommittedRowsSurviveEveryPowerCut) {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        const auto disk = madeDisk(seed);
        for (int row = 1; row <= 5; ++row) {
            sqlite3 *connection = nullptr;
            ASSERT_EQ(sqlite3_open("/lab/rows.db", &connection), SQLITE_OK);
            EXPECT_EQ(sqlite3_exec(connection,
                                   "CREATE TABLE IF NOT EXISTS t(x); INSERT INTO t VALUES('row')",
                                   nullptr, nullptr, nullptr),
                      SQLITE_OK);
            sqlite3_close(connection);
            disk->cutPower();
            ASSERT_EQ(sqlite3_open("/lab/rows.db", &connection), SQLITE_OK);
            ASSERT_EQ(countRows(connection), row) << "of seed " << seed;
            sqlite3_close(connection);
        }
    }
}

} // namespace
