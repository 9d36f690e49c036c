/*
 * Where Corvane keeps its files: a state folder that outlives the machine's restart and a runtime
 * folder that does not. The service, the client and the virtual appliance all ask here, so
 * that programs started with the same environment meet in the same folders.
 */
#ifndef CORVANE_PLATFORM_LINUX_FOLDERS_H
#define CORVANE_PLATFORM_LINUX_FOLDERS_H

#include "status.h"

#include <functional>
#include <string>

#include <sys/types.h>

namespace corvane::platform {

struct Folders {
    /* $CORVANE_STATE_DIR; root: /var/lib/corvane; else $XDG_STATE_HOME/corvane, or
     * ~/.local/state/corvane. */
    std::string state;
    /* $CORVANE_RUNTIME_DIR; root: /run/corvane; else $XDG_RUNTIME_DIR/corvane, or
     * /tmp/corvane-<user id>. */
    std::string runtime;
    /* The last one: anybody may have made it first. */
    bool runtimeIsInTmp = false;
};

/* Looks a variable of the environment up; null when it is not set. */
using Environment = std::function<const char *(const char *name)>;

/* Tells where the folders are, without touching them; folders is unchanged on failure. An empty
 * variable counts as not set; a relative path is refused. */
Status findFolders(const Environment &environment, uid_t user, Folders &folders);

/* The same for this process. */
Status findFolders(Folders &folders);

/*
 * Makes the folder, with mode 0700, and the missing ones above it. Good when the path is then a
 * folder in which this process may make files.
 */
Status makeFolder(const std::string &path);

/*
 * makeFolder() for both; the text of a failure names the variable that moves the folder. A runtime
 * folder in /tmp must also be the user's own, closed to everybody else and no symbolic link.
 */
Status makeFolders(const Folders &folders);

/*
 * For those that only read: makes nothing, but refuses the same runtime folder in /tmp. A folder
 * that is missing is no failure.
 */
Status checkFolders(const Folders &folders);

} // namespace corvane::platform

#endif
