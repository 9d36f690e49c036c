/*
 * The locks of a running service on its folders.
 */
#include "instance_lock.h"
#include "text.h"

#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

/* The names differ, so that one folder may serve as both. */
Status lockFolder(const std::string &folder, const char *name, const char *variable, int &held) {
    const std::string path = folder + "/" + name;
    held = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (held >= 0 && flock(held, LOCK_EX | LOCK_NB) == 0)
        return {};
    if (errno == EWOULDBLOCK)
        return {EWOULDBLOCK, "another service uses the folder " + inQuotes(folder, PATH_MAX) +
                                 "; stop it, or set " + variable +
                                 " to a folder of this one's own"};
    return systemFailure(errno, "lock file " + inQuotes(path, PATH_MAX));
}

} // namespace

InstanceLock::~InstanceLock() {
    for (int descriptor : descriptors_) {
        if (descriptor >= 0)
            close(descriptor);
    }
}

Status InstanceLock::take(const Folders &folders) {
    Status status = lockFolder(folders.state, "state.lock", "CORVANE_STATE_DIR", descriptors_[0]);
    if (status.ok())
        status =
            lockFolder(folders.runtime, "runtime.lock", "CORVANE_RUNTIME_DIR", descriptors_[1]);
    return status;
}

} // namespace corvane::platform
