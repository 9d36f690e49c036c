/*
 * SQLite's files under test. The service's fixed folder becomes a folder of the test's own (on
 * tmpfs where there is one), every statement is recorded, and both the files and the calls can be
 * told to fail. SQLite itself is the real one, so results and messages are its own.
 *
 * How: a default file system layer (VFS) around the real one maps the folder and injects failures;
 * sqlite3_open_v2, sqlite3_exec, sqlite3_prepare_v2, sqlite3_busy_timeout and sqlite3_close are
 * defined here and forward to the library, so that attempts are counted where the service makes
 * them.
 */
#ifndef CORVANE_TESTS_FAKES_STORAGE_H
#define CORVANE_TESTS_FAKES_STORAGE_H

#include <cstdint>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace fakes::storage {

inline constexpr const char *kServiceFolder =
    "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/";

// Where the service's folder really is, with a slash at the end. Made empty by mount(), which
// chooses a new one, and removed by unmount(); service_fixture.h calls both.
void mount();
// The same with a folder of the caller's own, which is neither made nor removed.
void mountAt(const std::string &folder);
void unmount();
[[nodiscard]] std::string folder();

// ---- What the service did ----

struct Call {
    std::string function; // open, exec, prepare, busy_timeout, close
    std::string text;     // of open: the path as given; of exec and prepare: the SQL;
                          // of busy_timeout: milliseconds in decimal
    std::string file;     // base name of the connection's file
    int result;
    std::int64_t utcNs;
};
[[nodiscard]] std::vector<Call> calls();
// The SQL of every exec and prepare, each attempt, in order; with a file name: of that file only.
[[nodiscard]] std::vector<std::string> statements(const std::string &file = "");
[[nodiscard]] int attempts(const std::string &sql);
[[nodiscard]] int opens(const std::string &file = "");
[[nodiscard]] int openConnections(); // opened by the service and not closed yet

void clearCalls();

// ---- Reading and writing beside it, unrecorded and never made to fail ----

using Rows = std::vector<std::vector<std::string>>;            // NULL as "NULL"
Rows query(const std::string &file, const std::string &sql);   // query("usage.db", "SELECT")
void execute(const std::string &file, const std::string &sql); // both abort on an error
[[nodiscard]] bool tableExists(const std::string &file, const std::string &table);

// ---- Failures; each lasts for a number of calls or, with kAlways, until heal() ----

inline constexpr int kAlways = -1;

// The next exec and prepare calls meet a file that answers like this:
enum class Trouble {
    Busy,    // another process holds its lock: SQLITE_BUSY
    Full,    // writing answers SQLITE_FULL
    IoError, // reading and writing answer SQLITE_IOERR
};
void failStatements(Trouble trouble, int times = kAlways);
void failOpens(int times = kAlways);  // SQLITE_CANTOPEN
void failCloses(int times = kAlways); // SQLITE_BUSY, as with a statement left open
// The n-th read, write, sync or truncate from now answers SQLITE_IOERR, all others work. 1 is next.
void failFileOperation(int n);
[[nodiscard]] bool pendingFileFailure(); // it has not been met yet
void heal();
// How many calls and operations have met one of these failures, since the process began.
[[nodiscard]] std::uint64_t failuresMet();

// Another connection that holds the file, as a second process would.
class Lock {
public:
    enum class Kind { Shared, Reserved, Exclusive }; // reads; is about to write; writes
    Lock(const std::string &file, Kind kind);
    ~Lock();
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    sqlite3 *connection_;
};

} // namespace fakes::storage

#endif
