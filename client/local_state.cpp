/*
 * The service's files, read from outside. The event table is opened read-only, so that a look never
 * makes, repairs or locks out anything; what cannot be read that way is reported as not known.
 */
#include "local_state.h"

#include "calendar.h"
#include "errors.h"

#include <cerrno>
#include <filesystem>

#include <sqlite3.h>

namespace corvane::client {
namespace {

constexpr int kBusyMs = 1000;

struct CloseDatabase {
    void operator()(sqlite3 *database) const { sqlite3_close(database); }
};
struct FinalizeStatement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

std::string columnText(sqlite3_stmt *statement, int column) {
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return text == nullptr ? "" : text;
}

bool exists(const std::string &path) {
    std::error_code ignored; // a folder that cannot be looked into is as good as none
    return std::filesystem::exists(path, ignored);
}

} // namespace

platform::Folders environmentFolders() {
    platform::Folders folders;
    const platform::Status status = platform::findFolders(folders);
    if (!status.ok())
        throw CommandFailed(status.text);
    return folders;
}

bool hasState(const platform::Folders &folders) {
    return exists(folders.state + "/settings/db") || exists(folders.runtime + "/settings/memory");
}

LocalState::LocalState(const platform::Folders &folders) : folders_(folders) {
    if (!hasState(folders)) {
        missing_ = "no service keeps its files in " + folders.state;
        return;
    }
    auto store = std::make_unique<platform::SettingsStore>();
    const platform::Status status = store->openExisting(folders);
    if (status.ok())
        store_ = std::move(store);
    else
        missing_ = status.text;
}

Piece<int> LocalState::integer(const std::string &key) const {
    if (!store_)
        return {{}, missing_, {}};
    platform::SettingValue value;
    const platform::Status status = store_->read(key, value);
    if (status.code == ENOENT)
        return {{}, "the service has not stored it yet", {}};
    if (!status.ok())
        return {{}, status.text, {}};
    if (const int *number = std::get_if<int>(&value))
        return {*number, {}, {}};
    return {{}, key + " holds a text", {}};
}

Piece<EventReport> LocalState::event() const {
    const std::string path = folders_.state + "/db/corvane.db";
    if (!exists(path))
        return {{}, "no event table in " + folders_.state, {}};
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    const std::unique_ptr<sqlite3, CloseDatabase> database(opened);
    const auto failure = [&]() -> Piece<EventReport> {
        return {{}, path + ": " + sqlite3_errmsg(database.get()), {}};
    };
    if (result != SQLITE_OK)
        return failure();
    sqlite3_busy_timeout(database.get(), kBusyMs);
    if (sqlite3_table_column_metadata(database.get(), nullptr, "dr_usage_table", nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr) == SQLITE_ERROR)
        return {{}, "the service has not made its event table yet", {}};

    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(database.get(),
                           "SELECT drlcLevel, duration, drlcStartTime FROM dr_usage_table"
                           " ORDER BY rowid DESC LIMIT 1",
                           -1, &prepared, nullptr) != SQLITE_OK)
        return failure();
    const std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement(prepared);
    const int step = sqlite3_step(prepared);
    if (step == SQLITE_DONE)
        return {EventReport{}, {}, {}};
    if (step != SQLITE_ROW)
        return failure();
    const std::string level = columnText(prepared, 0);
    if (level.empty() || level == "0")
        return {EventReport{}, {}, {}};
    const auto event = readEvent(level, columnText(prepared, 1), columnText(prepared, 2));
    if (!event)
        return {{}, path + ": the stored event is malformed", {}};
    return {EventReport{true, event}, {}, {}};
}

std::optional<StoredEvent> readEvent(const std::string &level, const std::string &duration,
                                     const std::string &startUtc) {
    const auto length = parseTimeOfDay(duration);
    const auto start = parseUtc(startUtc);
    if (level.size() != 1 || level[0] < '0' || level[0] > '9' || !length || !start)
        return std::nullopt;
    return StoredEvent{level[0] - '0', {*start, *start + *length}};
}

} // namespace corvane::client
