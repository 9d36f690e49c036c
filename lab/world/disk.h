/*
 * The disk under SQLite's files, in shared memory: it outlives a kill, and at a power cut it keeps
 * what was synced and, of the rest, any part.
 *
 * A file holds its present bytes, those that a power cut cannot take, and the writes in between.
 * A cut keeps an arbitrary choice of these, cut into sectors. A name made or removed is certain
 * only after its folder was synced, which SQLite does with the first sync of a new journal and
 * with a removal that it wants to be certain.
 *
 * install() makes it SQLite's default file system, below the layer of tests/fakes that injects
 * failures. Locks are those of one process and go with it.
 */
#ifndef CORVANE_LAB_DISK_H
#define CORVANE_LAB_DISK_H

#include "draws.h"

#include <cstdint>
#include <map>
#include <memory_resource>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace corvane::lab {

class Disk {
public:
    explicit Disk(std::uint64_t seed) : draws_(seed) {}
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;

    /* Once a process, before SQLite is used. */
    void install();

    /* A new process: no file is open, no lock is held. */
    void forgetLocks();

    /* Loses what need not be there after a power cut. No file is open. */
    void cutPower();

    /* Whether nobody holds a lock on the file. */
    bool isIdle(const std::string &name) const;
    bool exists(const std::string &name) const;

    /* How often a lock was refused, so far. */
    std::uint64_t busyAnswers() const { return busyAnswers_; }
    /* Connections that found the file locked for so long that they commit less surely. */
    std::uint64_t unsureConnections() const { return unsureConnections_; }

private:
    struct Write {
        std::int64_t offset; // of a truncation: the new size
        bool isTruncation;
        std::pmr::string bytes;
    };
    struct File {
        std::pmr::string now;
        std::pmr::string durable;
        std::pmr::vector<Write> unsynced;
        bool exists = false;
        bool isNameDurable = false; // the name is there after a power cut
        bool isJournal = false;
        // Locks of the present process.
        int shared = 0;
        const void *reserved = nullptr;
        const void *pending = nullptr;
        const void *exclusive = nullptr;
    };
    struct Handle; // an open file, as SQLite sees it

    File &file(const char *name);
    void syncFolder();
    void cut(File &file);
    int busy();
    static void forgetBytes(File &file);

    static const sqlite3_io_methods *methods_;
    static int useExtraSynchronous(sqlite3 *, char **, const sqlite3_api_routines *);
    static int xOpen(sqlite3_vfs *, const char *, sqlite3_file *, int, int *);
    static int xDelete(sqlite3_vfs *, const char *, int);
    static int xAccess(sqlite3_vfs *, const char *, int, int *);
    static int xFullPathname(sqlite3_vfs *, const char *, int, char *);
    static int xRandomness(sqlite3_vfs *, int, char *);
    static int xClose(sqlite3_file *);
    static int xRead(sqlite3_file *, void *, int, sqlite3_int64);
    static int xWrite(sqlite3_file *, const void *, int, sqlite3_int64);
    static int xTruncate(sqlite3_file *, sqlite3_int64);
    static int xSync(sqlite3_file *, int);
    static int xFileSize(sqlite3_file *, sqlite3_int64 *);
    static int xLock(sqlite3_file *, int);
    static int xUnlock(sqlite3_file *, int);
    static int xCheckReservedLock(sqlite3_file *, int *);

    std::pmr::map<std::pmr::string, File, std::less<>> files_;
    Draws draws_;
    std::uint64_t busyAnswers_ = 0;
    std::uint64_t unsureConnections_ = 0;
};

} // namespace corvane::lab

#endif
