/*
 * Where the service's databases really are, and how safe a commit is.
 *
 * The service opens its files in a folder that is fixed in its code; on a Linux machine they are
 * kept in the state folder. SQLite's default file layer is wrapped for that: only the step that
 * makes a file name absolute differs, and journals follow, since their names derive from it.
 */
#ifndef CORVANE_PLATFORM_LINUX_STORAGE_H
#define CORVANE_PLATFORM_LINUX_STORAGE_H

#include "status.h"

#include <string>

#include <sqlite3.h>

namespace corvane::platform {

/* The service's fixed folder, with its slash. */
inline constexpr const char *kServiceFolder =
    "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/";

/* A default SQLite file layer, from construction to destruction; no database may be open at
 * either. */
class StorageVfs {
public:
    /* Files directly in the folder from, which ends with its slash, are found in the folder to. */
    StorageVfs(std::string from, std::string to);
    ~StorageVfs();
    StorageVfs(const StorageVfs &) = delete;
    StorageVfs &operator=(const StorageVfs &) = delete;

    /* Where the file of that name really is; the name itself when it lies elsewhere. */
    std::string mapped(const std::string &name) const;

    sqlite3_vfs *base() const { return base_; }

private:
    const std::string from_;
    const std::string to_;
    sqlite3_vfs *base_;
    sqlite3_vfs vfs_{};
};

/*
 * Before the first database is opened: makes the folder "db" in the state folder, maps the
 * service's folder to it, and has every later connection of the process commit with
 * synchronous=EXTRA, so that no power cut undoes a commit. Repeated calls change nothing.
 */
Status prepareStorage(const std::string &stateFolder);

} // namespace corvane::platform

#endif
