/*
 * SQLite's files under test: see storage.h.
 *
 * A call of the service passes through two places. The functions at the end of this file count and
 * record it, and mark the calling thread with the trouble that the call shall meet; SQLite then
 * does its work and meets that trouble in the file system layer. So the library's own retries,
 * messages and codes follow from it as they would on a real file.
 *
 * Divisions: state; the file system layer; the folder; beside the service; the recorded calls.
 */
#include "storage.h"
#include "virtual_time.h"

#include "internal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace {

using namespace fakes::storage;

// ---- State ----

std::mutex mutex;
std::string realFolder; // guarded by mutex, as is the rest
bool isOwnFolder = true;
std::vector<Call> recorded;
std::map<sqlite3 *, std::string> connections; // of the service, with their files' base names
Trouble statementTrouble{};
int statementsToFail = 0;
int opensToFail = 0;
int closesToFail = 0;

std::atomic<int> operationsUntilFailure{0}; // 0: none fails

// What the thread's present call shall meet in the file system layer.
struct Present {
    std::optional<Trouble> trouble;
    bool openFails = false;
    bool isRecording = false; // inside a call of the service: calls of SQLite to itself are not
                              // recorded
    bool isBeside = false;    // inside a call of the test: nothing is recorded and nothing fails
};
std::map<int, Present>
    presentInRun; // by the thread's number, since a run's threads share variables
thread_local Present presentOutside;

Present &present() {
    return virtualtime::active() ? presentInRun[virtualtime::threadNumber()] : presentOutside;
}

std::atomic<std::uint64_t> failures{0}; // met so far

// Uses up one of the failures that were asked for.
bool mustFail(int &times) {
    if (times == 0) {
        return false;
    }
    times -= times > 0 ? 1 : 0;
    ++failures;
    return true;
}

[[noreturn]] void fail(const std::string &what, const std::string &why) {
    std::fprintf(stderr, "storage: %s: %s\n", what.c_str(), why.c_str());
    std::abort();
}

// ---- The file system layer ----

sqlite3_vfs *base = nullptr;

struct File {
    sqlite3_file asSqliteSeesIt;
    sqlite3_file *real; // right behind this structure
};

sqlite3_file *realFile(sqlite3_file *file) { return reinterpret_cast<File *>(file)->real; }

// Whether this operation is the one that was chosen to fail, or meets the call's trouble.
bool meets(Trouble trouble) {
    if (present().isBeside) {
        return false;
    }
    if (trouble == Trouble::IoError && operationsUntilFailure > 0 &&
        --operationsUntilFailure == 0) {
        ++failures;
        return true;
    }
    return present().trouble == trouble;
}

int xClose(sqlite3_file *file) { return realFile(file)->pMethods->xClose(realFile(file)); }

int xRead(sqlite3_file *file, void *to, int size, sqlite3_int64 offset) {
    return meets(Trouble::IoError)
               ? SQLITE_IOERR_READ
               : realFile(file)->pMethods->xRead(realFile(file), to, size, offset);
}

int xWrite(sqlite3_file *file, const void *from, int size, sqlite3_int64 offset) {
    if (meets(Trouble::Full)) {
        return SQLITE_FULL;
    }
    return meets(Trouble::IoError)
               ? SQLITE_IOERR_WRITE
               : realFile(file)->pMethods->xWrite(realFile(file), from, size, offset);
}

int xTruncate(sqlite3_file *file, sqlite3_int64 size) {
    return meets(Trouble::IoError) ? SQLITE_IOERR_TRUNCATE
                                   : realFile(file)->pMethods->xTruncate(realFile(file), size);
}

int xSync(sqlite3_file *file, int flags) {
    return meets(Trouble::IoError) ? SQLITE_IOERR_FSYNC
                                   : realFile(file)->pMethods->xSync(realFile(file), flags);
}

int xFileSize(sqlite3_file *file, sqlite3_int64 *size) {
    return realFile(file)->pMethods->xFileSize(realFile(file), size);
}

int xLock(sqlite3_file *file, int level) {
    return meets(Trouble::Busy) ? SQLITE_BUSY
                                : realFile(file)->pMethods->xLock(realFile(file), level);
}

int xUnlock(sqlite3_file *file, int level) {
    return realFile(file)->pMethods->xUnlock(realFile(file), level);
}

int xCheckReservedLock(sqlite3_file *file, int *isReserved) {
    return realFile(file)->pMethods->xCheckReservedLock(realFile(file), isReserved);
}

int xFileControl(sqlite3_file *file, int operation, void *argument) {
    return realFile(file)->pMethods->xFileControl(realFile(file), operation, argument);
}

int xSectorSize(sqlite3_file *file) {
    return realFile(file)->pMethods->xSectorSize(realFile(file));
}

int xDeviceCharacteristics(sqlite3_file *file) {
    return realFile(file)->pMethods->xDeviceCharacteristics(realFile(file));
}

// Version 1: neither shared memory nor mapped files, which the service does not use.
const sqlite3_io_methods fileMethods = [] {
    sqlite3_io_methods methods{};
    methods.iVersion = 1;
    methods.xClose = xClose;
    methods.xRead = xRead;
    methods.xWrite = xWrite;
    methods.xTruncate = xTruncate;
    methods.xSync = xSync;
    methods.xFileSize = xFileSize;
    methods.xLock = xLock;
    methods.xUnlock = xUnlock;
    methods.xCheckReservedLock = xCheckReservedLock;
    methods.xFileControl = xFileControl;
    methods.xSectorSize = xSectorSize;
    methods.xDeviceCharacteristics = xDeviceCharacteristics;
    return methods;
}();

int xOpen(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *outFlags) {
    file->pMethods = nullptr;
    if (present().openFails) {
        return SQLITE_CANTOPEN;
    }
    auto *wrapper = reinterpret_cast<File *>(file);
    wrapper->real = reinterpret_cast<sqlite3_file *>(wrapper + 1);
    const int result = base->xOpen(base, name, wrapper->real, flags, outFlags);
    if (wrapper->real->pMethods != nullptr) {
        file->pMethods = &fileMethods;
    }
    return result;
}

int xFullPathname(sqlite3_vfs *, const char *name, int size, char *path) {
    const std::string_view given = name;
    const std::string_view mapped = kServiceFolder;
    std::string really = name;
    if (given.starts_with(mapped)) {
        really = folder() + std::string(given.substr(mapped.size()));
    }
    return base->xFullPathname(base, really.c_str(), size, path);
}

// The other methods of the base hand their first argument to the system calls only, so they are
// forwarded by a copy of the base with the two functions above in it.
void registerLayer() {
    static sqlite3_vfs layer;
    if (base != nullptr) {
        return;
    }
    base = sqlite3_vfs_find(nullptr);
    layer = *base;
    layer.zName = "fakes";
    layer.szOsFile = static_cast<int>(sizeof(File)) + base->szOsFile;
    layer.xOpen = xOpen;
    layer.xFullPathname = xFullPathname;
    if (sqlite3_vfs_register(&layer, 1) != SQLITE_OK) {
        fail("file system layer", "cannot be registered");
    }
}

// ---- The folder ----

constexpr const char *kFolderPrefix = "corvane-test-"; // then the process and a dash

std::string rootFolder() { return access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/"; }

// Removes what tests have left whose process is no more: killed ones, and death tests.
void sweepLeftFolders() {
    const std::string_view prefix = kFolderPrefix;
    for (const auto &entry : std::filesystem::directory_iterator(rootFolder())) {
        const std::string name = entry.path().filename();
        const char *const end = name.data() + name.size();
        pid_t process = 0;
        if (!name.starts_with(prefix)) {
            continue;
        }
        const auto [rest, error] = std::from_chars(name.data() + prefix.size(), end, process);
        const bool isOurs = error == std::errc() && rest != end && *rest == '-';
        if (isOurs && kill(process, 0) != 0 && errno == ESRCH) {
            std::error_code ignored; // another test may be removing it too
            std::filesystem::remove_all(entry.path(), ignored);
        }
    }
}

// ---- Beside the service ----

struct Beside {
    Beside() { present().isBeside = true; }
    ~Beside() { present().isBeside = false; }
    Beside(const Beside &) = delete;
    Beside &operator=(const Beside &) = delete;
};

sqlite3 *openBeside(const std::string &file) {
    sqlite3 *connection = nullptr;
    if (sqlite3_open_v2((folder() + file).c_str(), &connection,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        fail(file, sqlite3_errmsg(connection));
    }
    sqlite3_busy_timeout(connection, 5000);
    return connection;
}

int collectRow(void *rows, int count, char **values, char **) {
    std::vector<std::string> row;
    for (int i = 0; i < count; ++i) {
        row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
    }
    static_cast<Rows *>(rows)->push_back(std::move(row));
    return 0;
}

} // namespace

namespace fakes::storage {

void mount() {
    unmount();
    registerLayer();
    std::string name = rootFolder() + kFolderPrefix + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        fail(name, std::generic_category().message(errno));
    }
    const std::lock_guard lock(mutex);
    realFolder = name + "/";
    isOwnFolder = true;
    connections.clear();
}

void mountAt(const std::string &folder) {
    unmount();
    registerLayer();
    const std::lock_guard lock(mutex);
    realFolder = folder + "/";
    isOwnFolder = false;
    connections.clear();
}

void unmount() {
    const std::lock_guard lock(mutex);
    if (!isOwnFolder) {
        realFolder.clear();
    } else if (!realFolder.empty()) {
        std::filesystem::remove_all(realFolder);
        realFolder.clear();
        sweepLeftFolders();
    }
}

std::string folder() {
    const std::lock_guard lock(mutex);
    return realFolder;
}

std::vector<Call> calls() {
    const std::lock_guard lock(mutex);
    return recorded;
}

void clearCalls() {
    const std::lock_guard lock(mutex);
    recorded.clear();
}

std::vector<std::string> statements(const std::string &file) {
    std::vector<std::string> result;
    for (Call &call : calls()) {
        const bool isStatement = call.function == "exec" || call.function == "prepare";
        if (isStatement && (file.empty() || call.file == file)) {
            result.push_back(std::move(call.text));
        }
    }
    return result;
}

int attempts(const std::string &sql) {
    const std::vector<std::string> all = statements();
    return static_cast<int>(std::count(all.begin(), all.end(), sql));
}

int opens(const std::string &file) {
    const std::vector<Call> all = calls();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&file](const Call &call) {
        return call.function == "open" && (file.empty() || call.file == file);
    }));
}

int openConnections() {
    const std::lock_guard lock(mutex);
    return static_cast<int>(connections.size());
}

Rows query(const std::string &file, const std::string &sql) {
    const Beside beside;
    sqlite3 *connection = openBeside(file);
    Rows rows;
    if (sqlite3_exec(connection, sql.c_str(), collectRow, &rows, nullptr) != SQLITE_OK) {
        fail(sql, sqlite3_errmsg(connection));
    }
    sqlite3_close(connection);
    return rows;
}

void execute(const std::string &file, const std::string &sql) { (void)query(file, sql); }

bool tableExists(const std::string &file, const std::string &table) {
    return !query(file, "SELECT 1 FROM sqlite_master WHERE name = '" + table + "'").empty();
}

void failStatements(Trouble trouble, int times) {
    const std::lock_guard lock(mutex);
    statementTrouble = trouble;
    statementsToFail = times;
}

void failOpens(int times) {
    const std::lock_guard lock(mutex);
    opensToFail = times;
}

void failCloses(int times) {
    const std::lock_guard lock(mutex);
    closesToFail = times;
}

void failFileOperation(int n) { operationsUntilFailure = n; }

bool pendingFileFailure() { return operationsUntilFailure > 0; }

std::uint64_t failuresMet() { return failures; }

void heal() {
    failStatements({}, 0);
    failOpens(0);
    failCloses(0);
    failFileOperation(0);
}

Lock::Lock(const std::string &file, Kind kind) {
    const Beside beside;
    connection_ = openBeside(file);
    const char *sql = kind == Kind::Shared     ? "BEGIN; SELECT count(*) FROM sqlite_master"
                      : kind == Kind::Reserved ? "BEGIN IMMEDIATE"
                                               : "BEGIN EXCLUSIVE";
    if (sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(file, sqlite3_errmsg(connection_));
    }
}

Lock::~Lock() {
    const Beside beside;
    sqlite3_close(connection_); // rolls back
}

} // namespace fakes::storage

// ---- The recorded calls ----

namespace {

std::string baseName(const std::string &path) { return path.substr(path.rfind('/') + 1); }

std::string fileOf(sqlite3 *connection) {
    const std::lock_guard lock(mutex);
    const auto found = connections.find(connection);
    return found != connections.end() ? found->second : "";
}

void recordCall(const char *function, const std::string &text, const std::string &file,
                int result) {
    if (!fakes::internal::keepsRecords()) {
        return;
    }
    const std::int64_t now = fakes::internal::systemClockNs();
    const std::lock_guard lock(mutex);
    recorded.push_back({function, text, file, result, now});
}

bool isRecorded() { return !present().isBeside && !present().isRecording; }

// Marks the thread while SQLite works on a call of the service.
class InCall {
public:
    InCall() { present().isRecording = true; }
    ~InCall() { present() = {}; }
    InCall(const InCall &) = delete;
    InCall &operator=(const InCall &) = delete;

    void meetStatementTrouble() {
        const std::lock_guard lock(mutex);
        if (mustFail(statementsToFail)) {
            present().trouble = statementTrouble;
        }
    }

    void meetOpenTrouble() {
        const std::lock_guard lock(mutex);
        present().openFails = mustFail(opensToFail);
    }
};

// The library's own function behind the one defined here.
template <typename Function>
Function *libraryFunction(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int sqlite3_open_v2(const char *path, sqlite3 **connection, int flags, const char *vfs) {
    static const auto real = libraryFunction<decltype(sqlite3_open_v2)>("sqlite3_open_v2");
    if (!isRecorded()) {
        return real(path, connection, flags, vfs);
    }
    int result = 0;
    {
        InCall call;
        call.meetOpenTrouble();
        result = real(path, connection, flags, vfs);
    }
    if (*connection != nullptr) {
        const std::lock_guard lock(mutex);
        connections[*connection] = baseName(path);
    }
    recordCall("open", path, baseName(path), result);
    return result;
}

int sqlite3_close(sqlite3 *connection) {
    static const auto real = libraryFunction<decltype(sqlite3_close)>("sqlite3_close");
    if (!isRecorded()) {
        return real(connection);
    }
    const std::string file = fileOf(connection);
    bool fails = false;
    {
        const std::lock_guard lock(mutex);
        fails = mustFail(closesToFail);
    }
    int result = 0;
    {
        const InCall call;
        // A statement that is still open is what makes the library refuse.
        sqlite3_stmt *open = nullptr;
        if (fails) {
            sqlite3_prepare_v2(connection, "SELECT 1", -1, &open, nullptr);
        }
        result = real(connection);
        sqlite3_finalize(open);
    }
    if (result == SQLITE_OK) {
        const std::lock_guard lock(mutex);
        connections.erase(connection);
    }
    recordCall("close", "", file, result);
    return result;
}

int sqlite3_exec(sqlite3 *connection, const char *sql,
                 int (*callback)(void *, int, char **, char **), void *argument, char **message) {
    static const auto real = libraryFunction<decltype(sqlite3_exec)>("sqlite3_exec");
    if (!isRecorded()) {
        return real(connection, sql, callback, argument, message);
    }
    fakes::internal::record(fakes::Kind::Sql, sql);
    int result = 0;
    {
        InCall call;
        call.meetStatementTrouble();
        result = real(connection, sql, callback, argument, message);
    }
    recordCall("exec", sql, fileOf(connection), result);
    return result;
}

int sqlite3_prepare_v2(sqlite3 *connection, const char *sql, int size, sqlite3_stmt **statement,
                       const char **tail) {
    static const auto real = libraryFunction<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2");
    if (!isRecorded()) {
        return real(connection, sql, size, statement, tail);
    }
    fakes::internal::record(fakes::Kind::Sql, sql);
    int result = 0;
    {
        InCall call;
        call.meetStatementTrouble();
        result = real(connection, sql, size, statement, tail);
    }
    recordCall("prepare", sql, fileOf(connection), result);
    return result;
}

int sqlite3_busy_timeout(sqlite3 *connection, int ms) {
    static const auto real =
        libraryFunction<decltype(sqlite3_busy_timeout)>("sqlite3_busy_timeout");
    if (isRecorded()) {
        recordCall("busy_timeout", std::to_string(ms), fileOf(connection), SQLITE_OK);
    }
    return real(connection, ms);
}

} // extern "C"
