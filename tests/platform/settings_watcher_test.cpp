/*
 * Changes of the settings store, as a watcher gets them.
 */
#include "settings_watcher.h"

#include "child.h"
#include "temp_folder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <new>
#include <thread>

#include <poll.h>
#include <sys/mman.h>

using namespace corvane::platform;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kLongWaitMs = 60'000; // only a failing test waits so long

bool readable(int fd, int waitMs) {
    pollfd events{fd, POLLIN, 0};
    return poll(&events, 1, waitMs) == 1;
}

class SettingsWatcherTest : public testing::Test {
protected:
    SettingsWatcherTest() {
        EXPECT_TRUE(store.open(temp.folders()).ok());
        EXPECT_TRUE(watcher.open().ok());
    }

    void put(const std::string &key, SettingValue value) {
        const Status status = store.write(key, value);
        ASSERT_TRUE(status.ok()) << status.text;
    }

    /* What there is to deliver now: a write has notified by the time it returns. */
    std::vector<SettingChange> drained() {
        std::vector<SettingChange> changes;
        while (readable(watcher.fd(), 0))
            EXPECT_TRUE(watcher.drain([&](const SettingChange &c) { changes.push_back(c); }).ok());
        return changes;
    }

    std::vector<int> drainedNumbers() {
        std::vector<int> numbers;
        for (const SettingChange &change : drained())
            numbers.push_back(std::get<int>(change.value.value()));
        return numbers;
    }

    std::string fileOf(const std::string &name) const {
        return temp / ("runtime/settings/memory/" + name);
    }

    TempFolder temp;
    SettingsStore store;
    SettingsWatcher watcher{store};
};

/* Shared with the writers' processes: how far the reader is. */
struct Progress {
    std::atomic<int> written{0};
    std::atomic<int> delivered{0};
};

class SharedProgress {
public:
    SharedProgress()
        : progress_(new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress) {}
    ~SharedProgress() { munmap(progress_, sizeof(Progress)); }
    SharedProgress(const SharedProgress &) = delete;
    SharedProgress &operator=(const SharedProgress &) = delete;
    Progress *operator->() const { return progress_; }

private:
    Progress *progress_;
};

/* Writes "<writer> 0" to "<writer> count-1", never more than ahead values before the reader. */
int writeNumbered(const Folders &folders, char writer, int count, int ahead, Progress &progress) {
    SettingsStore store;
    if (!store.open(folders).ok())
        return 1;
    for (int i = 0; i < count; ++i) {
        while (progress.written - progress.delivered >= ahead)
            std::this_thread::yield();
        ++progress.written;
        if (!store.write("memory/log", std::string(1, writer) + " " + std::to_string(i)).ok())
            return 1;
    }
    return 0;
}

} // namespace

TEST_F(SettingsWatcherTest, EachWriteIsDeliveredOnceInOrder) {
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    for (int value : {1, 2, 2, 3})
        put("memory/a", value);
    const auto changes = drained();
    ASSERT_EQ(4U, changes.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ("memory/a", changes[i].key);
        EXPECT_EQ(i + 1, changes[i].sequence);
        EXPECT_EQ(0U, changes[i].missed);
    }
    EXPECT_EQ(SettingValue(3), changes.back().value);
    EXPECT_THAT(drained(), IsEmpty());
}

TEST_F(SettingsWatcherTest, WriteOfTheSameValueIsAChange) {
    put("memory/a", 1);
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("memory/a", 1);
    EXPECT_THAT(drainedNumbers(), ElementsAre(1));
}

TEST_F(SettingsWatcherTest, OnlyWatchedKeysAndLaterWritesAreDelivered) {
    put("memory/a", 1);
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("memory/b", 7);
    put("memory/a", 2);
    EXPECT_THAT(drainedNumbers(), ElementsAre(2));
}

TEST_F(SettingsWatcherTest, BothRootsAreWatched) {
    ASSERT_TRUE(watcher.watch("db/a").ok());
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("db/a", 1);
    put("memory/a", 2);
    EXPECT_THAT(drainedNumbers(), ElementsAre(1, 2));
}

TEST_F(SettingsWatcherTest, WatchingAgainDeliversNothingTwice) {
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("memory/a", 1);
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    EXPECT_THAT(drainedNumbers(), ElementsAre(1));
}

TEST_F(SettingsWatcherTest, BadKeyIsRefused) { EXPECT_FALSE(watcher.watch("memory/../a").ok()); }

TEST_F(SettingsWatcherTest, WatchAllCoversKeysMadeLater) {
    put("memory/old", 1);
    ASSERT_TRUE(watcher.watchAll().ok());
    put("memory/old", 2);
    put("db/new", 3);
    put("db/new", 4);
    EXPECT_THAT(drainedNumbers(), ElementsAre(2, 3, 4));
}

TEST_F(SettingsWatcherTest, DeliverMayUseTheStoreAndTheWatcher) {
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("memory/a", 1);
    std::vector<std::string> seen;
    while (readable(watcher.fd(), 0))
        ASSERT_TRUE(watcher
                        .drain([&](const SettingChange &change) {
                            seen.push_back(change.key);
                            if (change.key == "memory/a") {
                                EXPECT_TRUE(watcher.watch("memory/b").ok());
                                EXPECT_TRUE(store.write("memory/b", 2).ok());
                            }
                        })
                        .ok());
    EXPECT_THAT(seen, ElementsAre("memory/a", "memory/b"));
}

TEST_F(SettingsWatcherTest, TooLateForSomeValuesTellsHowMany) {
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    const std::string large(kMaxSettingText, 'x');
    for (int i = 0; i < 30; ++i)
        put("memory/a", large);
    const auto changes = drained();
    ASSERT_EQ(17U, changes.size());
    EXPECT_EQ(13U, changes[0].missed);
    EXPECT_EQ(14U, changes[0].sequence);
    EXPECT_EQ(0U, changes[1].missed);
    EXPECT_EQ(30U, changes.back().sequence);
}

TEST_F(SettingsWatcherTest, FileThatCannotBeReadIsAChangeWithoutValue) {
    put("memory/a", 1);
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    writeFile(temp / "rubbish", "rubbish");
    std::filesystem::rename(temp / "rubbish", fileOf("a"));
    const auto changes = drained();
    ASSERT_EQ(1U, changes.size());
    EXPECT_FALSE(changes[0].value.has_value());
    put("memory/a", 2);
    EXPECT_THAT(drainedNumbers(), ElementsAre(2)) << "the file begun anew starts at 1 again";
}

TEST_F(SettingsWatcherTest, FileBegunAnewAtTheSameNumberIsAChange) {
    put("memory/a", 1);
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    std::filesystem::remove(fileOf("a"));
    put("memory/a", 2);
    EXPECT_THAT(drainedNumbers(), ElementsAre(2));
}

TEST_F(SettingsWatcherTest, FilePutBackFromACopyDeliversItsValueOnce) {
    put("memory/a", 1);
    std::filesystem::copy_file(fileOf("a"), temp / "copy");
    ASSERT_TRUE(watcher.watch("memory/a").ok());
    put("memory/a", 2);
    put("memory/a", 3);
    EXPECT_THAT(drainedNumbers(), ElementsAre(2, 3));
    std::filesystem::rename(temp / "copy", fileOf("a"));
    EXPECT_THAT(drainedNumbers(), ElementsAre(1));
}

TEST_F(SettingsWatcherTest, LostNotificationsLoseNoValue) {
    ASSERT_TRUE(watcher.watch("memory/late").ok());
    ASSERT_TRUE(watcher.watch("memory/quiet").ok());
    const int queueLength = std::stoi(readFile("/proc/sys/fs/inotify/max_queued_events"));
    // Equal notifications in a row are merged: two keys in turn fill the kernel's queue.
    for (int i = 0; i < queueLength / 2 + 1; ++i) {
        put("memory/a", i);
        put("memory/b", i);
    }
    put("memory/late", 1);
    put("memory/late", 2);
    EXPECT_THAT(drainedNumbers(), ElementsAre(1, 2));
    put("memory/late", 3);
    EXPECT_THAT(drainedNumbers(), ElementsAre(3));
}

TEST_F(SettingsWatcherTest, OpenThatFailedMayBeRepeatedAndTakesNoOtherDescriptor) {
    std::filesystem::rename(temp / "runtime/settings/memory", temp / "aside");
    SettingsWatcher other(store);
    EXPECT_EQ(ENOENT, other.open().code);
    const int fd = other.fd();
    EXPECT_EQ(ENOENT, other.open().code);
    EXPECT_EQ(fd, other.fd());
    std::filesystem::rename(temp / "aside", temp / "runtime/settings/memory");
    ASSERT_TRUE(other.open().ok());
    EXPECT_EQ(fd, other.fd());
    ASSERT_TRUE(other.watch("memory/a").ok());
    put("memory/a", 1);
    EXPECT_TRUE(readable(other.fd(), 0));
}

TEST_F(SettingsWatcherTest, RemovedFolderIsAFailure) {
    std::filesystem::remove_all(temp / "runtime/settings");
    ASSERT_TRUE(readable(watcher.fd(), kLongWaitMs));
    EXPECT_FALSE(watcher.drain([](const SettingChange &) {}).ok());
}

TEST_F(SettingsWatcherTest, TwoWritersInTwoProcessesReachTheReaderInOrder) {
    constexpr int kEach = 5000;
    constexpr int kAhead = 64; // well within what the key's file keeps
    const SharedProgress progress;
    ASSERT_TRUE(watcher.watch("memory/log").ok());
    std::vector<pid_t> writers;
    for (char name : {'A', 'B'})
        writers.push_back(startChild([&, name] {
            return writeNumbered(temp.folders(), name, kEach, kAhead, *progress.operator->());
        }));
    std::map<char, int> next{{'A', 0}, {'B', 0}};
    std::uint64_t sequence = 0;
    while (sequence < 2 * kEach && readable(watcher.fd(), kLongWaitMs)) {
        const Status status = watcher.drain([&](const SettingChange &change) {
            const std::string text = std::get<std::string>(change.value.value());
            EXPECT_EQ(++sequence, change.sequence);
            EXPECT_EQ(0U, change.missed);
            EXPECT_EQ(std::string(1, text[0]) + " " + std::to_string(next[text[0]]++), text);
            ++progress->delivered;
        });
        ASSERT_TRUE(status.ok());
    }
    for (pid_t writer : writers)
        EXPECT_EQ(0, waitForChild(writer));
    EXPECT_EQ(2U * kEach, sequence);
    EXPECT_EQ(kEach, next['A']);
    EXPECT_EQ(kEach, next['B']);
}

TEST_F(SettingsWatcherTest, WritersAtFullSpeedReorderNothingAndEveryWriteCounts) {
    constexpr int kEach = 5000;
    const SharedProgress progress;
    ASSERT_TRUE(watcher.watch("memory/log").ok());
    std::vector<pid_t> writers;
    for (char name : {'A', 'B'})
        writers.push_back(startChild([&, name] {
            return writeNumbered(temp.folders(), name, kEach, 2 * kEach, *progress.operator->());
        }));
    std::map<char, int> last{{'A', -1}, {'B', -1}};
    std::uint64_t counted = 0;
    while (counted < 2 * kEach && readable(watcher.fd(), kLongWaitMs)) {
        const Status status = watcher.drain([&](const SettingChange &change) {
            const std::string text = std::get<std::string>(change.value.value());
            const int number = std::stoi(text.substr(2));
            EXPECT_LT(last[text[0]], number);
            last[text[0]] = number;
            counted += change.missed + 1;
            EXPECT_EQ(counted, change.sequence);
        });
        ASSERT_TRUE(status.ok());
    }
    for (pid_t writer : writers)
        EXPECT_EQ(0, waitForChild(writer));
    EXPECT_EQ(2U * kEach, counted);
}
