/*
 * Storage: Database, a thin layer over one SQLite connection that composes statements as text, and
 * the three tables that derive from it, each with its record.
 *
 *   DrDB       dr_usage_table       corvane.db   the one demand-response event
 *   DefrostDB  defrost_usage_table  corvane.db   the defrost reservations
 *   PowerDB    power_usage_table    usage.db     the hourly energy counter
 *
 * Table objects are short-lived: construct (opens the file), one or two operations, close(), gone.
 * Nothing here locks; the owner of a table object holds its controller's mutex meanwhile. Integer
 * results are 0, an SQLite code, or -1 (no connection, nothing to do), unless said otherwise.
 */
#ifndef CORVANE_ENERGYDB_H
#define CORVANE_ENERGYDB_H

#include <string>
#include <vector>

struct sqlite3;

namespace Corvane {

class Database {
public:
    using Rows = std::vector<std::vector<std::string>>;

    Database() = default;
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    /** Leaves the connection to the table classes, which close it. */
    virtual ~Database() = default;

    /** Opens or creates the file. With a handle held, even that of a failed open, 0 and nothing
     * done. */
    int _open(const std::string &path);
    int _close();

    /** Runs the text, up to ten times while it fails; a busy or locked file is waited for. */
    int _exec(const std::string &sql);

    /** Creates the table if it does not exist; -1 for a name that is none of the three. */
    int _create(const std::string &table);

    /** Values are pasted in quotes, without escaping. */
    int _insert(const std::string &table, const std::vector<std::string> &values);

    /** condition: "" for every row, else with its leading blank and WHERE. */
    int _delete(const std::string &table, const std::string &condition);

    /** parts: the assignments, the condition. */
    int _update(const std::string &table, const std::vector<std::string> &parts);

    /**
     * Appends the rows, each column as text: integers as 32-bit decimals, reals with six decimals,
     * NULL and blobs empty. condition as in _delete, or an ORDER BY. 0 even when the query fails,
     * with no rows.
     */
    int _select(const std::string &table, Rows &rows, const std::string &condition);

private:
    void _awaitTurn(int code);

    sqlite3 *db = nullptr; // null while closed
};

/** A demand-response event. A non-empty rowid means that there is one. */
class drRecord {
public:
    std::string rowid;
    std::string drlcLevel;     // "1" to "4", as ordered
    std::string duration;      // hh:mm:ss
    std::string drlcStartTime; // UTC, "%FT%T"
};

class DrDB : public Database {
public:
    DrDB();
    ~DrDB() override;

    void open();
    void create();
    int close();

    /** Retries without bound: the caller has emptied the table, so the fixed key cannot collide. */
    int insertRecord(const drRecord &record);

    /** Removes every row. */
    void deleteRecord();

    /** The event, or four empty fields; -1 with out untouched when the query fails. */
    int selectRecord(drRecord &out);
};

/** A defrost reservation, in local time. */
class scheduleRecord {
public:
    std::string id; // "0" to "3"
    std::string description;
    std::string startTime; // 0000-MM-DDThh:mm:ss: first day of the season, daily start
    std::string endTime;   // 0000-MM-DDThh:mm:ss: last day of the season
    std::string period;    // hh:mm:ss: length of the daily window
};

class DefrostDB : public Database {
public:
    DefrostDB();
    ~DefrostDB() override;

    int open();
    void create();
    int close();

    int insertRecord(const scheduleRecord &record);

    /** 1 for an empty id. The id is pasted unquoted. */
    int deleteRecord(const std::string &id);

    /**
     * Fills the record from the one row with its id or, without an id, its description; otherwise
     * leaves it as it is. 1 when both are empty, -1 when the query fails, else 0.
     */
    int selectRecord(scheduleRecord &record);

    /** Append every row in the order of id. */
    int selectOrderByDesc(std::vector<scheduleRecord> &records);
    int selectOrderByAsc(std::vector<scheduleRecord> &records);

private:
    int _selectOrdered(std::vector<scheduleRecord> &records, const std::string &order);
};

/** One hour of the energy history. */
class powerRecord {
public:
    std::string date;         // hour key YYYYMMDDHH, UTC
    std::string power_usage;  // cumulative counter at the end of the hour, 0 to 1000000
    std::string running_time; // carried along from row to row
};

class PowerDB : public Database {
public:
    PowerDB();
    ~PowerDB() override;

    int open();
    int create();
    int close();

    /** Opens a new hour with the newest row's counter, or 0. */
    void insertRecord(const std::string &date);

    /** Adds energy to the newest row's counter and writes the sum, wrapped past 1000000, to date's
     * row. */
    void updateLastRecord(const std::string &date, int energy);

    /** The row of record.date. 1 when that is empty, -1 when the query fails, else 0. */
    int selectRecord(powerRecord &record);

    /** The newest row. */
    int selectLastRecord(powerRecord &record);

    /** The first ("ASC") or last ("DESC") row with start <= date < end. */
    int selectAlignRecordByPart(powerRecord &record, const std::string &start,
                                const std::string &end, const std::string &order);

    /** 0 when the hour has a row, 1 when not, -1 when that cannot be told. */
    int checkDate(const std::string &date);

    /** Delete the hours before, or after, date. */
    void deleteKeyLow(const std::string &date);
    void deleteKeyHigh(const std::string &date);

private:
    int _selectOne(powerRecord &record, const std::string &condition);
};

} // namespace Corvane

#endif
