/*
 * One service at a time on one pair of folders.
 */
#include "instance_lock.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <optional>

using namespace corvane::platform;
using testing::HasSubstr;

namespace {

class InstanceLockTest : public testing::Test {
protected:
    InstanceLockTest() { require(makeFolders(folders)); }
    static void require(const Status &status) {
        if (!status.ok())
            throw std::runtime_error(status.text);
    }

    TempFolder temp;
    Folders folders = temp.folders();
};

} // namespace

TEST_F(InstanceLockTest, SecondOneOnTheSameFoldersIsRefusedWithTheVariableToSet) {
    InstanceLock first;
    require(first.take(folders));
    InstanceLock second;
    const Status status = second.take(folders);
    EXPECT_EQ(status.code, EWOULDBLOCK);
    EXPECT_THAT(status.text, HasSubstr(folders.state));
    EXPECT_THAT(status.text, HasSubstr("CORVANE_STATE_DIR"));
}

TEST_F(InstanceLockTest, EitherFolderAloneIsEnoughToRefuse) {
    InstanceLock first;
    require(first.take(folders));
    Folders other = folders;
    other.state = temp / "other";
    require(makeFolders(other));
    InstanceLock second;
    const Status status = second.take(other);
    EXPECT_EQ(status.code, EWOULDBLOCK);
    EXPECT_THAT(status.text, HasSubstr("CORVANE_RUNTIME_DIR"));
}

TEST_F(InstanceLockTest, FoldersAreFreeAgainWhenTheFirstOneGoes) {
    std::optional<InstanceLock> first(std::in_place);
    require(first->take(folders));
    first.reset();
    InstanceLock second;
    EXPECT_TRUE(second.take(folders).ok());
}

TEST_F(InstanceLockTest, OneFolderMayServeAsBoth) {
    folders.runtime = folders.state;
    InstanceLock lock;
    EXPECT_TRUE(lock.take(folders).ok());
}

TEST_F(InstanceLockTest, LockFileThatCannotBeOpenedIsTold) {
    std::filesystem::create_directory(folders.state + "/state.lock");
    InstanceLock lock;
    const Status status = lock.take(folders);
    EXPECT_EQ(status.code, EISDIR);
    EXPECT_THAT(status.text, HasSubstr("state.lock"));
}
