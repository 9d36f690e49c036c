/*
 * Where Corvane keeps its files.
 */
#include "folders.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <map>

#include <sys/stat.h>
#include <unistd.h>

using namespace corvane::platform;
using testing::HasSubstr;

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 1000;

Environment environmentOf(std::map<std::string, std::string> variables) {
    return [variables = std::move(variables)](const char *name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    };
}

mode_t modeOf(const std::string &path) {
    struct stat found {};
    EXPECT_EQ(0, stat(path.c_str(), &found)) << path;
    return found.st_mode & 07777;
}

} // namespace

TEST(Folders, RootUsesTheSystemsFolders) {
    Folders folders;
    ASSERT_TRUE(findFolders(environmentOf({{"HOME", "/root"}}), kRoot, folders).ok());
    EXPECT_EQ("/var/lib/corvane", folders.state);
    EXPECT_EQ("/run/corvane", folders.runtime);
    EXPECT_FALSE(folders.runtimeIsInTmp);
}

TEST(Folders, VariablesMoveTheFoldersForEverybody) {
    for (uid_t user : {kRoot, kUser}) {
        Folders folders;
        const auto environment =
            environmentOf({{"CORVANE_STATE_DIR", "/a"}, {"CORVANE_RUNTIME_DIR", "/b/c"}});
        ASSERT_TRUE(findFolders(environment, user, folders).ok());
        EXPECT_EQ("/a", folders.state);
        EXPECT_EQ("/b/c", folders.runtime);
    }
}

TEST(Folders, UserUsesTheDesktopsFolders) {
    Folders folders;
    const auto environment =
        environmentOf({{"XDG_STATE_HOME", "/home/u/state"}, {"XDG_RUNTIME_DIR", "/run/user/1000"}});
    ASSERT_TRUE(findFolders(environment, kUser, folders).ok());
    EXPECT_EQ("/home/u/state/corvane", folders.state);
    EXPECT_EQ("/run/user/1000/corvane", folders.runtime);
    EXPECT_FALSE(folders.runtimeIsInTmp);
}

TEST(Folders, UserWithoutDesktopUsesHomeAndTmp) {
    Folders folders;
    const auto environment = environmentOf({{"HOME", "/home/u"}, {"XDG_RUNTIME_DIR", ""}});
    ASSERT_TRUE(findFolders(environment, kUser, folders).ok());
    EXPECT_EQ("/home/u/.local/state/corvane", folders.state);
    EXPECT_EQ("/tmp/corvane-1000", folders.runtime);
    EXPECT_TRUE(folders.runtimeIsInTmp);
}

TEST(Folders, NoHomeIsAnErrorThatNamesTheVariableToSet) {
    Folders folders{"before", "before", false};
    const Status status = findFolders(environmentOf({}), kUser, folders);
    EXPECT_EQ(ENOENT, status.code);
    EXPECT_THAT(status.text, HasSubstr("set CORVANE_STATE_DIR"));
    EXPECT_EQ("before", folders.state);
}

TEST(Folders, RelativePathIsRefused) {
    Folders folders;
    const Status status =
        findFolders(environmentOf({{"CORVANE_STATE_DIR", "state\n"}}), kRoot, folders);
    EXPECT_EQ(EINVAL, status.code);
    EXPECT_THAT(status.text, HasSubstr("CORVANE_STATE_DIR is \"state\\u000a\""));
}

TEST(Folders, MissingFoldersAreMadeForTheUserAlone) {
    const TempFolder temp;
    ASSERT_TRUE(makeFolder(temp / "a/b/c").ok());
    EXPECT_EQ(0700U, modeOf(temp / "a"));
    EXPECT_EQ(0700U, modeOf(temp / "a/b/c"));
    EXPECT_TRUE(makeFolder(temp / "a/b/c").ok()) << "an existing folder is as good";
}

TEST(Folders, FolderBehindAFileIsOneLineWithTheVariable) {
    const TempFolder temp;
    writeFile(temp / "file", "");
    const Status status = makeFolders({temp / "file/state", temp / "runtime", false});
    EXPECT_EQ(ENOTDIR, status.code);
    EXPECT_EQ("folder \"" + (temp / "file/state") +
                  "\" cannot be used: Not a directory; set CORVANE_STATE_DIR to a folder that this "
                  "user may write",
              status.text);
    const Status other = makeFolders({temp / "state", temp / "file", false});
    EXPECT_EQ(ENOTDIR, other.code);
    EXPECT_THAT(other.text, HasSubstr("set CORVANE_RUNTIME_DIR"));
}

TEST(Folders, FolderInTmpThatOthersCanReadIsRefused) {
    const TempFolder temp;
    ASSERT_TRUE(makeFolder(temp / "runtime").ok());
    ASSERT_EQ(0, chmod((temp / "runtime").c_str(), 0755));
    EXPECT_EQ(EPERM, makeFolders({temp / "state", temp / "runtime", true}).code);
    EXPECT_TRUE(makeFolders({temp / "state", temp / "runtime", false}).ok())
        << "a folder that somebody named is taken as it is";
    ASSERT_EQ(0, chmod((temp / "runtime").c_str(), 0700));
    EXPECT_TRUE(makeFolders({temp / "state", temp / "runtime", true}).ok());
}

TEST(Folders, FolderInTmpBehindALinkIsRefused) {
    const TempFolder temp;
    ASSERT_TRUE(makeFolder(temp / "elsewhere").ok());
    ASSERT_EQ(0, symlink("elsewhere", (temp / "runtime").c_str()));
    EXPECT_EQ(EPERM, makeFolders({temp / "state", temp / "runtime", true}).code);
}
