/*
 * The disk as a file system of SQLite. Nothing here sleeps or waits, so in virtual time each call
 * is one step, and the files need no lock of their own.
 */
#include "disk.h"

#include <algorithm>
#include <cstring>

namespace corvane::lab {

struct Disk::Handle {
    sqlite3_file asSqliteSeesIt;
    File *file;
    int lock;
    bool isDeletedOnClose;
};

namespace {

Disk *theDisk = nullptr; // of this process

constexpr int kSectorBytes = 512;
constexpr int kBusyWaitMs = 2'000;

} // namespace

void Disk::forgetBytes(File &file) {
    file.now.clear();
    file.durable.clear();
    file.unsynced.clear();
}

Disk::File &Disk::file(const char *name) { return files_[std::pmr::string(name)]; }

void Disk::install() {
    static const sqlite3_io_methods methods = [] {
        sqlite3_io_methods all{};
        all.iVersion = 1;
        all.xClose = xClose;
        all.xRead = xRead;
        all.xWrite = xWrite;
        all.xTruncate = xTruncate;
        all.xSync = xSync;
        all.xFileSize = xFileSize;
        all.xLock = xLock;
        all.xUnlock = xUnlock;
        all.xCheckReservedLock = xCheckReservedLock;
        all.xFileControl = [](sqlite3_file *, int, void *) { return SQLITE_NOTFOUND; };
        all.xSectorSize = [](sqlite3_file *) { return 4096; };
        all.xDeviceCharacteristics = [](sqlite3_file *) {
            return SQLITE_IOCAP_POWERSAFE_OVERWRITE;
        };
        return all;
    }();
    static sqlite3_vfs system;
    const bool isFirst = theDisk == nullptr;
    theDisk = this;
    if (!isFirst)
        return;
    methods_ = &methods;
    // Clock and sleeps stay those of the C library, which are virtual.
    system = *sqlite3_vfs_find(nullptr);
    system.zName = "lab";
    system.szOsFile = static_cast<int>(sizeof(Handle));
    system.xOpen = xOpen;
    system.xDelete = xDelete;
    system.xAccess = xAccess;
    system.xFullPathname = xFullPathname;
    system.xRandomness = xRandomness;
    sqlite3_vfs_register(&system, 1);
    // As the Linux platform has it.
    using EntryPoint = void (*)();
    sqlite3_auto_extension(reinterpret_cast<EntryPoint>(useExtraSynchronous));
}

void Disk::forgetLocks() {
    for (auto &[name, file] : files_) {
        file.shared = 0;
        file.reserved = file.pending = file.exclusive = nullptr;
    }
}

void Disk::cutPower() {
    forgetLocks();
    for (auto &[name, file] : files_) {
        if (file.exists != file.isNameDurable)
            file.exists = draws_.chance(0.5);
        cut(file);
        file.isNameDurable = file.exists;
    }
}

/* Keeps the synced bytes and an arbitrary choice of what was written since. */
void Disk::cut(File &file) {
    const double share = draws_.oneOf({0.0, 0.5, 1.0}); // of what is kept
    for (const Write &write : file.unsynced) {
        if (write.isTruncation) {
            if (draws_.chance(share))
                file.durable.resize(static_cast<std::size_t>(write.offset), '\0');
            continue;
        }
        for (std::size_t at = 0; at < write.bytes.size(); at += kSectorBytes) {
            if (!draws_.chance(share))
                continue;
            const std::size_t size = std::min<std::size_t>(kSectorBytes, write.bytes.size() - at);
            const std::size_t to = static_cast<std::size_t>(write.offset) + at;
            if (file.durable.size() < to + size)
                file.durable.resize(to + size, '\0');
            file.durable.replace(to, size, write.bytes, at, size);
        }
    }
    if (!file.exists)
        file.durable.clear();
    file.unsynced.clear();
    file.now = file.durable;
}

bool Disk::isIdle(const std::string &name) const {
    const auto found = files_.find(std::string_view(name));
    return found == files_.end() || (found->second.shared == 0 && found->second.pending == nullptr);
}

bool Disk::exists(const std::string &name) const {
    const auto found = files_.find(std::string_view(name));
    return found != files_.end() && found->second.exists;
}

/* What the Linux platform does on each new connection; see there. */
int Disk::useExtraSynchronous(sqlite3 *connection, char **, const sqlite3_api_routines *) {
    sqlite3_busy_timeout(connection, kBusyWaitMs);
    if (sqlite3_exec(connection, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr) !=
        SQLITE_OK) {
        ++theDisk->unsureConnections_;
        sqlite3_exec(connection, "", nullptr, nullptr, nullptr);
    }
    sqlite3_busy_timeout(connection, 0);
    return SQLITE_OK;
}

int Disk::busy() {
    ++busyAnswers_;
    return SQLITE_BUSY;
}

void Disk::syncFolder() {
    for (auto &[name, file] : files_) {
        file.isNameDurable = file.exists;
        if (!file.exists)
            forgetBytes(file);
    }
}

// ---- SQLite's calls ----

const sqlite3_io_methods *Disk::methods_ = nullptr;

int Disk::xOpen(sqlite3_vfs *, const char *name, sqlite3_file *handle, int flags, int *outFlags) {
    auto *opened = reinterpret_cast<Handle *>(handle);
    opened->asSqliteSeesIt.pMethods = nullptr;
    File &file = theDisk->file(name != nullptr ? name : "temporary");
    if (!file.exists) {
        if ((flags & SQLITE_OPEN_CREATE) == 0)
            return SQLITE_CANTOPEN;
        file.exists = true;
        file.now.clear();
        if (file.isNameDurable)
            file.unsynced.push_back({0, true, {}}); // the old file may come back
        else
            forgetBytes(file);
    }
    file.isJournal = (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0;
    opened->file = &file;
    opened->lock = SQLITE_LOCK_NONE;
    opened->isDeletedOnClose = (flags & SQLITE_OPEN_DELETEONCLOSE) != 0;
    opened->asSqliteSeesIt.pMethods = methods_;
    if (outFlags != nullptr)
        *outFlags = flags;
    return SQLITE_OK;
}

int Disk::xDelete(sqlite3_vfs *, const char *name, int syncsFolder) {
    File &file = theDisk->file(name);
    if (!file.exists)
        return SQLITE_IOERR_DELETE_NOENT;
    file.exists = false;
    if (syncsFolder != 0)
        theDisk->syncFolder();
    return SQLITE_OK;
}

int Disk::xAccess(sqlite3_vfs *, const char *name, int, int *result) {
    const auto found = theDisk->files_.find(std::string_view(name));
    // As on other systems, an empty file is not there for a question whether it exists.
    *result = found != theDisk->files_.end() && found->second.exists && !found->second.now.empty();
    return SQLITE_OK;
}

int Disk::xFullPathname(sqlite3_vfs *, const char *name, int size, char *path) {
    sqlite3_snprintf(size, path, "%s", name);
    return SQLITE_OK;
}

int Disk::xRandomness(sqlite3_vfs *, int size, char *bytes) {
    for (int at = 0; at < size; ++at)
        bytes[at] = static_cast<char>(theDisk->draws_.next());
    return size;
}

namespace {

template <class Handle>
Handle *asHandle(sqlite3_file *handle) {
    return reinterpret_cast<Handle *>(handle);
}

} // namespace

int Disk::xClose(sqlite3_file *handle) {
    auto *open = asHandle<Handle>(handle);
    xUnlock(handle, SQLITE_LOCK_NONE);
    if (open->isDeletedOnClose)
        open->file->exists = false;
    return SQLITE_OK;
}

int Disk::xRead(sqlite3_file *handle, void *to, int size, sqlite3_int64 offset) {
    const std::pmr::string &bytes = asHandle<Handle>(handle)->file->now;
    const auto wanted = static_cast<std::size_t>(size);
    const auto from = std::min(static_cast<std::size_t>(offset), bytes.size());
    const std::size_t there = std::min(wanted, bytes.size() - from);
    std::memcpy(to, bytes.data() + from, there);
    std::memset(static_cast<char *>(to) + there, 0, wanted - there);
    return there == wanted ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int Disk::xWrite(sqlite3_file *handle, const void *from, int size, sqlite3_int64 offset) {
    File &file = *asHandle<Handle>(handle)->file;
    const auto at = static_cast<std::size_t>(offset);
    const auto length = static_cast<std::size_t>(size);
    if (file.now.size() < at + length)
        file.now.resize(at + length, '\0');
    file.now.replace(at, length, static_cast<const char *>(from), length);
    file.unsynced.push_back(
        {offset, false, std::pmr::string(static_cast<const char *>(from), length)});
    return SQLITE_OK;
}

int Disk::xTruncate(sqlite3_file *handle, sqlite3_int64 size) {
    File &file = *asHandle<Handle>(handle)->file;
    file.now.resize(static_cast<std::size_t>(size), '\0');
    file.unsynced.push_back({size, true, {}});
    return SQLITE_OK;
}

int Disk::xSync(sqlite3_file *handle, int) {
    File &file = *asHandle<Handle>(handle)->file;
    file.durable = file.now;
    file.unsynced.clear();
    if (file.isJournal && !file.isNameDurable)
        theDisk->syncFolder();
    return SQLITE_OK;
}

int Disk::xFileSize(sqlite3_file *handle, sqlite3_int64 *size) {
    *size = static_cast<sqlite3_int64>(asHandle<Handle>(handle)->file->now.size());
    return SQLITE_OK;
}

int Disk::xLock(sqlite3_file *handle, int level) {
    auto *open = asHandle<Handle>(handle);
    File &file = *open->file;
    const auto isOthers = [open](const void *owner) { return owner != nullptr && owner != open; };
    if (open->lock >= level)
        return SQLITE_OK;
    if (level == SQLITE_LOCK_SHARED) {
        if (isOthers(file.pending))
            return theDisk->busy();
        ++file.shared;
    } else if (level == SQLITE_LOCK_RESERVED) {
        if (isOthers(file.reserved) || isOthers(file.pending))
            return theDisk->busy();
        file.reserved = open;
    } else {
        if (isOthers(file.pending) || isOthers(file.reserved))
            return theDisk->busy();
        file.pending = open;
        open->lock = SQLITE_LOCK_PENDING;
        if (file.shared > 1)
            return theDisk->busy();
        file.exclusive = open;
    }
    open->lock = level;
    return SQLITE_OK;
}

int Disk::xUnlock(sqlite3_file *handle, int level) {
    auto *open = asHandle<Handle>(handle);
    File &file = *open->file;
    const auto letGo = [open](const void *&owner) {
        if (owner == open)
            owner = nullptr;
    };
    if (open->lock > SQLITE_LOCK_SHARED) {
        letGo(file.reserved);
        letGo(file.pending);
        letGo(file.exclusive);
    }
    if (open->lock >= SQLITE_LOCK_SHARED && level == SQLITE_LOCK_NONE)
        --file.shared;
    open->lock = std::min(open->lock, level);
    return SQLITE_OK;
}

int Disk::xCheckReservedLock(sqlite3_file *handle, int *isReserved) {
    const File &file = *asHandle<Handle>(handle)->file;
    *isReserved = file.reserved != nullptr || file.pending != nullptr;
    return SQLITE_OK;
}

} // namespace corvane::lab
