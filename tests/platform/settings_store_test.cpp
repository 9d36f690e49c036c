/*
 * The settings store's files.
 */
#include "settings_store.h"

#include "child.h"
#include "temp_folder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using namespace corvane::platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *kCommand = "memory/refrigerator/TxMessage";
constexpr const char *kLevel = "db/corvane/dr/level";

class SettingsStoreTest : public testing::Test {
protected:
    SettingsStoreTest() { EXPECT_TRUE(store.open(temp.folders()).ok()); }

    std::string levelFile() const { return temp / "state/settings/db/corvane:dr:level"; }
    std::string commandFile() const {
        return temp / "runtime/settings/memory/refrigerator:TxMessage";
    }
    SettingValue valueOf(const std::string &key) const {
        SettingValue value;
        const Status status = store.read(key, value);
        EXPECT_TRUE(status.ok()) << status.text;
        return value;
    }

    TempFolder temp;
    SettingsStore store;
};

} // namespace

TEST_F(SettingsStoreTest, ValuesReadBackWithTheirType) {
    ASSERT_TRUE(store.write(kLevel, 2).ok());
    ASSERT_TRUE(store.write(kCommand, std::string("SET_SMARTGRID_LEVEL2")).ok());
    EXPECT_EQ(SettingValue(2), valueOf(kLevel));
    EXPECT_EQ(SettingValue("SET_SMARTGRID_LEVEL2"), valueOf(kCommand));
    ASSERT_TRUE(store.write(kLevel, std::string("two")).ok()) << "a key may change its type";
    EXPECT_EQ(SettingValue("two"), valueOf(kLevel));
}

TEST_F(SettingsStoreTest, KeysAreFilesOfTheUserAloneInTheirFolders) {
    ASSERT_TRUE(store.write(kLevel, 2).ok());
    ASSERT_TRUE(store.write(kCommand, std::string("x")).ok());
    for (const std::string &path : {levelFile(), commandFile()}) {
        struct stat found {};
        ASSERT_EQ(0, stat(path.c_str(), &found)) << path;
        EXPECT_EQ(0600U, found.st_mode & 07777);
    }
    EXPECT_EQ("int 2\n", readFile(levelFile()).substr(0, 6));
}

TEST_F(SettingsStoreTest, AbsentKeyIsNotFoundAndLeavesTheOutputAlone) {
    SettingValue value = 7;
    EXPECT_EQ(ENOENT, store.read(kLevel, value).code);
    EXPECT_EQ(SettingValue(7), value);
}

TEST_F(SettingsStoreTest, OtherProcessSeesAWriteOnItsReturn) {
    const int status = waitForChild(startChild([this] {
        SettingsStore other;
        return other.open(temp.folders()).ok() && other.write(kLevel, 4).ok() ? 0 : 1;
    }));
    ASSERT_EQ(0, status);
    EXPECT_EQ(SettingValue(4), valueOf(kLevel));
}

TEST_F(SettingsStoreTest, ValuesOutliveTheStore) {
    ASSERT_TRUE(store.write(kLevel, 3).ok());
    SettingsStore later;
    ASSERT_TRUE(later.open(temp.folders()).ok());
    SettingValue value;
    ASSERT_TRUE(later.read(kLevel, value).ok());
    EXPECT_EQ(SettingValue(3), value);
}

TEST_F(SettingsStoreTest, RecordHoldsTheValuesNewestFirst) {
    for (int value : {5, 6, 6, 7})
        ASSERT_TRUE(store.write(kLevel, value).ok());
    SettingRecord record;
    ASSERT_TRUE(store.readRecord(kLevel, record).ok());
    EXPECT_EQ(4U, record.sequence);
    EXPECT_THAT(record.values,
                ElementsAre(SettingValue(7), SettingValue(6), SettingValue(6), SettingValue(5)));
}

TEST_F(SettingsStoreTest, BadKeysAreRefusedWithTheReasonAndMakeNoFile) {
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"", "neither"},
        {"db", "neither"},
        {"file/x", "neither"},
        {"/db/x", "neither"},
        {"db/", "empty"},
        {"db/a//b", "empty"},
        {"db/a/", "empty"},
        {"db/../x", "\"..\""},
        {"db/a/../../x", "\"..\""},
        {"memory/a..b", "\"..\""},
        {"memory/.hidden", "dot"},
        {"db/a/.lock", "dot"},
        {"db/a\nb", "control"},
        {"db/a\x7f", "control"},
        {"db/" + std::string(kMaxSettingKey, 'x'), "too long"},
        {"db/" + std::string(100, '%'), "too long"},
    };
    for (const auto &[key, reason] : bad) {
        const Status status = store.write(key, 1);
        EXPECT_EQ(EINVAL, status.code) << key;
        EXPECT_THAT(status.text, HasSubstr(reason)) << key;
        EXPECT_EQ(std::string::npos, status.text.find('\n')) << key;
        SettingValue value;
        EXPECT_EQ(EINVAL, store.read(key, value).code) << key;
    }
    std::vector<std::string> keys;
    ASSERT_TRUE(store.list(keys).ok());
    EXPECT_THAT(keys, IsEmpty());
}

TEST_F(SettingsStoreTest, KeysThatDifferHaveFilesThatDiffer) {
    const std::vector<std::string> keys = {"db/a%3Ab", "db/a/b",     "db/a:b",
                                           "db/a%2Fb", "memory/a/b", "memory/with blank.and.dot"};
    for (std::size_t i = 0; i < keys.size(); ++i)
        ASSERT_TRUE(store.write(keys[i], static_cast<int>(i)).ok()) << keys[i];
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(SettingValue(static_cast<int>(i)), valueOf(keys[i])) << keys[i];
    std::vector<std::string> found;
    ASSERT_TRUE(store.list(found).ok());
    EXPECT_THAT(found, testing::UnorderedElementsAreArray(keys));
    EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
}

TEST_F(SettingsStoreTest, ForeignFilesAreNoKeys) {
    writeFile(temp / "state/settings/db/a%zz", "");
    writeFile(temp / "state/settings/db/::", "");
    std::vector<std::string> keys;
    ASSERT_TRUE(store.list(keys).ok());
    EXPECT_THAT(keys, IsEmpty());
}

TEST_F(SettingsStoreTest, BadTextsAreRefused) {
    EXPECT_TRUE(store.write(kCommand, std::string(kMaxSettingText, '\n')).ok());
    EXPECT_EQ(EINVAL, store.write(kCommand, std::string(kMaxSettingText + 1, 'x')).code);
    EXPECT_EQ(EINVAL, store.write(kCommand, std::string("a\0b", 3)).code);
    EXPECT_EQ(SettingValue(std::string(kMaxSettingText, '\n')), valueOf(kCommand));
}

TEST_F(SettingsStoreTest, LargestFileReadsBack) {
    const std::string largest(kMaxSettingText, '\x01');
    for (std::size_t i = 0; i < 20; ++i)
        ASSERT_TRUE(store.write(kCommand, largest).ok());
    SettingRecord record;
    ASSERT_TRUE(store.readRecord(kCommand, record).ok());
    EXPECT_EQ(20U, record.sequence);
    EXPECT_EQ(SettingValue(largest), record.values.back());
}

TEST_F(SettingsStoreTest, DamagedFileIsAFailedReadUntilTheKeyIsWritten) {
    for (const std::string &text : {std::string(), std::string("int 3"), std::string(4096, '\0'),
                                    std::string(1 << 20, 'x')}) {
        writeFile(levelFile(), text);
        SettingValue value = 7;
        EXPECT_FALSE(store.read(kLevel, value).ok());
        EXPECT_EQ(SettingValue(7), value);
        ASSERT_TRUE(store.write(kLevel, 3).ok());
        EXPECT_EQ(SettingValue(3), valueOf(kLevel));
    }
}

TEST_F(SettingsStoreTest, DamageNamesTheFile) {
    writeFile(levelFile(), "rubbish");
    SettingValue value;
    const Status status = store.read(kLevel, value);
    EXPECT_EQ(EBADMSG, status.code);
    EXPECT_THAT(status.text, HasSubstr(levelFile()));
}

TEST_F(SettingsStoreTest, PipeInTheFilesPlaceDoesNotBlock) {
    ASSERT_EQ(0, mkfifo(levelFile().c_str(), 0600));
    SettingValue value;
    EXPECT_FALSE(store.read(kLevel, value).ok());
}

TEST_F(SettingsStoreTest, LinkInTheFilesPlaceIsNotFollowed) {
    writeFile(temp / "elsewhere", "int 9\nchange 1 since 2026-11-21T11:54:26.123456Z\n");
    ASSERT_EQ(0, symlink((temp / "elsewhere").c_str(), levelFile().c_str()));
    SettingValue value;
    EXPECT_EQ(ELOOP, store.read(kLevel, value).code);
    ASSERT_TRUE(store.write(kLevel, 1).ok());
    EXPECT_EQ(SettingValue(1), valueOf(kLevel));
    EXPECT_EQ("int 9\n", readFile(temp / "elsewhere").substr(0, 6));
}

TEST_F(SettingsStoreTest, FilesOfKilledWritersAreSweptAtStart) {
    writeFile(temp / "state/settings/db/.new-123-4", "int");
    writeFile(temp / "runtime/settings/memory/.new-99-0", "");
    ASSERT_TRUE(store.write(kLevel, 1).ok());
    SettingsStore later;
    ASSERT_TRUE(later.open(temp.folders()).ok());
    EXPECT_THAT(namesIn(temp / "state/settings/db"), ElementsAre("corvane:dr:level"));
    EXPECT_THAT(namesIn(temp / "runtime/settings/memory"), IsEmpty());
}

TEST_F(SettingsStoreTest, WritesLeaveNothingButTheKeys) {
    for (int value = 0; value < 10; ++value)
        ASSERT_TRUE(store.write(kLevel, value).ok());
    EXPECT_THAT(namesIn(temp / "state/settings/db"), ElementsAre("corvane:dr:level"));
}

TEST_F(SettingsStoreTest, FailedWriteChangesNothingAndLeavesNothing) {
    ASSERT_EQ(0, mkdir(levelFile().c_str(), 0700));
    EXPECT_EQ(EISDIR, store.write(kLevel, 1).code);
    EXPECT_THAT(namesIn(temp / "state/settings/db"), ElementsAre("corvane:dr:level"));
}

TEST_F(SettingsStoreTest, FolderThatCannotBeUsedIsOneLineWithTheVariable) {
    TempFolder other;
    ASSERT_TRUE(makeFolder(other / "state").ok());
    writeFile(other / "state/settings", "");
    SettingsStore blocked;
    const Status status = blocked.open(other.folders());
    EXPECT_EQ(ENOTDIR, status.code);
    EXPECT_THAT(status.text, HasSubstr("CORVANE_STATE_DIR"));
    EXPECT_EQ(std::string::npos, status.text.find('\n'));
}

TEST_F(SettingsStoreTest, OpeningToReadMakesAndSweepsNothing) {
    ASSERT_TRUE(store.write(kLevel, 2).ok());
    writeFile(temp / "state/settings/db/.new-123-4", "int");
    std::filesystem::remove_all(temp / "runtime");
    SettingsStore reader;
    ASSERT_TRUE(reader.openExisting(temp.folders()).ok());
    SettingValue value;
    EXPECT_TRUE(reader.read(kLevel, value).ok());
    EXPECT_EQ(SettingValue(2), value);
    EXPECT_EQ(ENOENT, reader.read(kCommand, value).code);
    EXPECT_EQ(ENOENT, reader.write(kCommand, 1).code);
    std::vector<std::string> keys;
    EXPECT_TRUE(reader.list(keys).ok());
    EXPECT_THAT(keys, ElementsAre(kLevel));
    EXPECT_THAT(namesIn(temp / ""), ElementsAre("state"));
    EXPECT_THAT(namesIn(temp / "state/settings/db"), ElementsAre(".new-123-4", "corvane:dr:level"));
}

TEST_F(SettingsStoreTest, OpeningToReadRefusesAFolderInTmpThatOthersCanRead) {
    Folders folders = temp.folders();
    folders.runtimeIsInTmp = true;
    ASSERT_EQ(0, chmod(folders.runtime.c_str(), 0755));
    SettingsStore reader;
    EXPECT_EQ(EPERM, reader.openExisting(folders).code);
    std::filesystem::remove_all(folders.runtime);
    EXPECT_TRUE(reader.openExisting(folders).ok()) << "a folder that is missing harms nobody";
}

TEST_F(SettingsStoreTest, ThreadsTakeTurnsAndLoseNoWrite) {
    constexpr int kWrites = 500;
    const auto work = [this](const std::string &key) {
        for (int i = 0; i < kWrites; ++i) {
            SettingValue value;
            EXPECT_TRUE(store.write("memory/shared", i).ok());
            EXPECT_TRUE(store.write(key, i).ok());
            EXPECT_TRUE(store.read("memory/shared", value).ok());
        }
    };
    std::thread one(work, "memory/one");
    std::thread two(work, "memory/two");
    one.join();
    two.join();
    SettingRecord record;
    ASSERT_TRUE(store.readRecord("memory/shared", record).ok());
    EXPECT_EQ(2U * kWrites, record.sequence);
}
