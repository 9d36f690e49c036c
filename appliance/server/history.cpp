/*
 * The history on SQLite. With a write-ahead log readers and the writer do not wait for each other;
 * synchronous=NORMAL may lose the last seconds in a power cut, which a plot does not miss.
 */
#include "history.h"

#include <cstdio>
#include <future>

#include <nlohmann/json.hpp>

namespace corvane::appliance {
namespace {

constexpr int kSchema = 1;
constexpr int kBusyMs = 2000;
constexpr std::size_t kMostWrites = 20'000;
constexpr std::int64_t kMinuteSec = 60;
constexpr std::int64_t kHourSec = 3600;
constexpr std::int64_t kDaySec = 86'400;
/* So much of a day's hours must be known for the day to count in a baseline. */
constexpr double kBaselineCover = 0.9;

constexpr const char *kTables = R"sql(
CREATE TABLE minute(at INTEGER PRIMARY KEY, power REAL, peak REAL, energy REAL, counter REAL,
  fridge REAL, freezer REAL, ambient REAL, level INTEGER, override INTEGER, held INTEGER,
  window INTEGER, compressor REAL, heater REAL);
CREATE TABLE trace(id INTEGER PRIMARY KEY, at INTEGER, source TEXT, direction TEXT, text TEXT,
  value REAL);
CREATE TABLE record(id INTEGER PRIMARY KEY, began INTEGER, ended INTEGER, json TEXT);
CREATE TABLE saved(name TEXT PRIMARY KEY, text TEXT);
)sql";

[[noreturn]] void fail(sqlite3 *database, const std::string &what) {
    throw HistoryError(what + ": " + sqlite3_errmsg(database));
}

void run(sqlite3 *database, const std::string &sql) {
    if (sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(database, "history");
}

/* A prepared statement whose parameters are bound in order. */
class Statement {
public:
    Statement(sqlite3 *database, const char *sql) : database_(database) {
        if (sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr) != SQLITE_OK)
            fail(database, "history");
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    Statement &bind(std::int64_t value) {
        sqlite3_bind_int64(statement_, ++bound_, value);
        return *this;
    }
    Statement &bind(int value) { return bind(std::int64_t{value}); }
    Statement &bind(bool value) { return bind(std::int64_t{value}); }
    Statement &bind(double value) {
        sqlite3_bind_double(statement_, ++bound_, value);
        return *this;
    }
    Statement &bind(const std::string &value) {
        sqlite3_bind_text(statement_, ++bound_, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT);
        return *this;
    }
    template <typename T>
    Statement &bind(const std::optional<T> &value) {
        if (value)
            return bind(*value);
        sqlite3_bind_null(statement_, ++bound_);
        return *this;
    }

    /* True while there is a row. */
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE)
            fail(database_, "history");
        return result == SQLITE_ROW;
    }

    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    double number(int column) const { return sqlite3_column_double(statement_, column); }
    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::string text(int column) const {
        const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
        return bytes == nullptr ? "" : bytes;
    }

private:
    sqlite3 *database_;
    sqlite3_stmt *statement_ = nullptr;
    int bound_ = 0;
};

std::int64_t single(sqlite3 *database, const char *sql) {
    Statement statement(database, sql);
    return statement.step() ? statement.integer(0) : 0;
}

HistoryRow minuteOf(const Statement &row) {
    return {.atSec = row.integer(0),
            .powerWatt = row.number(1),
            .peakWatt = row.number(2),
            .energyWh = row.number(3),
            .counterWh = row.number(4),
            .fridgeCelsius = row.number(5),
            .freezerCelsius = row.number(6),
            .ambientCelsius = row.number(7),
            .level = static_cast<int>(row.integer(8)),
            .override = row.integer(9) != 0,
            .defrostHeld = row.integer(10) != 0,
            .windowActive = row.integer(11) != 0,
            .compressor = row.number(12),
            .heater = row.number(13)};
}

/* Takes one more minute into a row that stands for `count` of them already. */
void gather(HistoryRow &sum, const HistoryRow &minute, int count) {
    const auto mean = [count](double &value, double next) {
        value += (next - value) / (count + 1);
    };
    mean(sum.powerWatt, minute.powerWatt);
    mean(sum.fridgeCelsius, minute.fridgeCelsius);
    mean(sum.freezerCelsius, minute.freezerCelsius);
    mean(sum.ambientCelsius, minute.ambientCelsius);
    mean(sum.compressor, minute.compressor);
    mean(sum.heater, minute.heater);
    sum.peakWatt = std::max(sum.peakWatt, minute.peakWatt);
    sum.energyWh += minute.energyWh;
    sum.counterWh = minute.counterWh;
    sum.level = std::max(sum.level, minute.level);
    sum.override = sum.override || minute.override;
    sum.defrostHeld = sum.defrostHeld || minute.defrostHeld;
    sum.windowActive = sum.windowActive || minute.windowActive;
}

/* The same time of day so many days before, by the local calendar. */
std::int64_t daysBefore(std::int64_t sec, int days) {
    auto moment = static_cast<std::time_t>(sec);
    std::tm fields{};
    localtime_r(&moment, &fields);
    fields.tm_mday -= days;
    fields.tm_isdst = -1;
    return mktime(&fields);
}

} // namespace

// ---- opening ------------------------------------------------------------------------------------

History::History(const std::string &path, TimeMs nowMs)
    : path_(path), writer_(nullptr, sqlite3_close), thread_(kMostWrites) {
    try {
        writer_ = open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        run(writer_.get(), "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
        const std::int64_t schema = single(writer_.get(), "PRAGMA user_version");
        if (schema == 0)
            run(writer_.get(), std::string("BEGIN;") + kTables +
                                   "PRAGMA user_version=" + std::to_string(kSchema) + ";COMMIT");
        else if (schema != kSchema)
            throw HistoryError("history: it is of another version, " + std::to_string(schema));
        Statement(writer_.get(), "DELETE FROM minute WHERE at > ?").bind(nowMs / 1000).step();
    } catch (const HistoryError &error) {
        throw HistoryError("the history " + path + " cannot be used: " + error.what() +
                           "; move it away, or set CORVANE_STATE_DIR");
    }
}

History::~History() { thread_.stop(); }

History::Connection History::open(int flags) const {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path_.c_str(), &opened, flags, nullptr);
    Connection connection(opened, sqlite3_close);
    if (result != SQLITE_OK)
        fail(opened, "history");
    sqlite3_busy_timeout(opened, kBusyMs);
    run(opened, "PRAGMA cache_size=-512");
    return connection;
}

void History::flush() const {
    std::promise<void> written;
    if (thread_.post([&written] { written.set_value(); }))
        written.get_future().wait();
}

class History::Reader {
public:
    explicit Reader(const History &history) : history_(history), connection_(nullptr, nullptr) {
        history_.flush(); // what was handed over before is to be seen
        history_.places_.acquire();
        try {
            connection_ = history_.open(SQLITE_OPEN_READONLY);
        } catch (...) {
            history_.places_.release();
            throw;
        }
    }
    ~Reader() {
        connection_.reset();
        history_.places_.release();
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    sqlite3 *get() const { return connection_.get(); }

private:
    const History &history_;
    Connection connection_;
};

History::Reader History::reader() const { return Reader(*this); }

// ---- writing ------------------------------------------------------------------------------------

void History::write(Write action) {
    const bool posted = thread_.post([this, action = std::move(action)] {
        try {
            action(writer_.get());
            failing_ = false;
        } catch (const HistoryError &error) {
            if (!failing_.exchange(true))
                std::fprintf(stderr, "corvane-appliance: %s is not written: %s\n", path_.c_str(),
                             error.what());
        }
    });
    if (!posted)
        failing_ = true;
}

void History::addMinute(const HistoryRow &row) {
    write([this, row](sqlite3 *database) {
        Statement(database, "INSERT OR REPLACE INTO minute VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?)")
            .bind(row.atSec)
            .bind(row.powerWatt)
            .bind(row.peakWatt)
            .bind(row.energyWh)
            .bind(row.counterWh)
            .bind(row.fridgeCelsius)
            .bind(row.freezerCelsius)
            .bind(row.ambientCelsius)
            .bind(row.level)
            .bind(row.override)
            .bind(row.defrostHeld)
            .bind(row.windowActive)
            .bind(row.compressor)
            .bind(row.heater)
            .step();
        if (row.atSec - lastPruneSec_ >= kHourSec || row.atSec < lastPruneSec_)
            prune(row.atSec);
    });
}

/* Once an hour of the appliance's time; what is not dropped then is dropped the next time. */
void History::prune(std::int64_t newestSec) {
    lastPruneSec_ = newestSec;
    Statement(writer_.get(), "DELETE FROM minute WHERE at < ?")
        .bind(newestSec - kMinuteDays * kDaySec)
        .step();
    Statement(writer_.get(), "DELETE FROM trace WHERE id <= (SELECT max(id) FROM trace) - ?")
        .bind(kTraceEntries)
        .step();
    Statement(writer_.get(), "DELETE FROM record WHERE id <= (SELECT max(id) FROM record) - ?")
        .bind(kRecords)
        .step();
}

void History::addTrace(const TraceEntry &entry) {
    write([entry](sqlite3 *database) {
        Statement(database, "INSERT INTO trace VALUES(?,?,?,?,?,?)")
            .bind(entry.id)
            .bind(entry.atMs)
            .bind(entry.source)
            .bind(entry.direction)
            .bind(entry.text)
            .bind(entry.value)
            .step();
    });
}

void History::saveRecord(const EventRecord &record) {
    // Times that have been lived anew without the event are not its own any more.
    const auto ownSec = [&record](TimeMs atMs) {
        return record.clockSetBack ? std::nullopt : std::optional(atMs / 1000);
    };
    const TimeMs toMs = std::min(record.endedAtMs.value_or(record.plan.endMs), record.plan.endMs);
    write([record, from = ownSec(record.beganMs()), to = ownSec(toMs)](sqlite3 *database) {
        Statement(database, "INSERT OR REPLACE INTO record VALUES(?,?,?,?)")
            .bind(record.id)
            .bind(from)
            .bind(to)
            .bind(recordJson(record).dump())
            .step();
    });
}

void History::saveText(const std::string &name, const std::string &text) {
    write([name, text](sqlite3 *database) {
        Statement(database, "INSERT OR REPLACE INTO saved VALUES(?,?)")
            .bind(name)
            .bind(text)
            .step();
    });
}

void History::afterWrites(TaskThread::Task task) {
    if (!thread_.post(std::move(task)))
        failing_ = true;
}

// ---- reading ------------------------------------------------------------------------------------

std::vector<HistoryRow> History::rows(std::int64_t fromSec, std::int64_t toSec, int stepSec) const {
    const Reader database = reader();
    Statement minutes(database.get(), "SELECT * FROM minute WHERE at >= ? AND at < ? ORDER BY at");
    minutes.bind(fromSec).bind(toSec);
    std::vector<HistoryRow> steps;
    int count = 0;
    while (minutes.step()) {
        HistoryRow minute = minuteOf(minutes);
        const std::int64_t step = minute.atSec - minute.atSec % stepSec;
        if (steps.empty() || steps.back().atSec != step) {
            minute.atSec = step;
            steps.push_back(minute);
            count = 1;
        } else {
            gather(steps.back(), minute, count++);
        }
    }
    return steps;
}

void History::trace(const TraceFilter &filter,
                    const std::function<void(const TraceEntry &entry)> &take) const {
    const Reader database = reader();
    Statement entries(database.get(),
                      "SELECT * FROM (SELECT * FROM trace WHERE id < ? AND (?2 = '' OR source = ?2)"
                      " AND (?3 = '' OR instr(lower(text), lower(?3)) > 0)"
                      " ORDER BY id DESC LIMIT ?4) ORDER BY id");
    entries.bind(filter.beforeId.value_or(INT64_MAX))
        .bind(filter.source)
        .bind(filter.text)
        .bind(static_cast<std::int64_t>(filter.limit));
    while (entries.step())
        take({entries.integer(0), entries.integer(1), entries.text(2), entries.text(3),
              entries.text(4),
              entries.isNull(5) ? std::nullopt : std::optional(entries.number(5))});
}

std::vector<EventRecord> History::records(std::size_t limit) const {
    const Reader database = reader();
    Statement rows(database.get(), "SELECT json FROM record ORDER BY id DESC LIMIT ?");
    rows.bind(static_cast<std::int64_t>(limit));
    std::vector<EventRecord> found;
    while (rows.step()) {
        try {
            found.push_back(recordFromJson(nlohmann::json::parse(rows.text(0))));
        } catch (const nlohmann::json::exception &error) {
            throw HistoryError(path_ + " holds a record that cannot be read: " + error.what());
        }
    }
    return found;
}

std::optional<std::string> History::text(const std::string &name) const {
    const Reader database = reader();
    Statement row(database.get(), "SELECT text FROM saved WHERE name = ?");
    row.bind(name);
    return row.step() ? std::optional(row.text(0)) : std::nullopt;
}

std::int64_t History::lastTraceId() const {
    return single(reader().get(), "SELECT max(id) FROM trace");
}

std::int64_t History::lastRecordId() const {
    return single(reader().get(), "SELECT max(id) FROM record");
}

Baseline History::baseline(TimeMs fromMs, TimeMs toMs) const {
    const Connection database = open(SQLITE_OPEN_READONLY);
    const std::int64_t lengthSec = std::max<std::int64_t>((toMs - fromMs) / 1000, 1);
    Baseline result;
    double averages = 0;
    double peaks = 0;
    for (int day = 1; day <= kBaselineDays; ++day) {
        const std::int64_t from = daysBefore(fromMs / 1000, day);
        const std::int64_t to = from + lengthSec;
        Statement events(database.get(), "SELECT 1 FROM record WHERE began < ? AND ended > ?");
        if (events.bind(to).bind(from).step())
            continue;
        // The minutes that the span touches, also when it is shorter than one.
        const std::int64_t firstMinute = from - from % kMinuteSec;
        Statement minutes(database.get(), "SELECT count(*), avg(power), max(peak) FROM minute"
                                          " WHERE at >= ? AND at < ?");
        minutes.bind(firstMinute).bind(to).step();
        const std::int64_t wanted = (to - firstMinute + kMinuteSec - 1) / kMinuteSec;
        if (static_cast<double>(minutes.integer(0)) < kBaselineCover * static_cast<double>(wanted))
            continue;
        averages += minutes.number(1);
        peaks += minutes.number(2);
        ++result.days;
    }
    if (result.days > 0) {
        result.averageWatt = averages / result.days;
        result.peakWatt = peaks / result.days;
    }
    return result;
}

} // namespace corvane::appliance
