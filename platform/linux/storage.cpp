/*
 * SQLite on a Linux machine: the wrapped file layer and the durability of commits.
 */
#include "storage.h"

#include "folders.h"
#include "text.h"

#include <dlog.h>

#include <cerrno>
#include <utility>

namespace corvane::platform {
namespace {

/* A connection waits so long for another one's commit before it gives up. */
constexpr int kBusyWaitMs = 2000;

const StorageVfs &self(sqlite3_vfs *vfs) { return *static_cast<StorageVfs *>(vfs->pAppData); }

sqlite3_vfs *baseOf(sqlite3_vfs *vfs) { return self(vfs).base(); }

int fullPathname(sqlite3_vfs *vfs, const char *name, int size, char *result) {
    return baseOf(vfs)->xFullPathname(baseOf(vfs), self(vfs).mapped(name).c_str(), size, result);
}

/*
 * The rest goes to the base layer as it is, with the base layer's own pointer: its methods look at
 * the application data behind it.
 */
void wrapMethods(sqlite3_vfs &vfs) {
    vfs.xFullPathname = fullPathname;
    vfs.xOpen = [](sqlite3_vfs *v, sqlite3_filename name, sqlite3_file *file, int flags,
                   int *outFlags) {
        return baseOf(v)->xOpen(baseOf(v), name, file, flags, outFlags);
    };
    vfs.xDelete = [](sqlite3_vfs *v, const char *name, int syncFolder) {
        return baseOf(v)->xDelete(baseOf(v), name, syncFolder);
    };
    vfs.xAccess = [](sqlite3_vfs *v, const char *name, int flags, int *result) {
        return baseOf(v)->xAccess(baseOf(v), name, flags, result);
    };
    vfs.xDlOpen = [](sqlite3_vfs *v, const char *name) {
        return baseOf(v)->xDlOpen(baseOf(v), name);
    };
    vfs.xDlError = [](sqlite3_vfs *v, int size, char *text) {
        baseOf(v)->xDlError(baseOf(v), size, text);
    };
    vfs.xDlSym = [](sqlite3_vfs *v, void *library, const char *symbol) {
        return baseOf(v)->xDlSym(baseOf(v), library, symbol);
    };
    vfs.xDlClose = [](sqlite3_vfs *v, void *library) { baseOf(v)->xDlClose(baseOf(v), library); };
    vfs.xRandomness = [](sqlite3_vfs *v, int size, char *bytes) {
        return baseOf(v)->xRandomness(baseOf(v), size, bytes);
    };
    vfs.xSleep = [](sqlite3_vfs *v, int microseconds) {
        return baseOf(v)->xSleep(baseOf(v), microseconds);
    };
    vfs.xCurrentTime = [](sqlite3_vfs *v, double *day) {
        return baseOf(v)->xCurrentTime(baseOf(v), day);
    };
    vfs.xGetLastError = [](sqlite3_vfs *v, int size, char *text) {
        return baseOf(v)->xGetLastError(baseOf(v), size, text);
    };
    vfs.xCurrentTimeInt64 = [](sqlite3_vfs *v, sqlite3_int64 *time) {
        return baseOf(v)->xCurrentTimeInt64(baseOf(v), time);
    };
    vfs.xSetSystemCall = [](sqlite3_vfs *v, const char *name, sqlite3_syscall_ptr call) {
        return baseOf(v)->xSetSystemCall(baseOf(v), name, call);
    };
    vfs.xGetSystemCall = [](sqlite3_vfs *v, const char *name) {
        return baseOf(v)->xGetSystemCall(baseOf(v), name);
    };
    vfs.xNextSystemCall = [](sqlite3_vfs *v, const char *name) {
        return baseOf(v)->xNextSystemCall(baseOf(v), name);
    };
}

/*
 * Runs for each new connection. With the default, a power cut may bring back the journal of a
 * commit that was acknowledged, and so undo it; EXTRA also synchronises the journal's removal. The
 * statement reads the schema, hence the wait; a file that is no database at all is told by the
 * first statement of the connection's owner, hence no failure here.
 */
int useExtraSynchronous(sqlite3 *connection, char **, const sqlite3_api_routines *) {
    sqlite3_busy_timeout(connection, kBusyWaitMs);
    const int result =
        sqlite3_exec(connection, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr);
    sqlite3_busy_timeout(connection, 0);
    if (result != SQLITE_OK) {
        const char *name = sqlite3_db_filename(connection, "main");
        (void)__dlog_print(
            LOG_ID_MAIN, DLOG_WARN, "corvane", "storage: %s commits without synchronous=EXTRA: %s",
            inQuotes(name == nullptr ? "" : name, 200).c_str(), sqlite3_errmsg(connection));
        // An error that stays on the connection would make it fail to open.
        sqlite3_exec(connection, "", nullptr, nullptr, nullptr);
    }
    return SQLITE_OK;
}

} // namespace

StorageVfs::StorageVfs(std::string from, std::string to)
    : from_(std::move(from)), to_(std::move(to)), base_(sqlite3_vfs_find(nullptr)), vfs_(*base_) {
    vfs_.zName = "corvane";
    vfs_.pNext = nullptr;
    vfs_.pAppData = this;
    wrapMethods(vfs_);
    sqlite3_vfs_register(&vfs_, 1);
}

StorageVfs::~StorageVfs() {
    sqlite3_vfs_unregister(&vfs_);
    sqlite3_vfs_register(base_, 1);
}

std::string StorageVfs::mapped(const std::string &name) const {
    if (!name.starts_with(from_))
        return name;
    const std::string rest = name.substr(from_.size());
    if (rest.empty() || rest == "." || rest == ".." || rest.find('/') != std::string::npos)
        return name;
    return to_ + "/" + rest;
}

Status prepareStorage(const std::string &stateFolder) {
    const std::string folder = stateFolder + "/db";
    Status status = makeFolder(folder);
    if (!status.ok()) {
        status.text += "; check CORVANE_STATE_DIR";
        return status;
    }
    // A connection lives for one or two statements: buffers that it would make in advance for many
    // only fragment the heap (60 KiB of the process's dirty memory).
    (void)sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
    (void)sqlite3_config(SQLITE_CONFIG_PAGECACHE, static_cast<void *>(nullptr), 0, 0);
    const int result = sqlite3_initialize();
    if (result != SQLITE_OK)
        return {EIO, std::string("SQLite cannot be used: ") + sqlite3_errstr(result)};
    // Never destroyed: databases may be open until the process ends.
    static const auto *const vfs = new StorageVfs(kServiceFolder, folder);
    (void)vfs;
    using EntryPoint = void (*)();
    sqlite3_auto_extension(reinterpret_cast<EntryPoint>(useExtraSynchronous));
    return {};
}

} // namespace corvane::platform
