/*
 * Storage: the generic statements, then the three tables. Statement texts are part of the stored
 * format and are composed exactly as they always were.
 */
#include "EnergyDB.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include <sqlite3.h>

#include "Log.h"

namespace Corvane {

namespace {

constexpr int kAttempts = 10;
constexpr int kBusyTimeoutMs = 200;

constexpr const char *kUsageFile = "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/usage.db";
constexpr const char *kMainFile = "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/corvane.db";

constexpr const char *kPowerTable = "power_usage_table";
constexpr const char *kDefrostTable = "defrost_usage_table";
constexpr const char *kDrTable = "dr_usage_table";

std::string creationOf(const std::string &table) {
    if (table == kPowerTable) {
        return "CREATE TABLE IF NOT EXISTS power_usage_table("
               "\t\t\t   date NUMERIC(12) NOT NULL, "
               "\t\t\t   power_usage NUMERIC(14) NOT NULL, "
               "\t\t\t   running_time NUMERIC(14) NOT NULL);";
    }
    if (table == kDefrostTable) {
        return "CREATE TABLE IF NOT EXISTS defrost_usage_table("
               "\t\t\t   id NUMERIC(4) NOT NULL PRIMARY KEY,"
               "\t\t\t   description TEXT NOT NULL,"
               "\t\t\t   startTime TEXT NOT NULL, "
               "\t\t\t   endTime TEXT NOT NULL, "
               "\t\t\t   period TEXT NOT NULL);";
    }
    if (table == kDrTable) {
        return "CREATE TABLE IF NOT EXISTS dr_usage_table("
               "\t\t\t   rowid INTEGER PRIMARY KEY AUTOINCREMENT,"
               "\t\t\t   drlcLevel NUMERIC(4) NOT NULL, "
               "\t\t\t   duration TEXT NOT NULL, "
               "\t\t\t   drlcStartTime TEXT NOT NULL);";
    }
    return "";
}

std::string columnsOf(const std::string &table) {
    if (table == kPowerTable) {
        return " (date, power_usage, running_time) values('";
    }
    if (table == kDefrostTable) {
        return " (id, description, startTime, endTime, period) values('";
    }
    if (table == kDrTable) {
        return " (rowid, drlcLevel, duration, drlcStartTime) values('";
    }
    return "";
}

std::string columnText(sqlite3_stmt *statement, int column) {
    char number[400]; // the widest "%f" of a double has 317 characters
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
        // Deliberate: a wider integer is cut to 32 bits here.
        std::snprintf(number, sizeof number, "%d", sqlite3_column_int(statement, column));
        return number;
    case SQLITE_FLOAT:
        std::snprintf(number, sizeof number, "%f", sqlite3_column_double(statement, column));
        return number;
    case SQLITE_TEXT:
        return {reinterpret_cast<const char *>(sqlite3_column_text(statement, column)),
                static_cast<size_t>(sqlite3_column_bytes(statement, column))};
    default:
        return "";
    }
}

/* Repeats the attempt while it fails, ten times at the most, and gives its last result. */
template <class Attempt>
int attempted(Attempt attempt) {
    int result = attempt();
    for (int attempts = 1; result != 0 && attempts < kAttempts; ++attempts) {
        result = attempt();
    }
    return result;
}

} // namespace

int Database::_open(const std::string &path) {
    if (db != nullptr) {
        return SQLITE_OK;
    }
    const int result =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (result != SQLITE_OK) {
        LOG(DLOG_DEBUG, "Can't open database: %s", sqlite3_errmsg(db));
    }
    return result;
}

int Database::_close() {
    if (db == nullptr) {
        return SQLITE_OK;
    }
    const int result = sqlite3_close(db);
    if (result != SQLITE_OK) {
        LOG(DLOG_DEBUG, "Can't close database: %s", sqlite3_errmsg(db));
        return result;
    }
    db = nullptr;
    return SQLITE_OK;
}

int Database::_exec(const std::string &sql) {
    if (db == nullptr) {
        LOG(DLOG_DEBUG, "Can not exec DB. DB is NULL");
        return -1;
    }
    if (sql.empty()) {
        return -1;
    }
    int code = SQLITE_OK;
    for (int attempts = 0; attempts < kAttempts; ++attempts) {
        char *message = nullptr;
        code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
        if (code == SQLITE_OK) {
            break;
        }
        // The handle of a failed open sets no message.
        LOG(DLOG_DEBUG, "SQL error: %s", message != nullptr ? message : sqlite3_errstr(code));
        sqlite3_free(message);
        _awaitTurn(code);
    }
    return code;
}

void Database::_awaitTurn(int code) {
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        sqlite3_busy_timeout(db, kBusyTimeoutMs);
    }
}

int Database::_create(const std::string &table) {
    const std::string sql = creationOf(table);
    if (sql.empty()) {
        return -1;
    }
    const int result = _exec(sql);
    if (result == SQLITE_OK) {
        LOG(DLOG_DEBUG, "Table created successfully");
    }
    return result;
}

int Database::_insert(const std::string &table, const std::vector<std::string> &values) {
    std::string sql = "INSERT INTO " + table + columnsOf(table);
    for (size_t i = 0; i < values.size(); ++i) {
        sql += values[i] + (i + 1 < values.size() ? "', '" : "');");
    }
    const int result = _exec(sql);
    if (result == SQLITE_OK) {
        LOG(DLOG_DEBUG, "Records created successfully");
    }
    return result;
}

int Database::_delete(const std::string &table, const std::string &condition) {
    return _exec("DELETE from " + table + condition + ";");
}

int Database::_update(const std::string &table, const std::vector<std::string> &parts) {
    const int result = _exec("UPDATE " + table + " SET " + parts[0] + " WHERE " + parts[1] + ";");
    if (result == SQLITE_OK) {
        LOG(DLOG_DEBUG, "Records updated successfully");
    } else {
        LOG(DLOG_DEBUG, "Can not updated record : %d", result);
    }
    return result;
}

int Database::_select(const std::string &table, Rows &rows, const std::string &condition) {
    const std::string sql = "SELECT * FROM " + table + condition;
    sqlite3_stmt *statement = nullptr;
    for (int attempts = 0; attempts < kAttempts; ++attempts) {
        const int code = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
        if (code == SQLITE_OK) {
            break;
        }
        LOG(DLOG_DEBUG, "Can not select Record : %s, Error Code : %d", sqlite3_errmsg(db), code);
        _awaitTurn(code);
    }
    const int columns = sqlite3_column_count(statement);
    int step = sqlite3_step(statement);
    for (; step == SQLITE_ROW; step = sqlite3_step(statement)) {
        std::vector<std::string> row;
        for (int column = 0; column < columns; ++column) {
            row.push_back(columnText(statement, column));
        }
        rows.push_back(row);
    }
    if (step != SQLITE_DONE) {
        LOG(DLOG_DEBUG, "ret : %d", step);
    }
    sqlite3_finalize(statement);
    return SQLITE_OK;
}

DrDB::DrDB() { open(); }

DrDB::~DrDB() { close(); }

void DrDB::open() {
    attempted([this] { return _open(kMainFile); });
}

void DrDB::create() {
    attempted([this] { return _create(kDrTable); });
}

int DrDB::close() {
    return attempted([this] { return _close(); });
}

int DrDB::insertRecord(const drRecord &record) {
    int result = 0;
    do {
        result = _insert(kDrTable,
                         {record.rowid, record.drlcLevel, record.duration, record.drlcStartTime});
    } while (result != SQLITE_OK);
    return result;
}

void DrDB::deleteRecord() { _delete(kDrTable, ""); }

int DrDB::selectRecord(drRecord &out) {
    Rows rows;
    if (_select(kDrTable, rows, " ORDER BY rowid DESC LIMIT 1") != SQLITE_OK) {
        return -1;
    }
    out = rows.size() == 1 ? drRecord{rows[0][0], rows[0][1], rows[0][2], rows[0][3]} : drRecord{};
    return 0;
}

DefrostDB::DefrostDB() { open(); }

DefrostDB::~DefrostDB() { close(); }

int DefrostDB::open() {
    return attempted([this] { return _open(kMainFile); });
}

void DefrostDB::create() {
    attempted([this] { return _create(kDefrostTable); });
}

int DefrostDB::close() {
    return attempted([this] { return _close(); });
}

int DefrostDB::insertRecord(const scheduleRecord &record) {
    return _insert(kDefrostTable, {record.id, record.description, record.startTime, record.endTime,
                                   record.period});
}

int DefrostDB::deleteRecord(const std::string &id) {
    if (id.empty()) {
        LOG(DLOG_DEBUG, "Not exist key");
        return 1;
    }
    return _delete(kDefrostTable, " WHERE id = " + id);
}

namespace {

scheduleRecord toSchedule(const std::vector<std::string> &row) {
    return {row[0], row[1], row[2], row[3], row[4]};
}

} // namespace

int DefrostDB::selectRecord(scheduleRecord &record) {
    std::string condition;
    if (!record.id.empty()) {
        condition = " WHERE id = '" + record.id + "'";
    } else if (!record.description.empty()) {
        condition = " WHERE description = '" + record.description + "'";
    } else {
        return 1;
    }
    Rows rows;
    if (_select(kDefrostTable, rows, condition) != SQLITE_OK) {
        return -1;
    }
    LOG(DLOG_DEBUG, "constainer size : %d", static_cast<int>(rows.size()));
    if (rows.size() == 1) {
        record = toSchedule(rows[0]);
    }
    return 0;
}

int DefrostDB::_selectOrdered(std::vector<scheduleRecord> &records, const std::string &order) {
    Rows rows;
    if (_select(kDefrostTable, rows, order) != SQLITE_OK) {
        return -1;
    }
    for (const std::vector<std::string> &row : rows) {
        records.push_back(toSchedule(row));
    }
    return 0;
}

int DefrostDB::selectOrderByDesc(std::vector<scheduleRecord> &records) {
    return _selectOrdered(records, " ORDER BY id DESC");
}

int DefrostDB::selectOrderByAsc(std::vector<scheduleRecord> &records) {
    return _selectOrdered(records, " ORDER BY id ASC");
}

PowerDB::PowerDB() { open(); }

PowerDB::~PowerDB() { close(); }

int PowerDB::open() {
    return attempted([this] { return _open(kUsageFile); });
}

int PowerDB::create() {
    return attempted([this] { return _create(kPowerTable); });
}

int PowerDB::close() {
    return attempted([this] { return _close(); });
}

int PowerDB::_selectOne(powerRecord &record, const std::string &condition) {
    Rows rows;
    if (_select(kPowerTable, rows, condition) != SQLITE_OK) {
        return -1;
    }
    if (rows.size() == 1) {
        record = {rows[0][0], rows[0][1], rows[0][2]};
    }
    return 0;
}

int PowerDB::selectRecord(powerRecord &record) {
    if (record.date.empty()) {
        return 1;
    }
    return _selectOne(record, " WHERE date = '" + record.date + "'");
}

int PowerDB::selectLastRecord(powerRecord &record) {
    return _selectOne(record, " ORDER BY date DESC LIMIT 1");
}

int PowerDB::selectAlignRecordByPart(powerRecord &record, const std::string &start,
                                     const std::string &end, const std::string &order) {
    return _selectOne(record, " WHERE date >= " + start + " AND date < " + end + " ORDER BY date " +
                                  order + " LIMIT 1");
}

int PowerDB::checkDate(const std::string &date) {
    powerRecord record;
    record.date = date;
    if (selectRecord(record) != 0) {
        return -1;
    }
    return record.power_usage.empty() ? 1 : 0;
}

void PowerDB::insertRecord(const std::string &date) {
    powerRecord last;
    if (selectLastRecord(last) != 0) {
        return;
    }
    if (last.power_usage.empty()) {
        _insert(kPowerTable, {date, "0", "0"});
    } else {
        _insert(kPowerTable, {date, last.power_usage, last.running_time});
    }
}

void PowerDB::updateLastRecord(const std::string &date, int energy) {
    constexpr std::uint64_t kWrap = 1000000;
    powerRecord last;
    if (selectLastRecord(last) != 0) {
        return;
    }
    std::uint64_t sum = last.power_usage.empty() ? 0 : std::stoull(last.power_usage);
    sum += static_cast<std::uint64_t>(std::int64_t{energy});
    if (sum > kWrap) {
        sum -= kWrap; // deliberate: the counter runs from 0 to 1000000 and goes on from 1
    }
    char text[24];
    std::snprintf(text, sizeof text, "%" PRIu64, sum);
    _update(kPowerTable, {"power_usage = '" + std::string(text) + "'", "date = '" + date + "'"});
}

void PowerDB::deleteKeyLow(const std::string &date) {
    if (date.empty()) {
        LOG(DLOG_DEBUG, "Not exist key");
        return;
    }
    _delete(kPowerTable, " WHERE date < '" + date + "'");
}

void PowerDB::deleteKeyHigh(const std::string &date) {
    if (date.empty()) {
        LOG(DLOG_DEBUG, "Not exist key");
        return;
    }
    _delete(kPowerTable, " WHERE date > '" + date + "'");
}

} // namespace Corvane
