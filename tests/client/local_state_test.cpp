/* What the service's files tell from outside, and that looking changes none of them. */
#include "local_state.h"

#include "calendar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <sqlite3.h>

namespace corvane::client {
namespace {

using testing::HasSubstr;

class FilesOfTheService : public testing::Test {
protected:
    FilesOfTheService() {
        std::string name = testing::TempDir() + "corvanectl-XXXXXX";
        folder_ = mkdtemp(name.data());
        folders_.state = folder_ + "/state";
        folders_.runtime = folder_ + "/runtime";
    }
    ~FilesOfTheService() override { std::filesystem::remove_all(folder_); }

    void sql(const std::string &text) {
        std::filesystem::create_directories(folders_.state + "/db");
        sqlite3 *database = nullptr;
        ASSERT_EQ(sqlite3_open((folders_.state + "/db/corvane.db").c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
    }
    void makeTable() {
        sql("CREATE TABLE dr_usage_table(rowid INTEGER PRIMARY KEY AUTOINCREMENT,"
            " drlcLevel NUMERIC(4) NOT NULL, duration TEXT NOT NULL, drlcStartTime TEXT NOT NULL)");
    }

    std::string folder_;
    platform::Folders folders_;
};

TEST_F(FilesOfTheService, WithoutFilesEverythingIsUnknownAndNothingIsMade) {
    const LocalState state(folders_);
    EXPECT_FALSE(state.integer("db/corvane/dr/level").value);
    EXPECT_THAT(state.integer("db/corvane/dr/level").missing, HasSubstr(folders_.state));
    EXPECT_FALSE(state.event().value);
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(FilesOfTheService, IntegerKeysAreRead) {
    platform::SettingsStore store;
    ASSERT_TRUE(store.open(folders_).ok());
    ASSERT_TRUE(store.write("db/corvane/dr/level", 3).ok());
    ASSERT_TRUE(store.write("db/corvane/note", std::string("3")).ok());
    const LocalState state(folders_);
    EXPECT_EQ(state.integer("db/corvane/dr/level").value, 3);
    EXPECT_THAT(state.integer("db/corvane/dr/override").missing, HasSubstr("not stored it yet"));
    EXPECT_THAT(state.integer("db/corvane/note").missing, HasSubstr("holds a text"));
}

TEST_F(FilesOfTheService, LookingMakesNotTheFolderThatIsMissing) {
    platform::SettingsStore store;
    ASSERT_TRUE(store.open(folders_).ok());
    ASSERT_TRUE(store.write("db/corvane/dr/level", 3).ok());
    std::filesystem::remove_all(folders_.runtime);
    const LocalState state(folders_);
    EXPECT_EQ(state.integer("db/corvane/dr/level").value, 3);
    EXPECT_THAT(state.integer("memory/board/power").missing, HasSubstr("not stored it yet"));
    EXPECT_FALSE(std::filesystem::exists(folders_.runtime));
}

TEST_F(FilesOfTheService, EmptyTableMeansNoEvent) {
    makeTable();
    const auto event = LocalState(folders_).event();
    ASSERT_TRUE(event.value) << event.missing;
    EXPECT_FALSE(event.value->stored);
}

TEST_F(FilesOfTheService, StoredEventIsReadInUtc) {
    makeTable();
    sql("INSERT INTO dr_usage_table VALUES('0', '3', '01:30:00', '2026-03-15T14:00:00')");
    const auto event = LocalState(folders_).event();
    ASSERT_TRUE(event.value && event.value->details) << event.missing;
    EXPECT_EQ(event.value->details->level, 3);
    EXPECT_EQ(event.value->details->time.start, parseUtc("2026-03-15T14:00:00"));
    EXPECT_EQ(event.value->details->time.end, parseUtc("2026-03-15T15:30:00"));
}

TEST_F(FilesOfTheService, RowWithTheHighestNumberIsTheEvent) {
    makeTable();
    sql("INSERT INTO dr_usage_table VALUES(5, '4', '01:00:00', '2026-03-15T14:00:00');"
        "INSERT INTO dr_usage_table VALUES(2, '1', '01:00:00', '2026-03-15T14:00:00')");
    EXPECT_EQ(LocalState(folders_).event().value->details->level, 4);
}

TEST_F(FilesOfTheService, LevelZeroIsNoEvent) {
    makeTable();
    sql("INSERT INTO dr_usage_table VALUES(0, '0', '01:00:00', '2026-03-15T14:00:00')");
    EXPECT_FALSE(LocalState(folders_).event().value->stored);
}

TEST_F(FilesOfTheService, TableThatTheServiceHasNotMadeYetIsToldInItsWords) {
    sql("CREATE TABLE other(x)");
    EXPECT_EQ(LocalState(folders_).event().missing, "the service has not made its event table yet");
}

TEST_F(FilesOfTheService, DamagedOrForeignTableIsUnknownWithItsReason) {
    sql("CREATE TABLE dr_usage_table(x)");
    EXPECT_THAT(LocalState(folders_).event().missing, HasSubstr("no such column"));
    sql("DROP TABLE dr_usage_table");
    makeTable();
    sql("INSERT INTO dr_usage_table VALUES(0, '2', 'long', '2026-03-15T14:00:00')");
    EXPECT_THAT(LocalState(folders_).event().missing, HasSubstr("malformed"));
    std::ofstream(folders_.state + "/db/corvane.db", std::ios::trunc) << std::string(4096, 'x');
    EXPECT_THAT(LocalState(folders_).event().missing, HasSubstr("not a database"));
}

TEST_F(FilesOfTheService, TableThatTheServiceIsWritingIsNotDisturbed) {
    makeTable();
    sqlite3 *writer = nullptr;
    ASSERT_EQ(sqlite3_open((folders_.state + "/db/corvane.db").c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN IMMEDIATE; DELETE FROM dr_usage_table", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    EXPECT_TRUE(LocalState(folders_).event().value);
    EXPECT_EQ(sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(writer);
}

TEST(ReadEvent, FieldsThatCannotBeReadMakeNoEvent) {
    EXPECT_TRUE(readEvent("2", "01:00:00", "2026-03-15T14:00:00"));
    EXPECT_FALSE(readEvent("two", "01:00:00", "2026-03-15T14:00:00"));
    EXPECT_FALSE(readEvent("2", "1 h", "2026-03-15T14:00:00"));
    EXPECT_FALSE(readEvent("2", "01:00:00", "today"));
}

} // namespace
} // namespace corvane::client
