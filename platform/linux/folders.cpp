/*
 * Where Corvane keeps its files: the environment decides, the defaults follow the usual places.
 */
#include "folders.h"
#include "text.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

constexpr std::size_t kShownPath = 200;

/* Sets path to the variable's folder with the suffix, or leaves it empty when it is not set. */
Status fromVariable(const Environment &environment, const char *name, const char *suffix,
                    std::string &path) {
    const char *value = environment(name);
    if (value == nullptr || *value == '\0')
        return {};
    if (*value != '/')
        return {EINVAL, std::string(name) + " is " + inQuotes(value, kShownPath) +
                            ", which is no absolute path; set it to one or leave it unset"};
    path = std::string(value) + suffix;
    return {};
}

Status findState(const Environment &environment, uid_t user, std::string &path) {
    Status status = fromVariable(environment, "CORVANE_STATE_DIR", "", path);
    if (!status.ok() || !path.empty())
        return status;
    if (user == 0) {
        path = "/var/lib/corvane";
        return {};
    }
    status = fromVariable(environment, "XDG_STATE_HOME", "/corvane", path);
    if (status.ok() && path.empty())
        status = fromVariable(environment, "HOME", "/.local/state/corvane", path);
    if (status.ok() && path.empty())
        return {ENOENT, "no place for the state folder: neither XDG_STATE_HOME nor HOME is set; "
                        "set CORVANE_STATE_DIR"};
    return status;
}

Status findRuntime(const Environment &environment, uid_t user, Folders &folders) {
    Status status = fromVariable(environment, "CORVANE_RUNTIME_DIR", "", folders.runtime);
    if (!status.ok() || !folders.runtime.empty())
        return status;
    if (user == 0) {
        folders.runtime = "/run/corvane";
        return {};
    }
    status = fromVariable(environment, "XDG_RUNTIME_DIR", "/corvane", folders.runtime);
    if (status.ok() && folders.runtime.empty()) {
        folders.runtime = "/tmp/corvane-" + std::to_string(user);
        folders.runtimeIsInTmp = true;
    }
    return status;
}

/*
 * Puts the folder's entries on the disk: a power cut could take a new one away, with all that was
 * safe inside. As far as it goes: some file systems cannot do it for folders.
 */
void syncFolder(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    (void)fsync(fd);
    close(fd);
}

/* Makes every folder of the path that is missing. Returns 0 or an errno value. */
int makeMissing(const std::string &path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), 0700) == 0) {
            syncFolder(part.substr(0, part.find_last_of('/') + 1));
        } else if (errno != EEXIST) {
            const int reason = errno;
            struct stat found {};
            if (stat(part.c_str(), &found) != 0)
                return reason;
        }
        if (end == std::string::npos)
            return 0;
    }
}

Status checkPrivate(const std::string &path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0)
        return systemFailure(errno, "folder " + inQuotes(path, kShownPath) + " cannot be used");
    if (!S_ISDIR(found.st_mode) || found.st_uid != geteuid() || (found.st_mode & 077) != 0)
        return {EPERM, "folder " + inQuotes(path, kShownPath) +
                           " cannot be used: it is not a folder of this user alone"};
    return {};
}

Status named(Status status, const char *variable) {
    if (!status.ok())
        status.text += "; set " + std::string(variable) + " to a folder that this user may write";
    return status;
}

} // namespace

Status findFolders(const Environment &environment, uid_t user, Folders &folders) {
    Folders found;
    Status status = findState(environment, user, found.state);
    if (status.ok())
        status = findRuntime(environment, user, found);
    if (status.ok())
        folders = found;
    return status;
}

Status findFolders(Folders &folders) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment beside other threads
    const auto lookUp = [](const char *name) { return std::getenv(name); };
    return findFolders(lookUp, geteuid(), folders);
}

Status makeFolder(const std::string &path) {
    const std::string failure = "folder " + inQuotes(path, kShownPath) + " cannot be used";
    if (const int code = makeMissing(path); code != 0)
        return systemFailure(code, failure);
    struct stat found {};
    if (stat(path.c_str(), &found) != 0)
        return systemFailure(errno, failure);
    if (!S_ISDIR(found.st_mode))
        return systemFailure(ENOTDIR, failure);
    if (faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0)
        return systemFailure(errno, failure);
    return {};
}

Status makeFolders(const Folders &folders) {
    Status status = named(makeFolder(folders.state), "CORVANE_STATE_DIR");
    if (status.ok())
        status = named(makeFolder(folders.runtime), "CORVANE_RUNTIME_DIR");
    return status.ok() ? checkFolders(folders) : status;
}

Status checkFolders(const Folders &folders) {
    if (!folders.runtimeIsInTmp)
        return {};
    Status status = checkPrivate(folders.runtime);
    return status.code == ENOENT ? Status{} : named(status, "CORVANE_RUNTIME_DIR");
}

} // namespace corvane::platform
