/*
 * What the appliance remembers: a row for each minute, the trace, the records of events, and the
 * models' memory, in one SQLite file. It is bounded, and nothing of it is kept in RAM.
 *
 * Writes are handed to a thread of their own, so that a slow disk never holds up the appliance.
 * Each read opens the file anew; it may come from any thread, and sees every write that was handed
 * over before.
 */
#ifndef CORVANE_APPLIANCE_SERVER_HISTORY_H
#define CORVANE_APPLIANCE_SERVER_HISTORY_H

#include "event_record.h"
#include "task_thread.h"
#include "trace.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace corvane::appliance {

/* The file cannot be used; the text is one line that says what, why and what to do. */
class HistoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Means over a minute, or over a longer step. */
struct HistoryRow {
    std::int64_t atSec = 0; // its begin; a multiple of its length
    double powerWatt = 0;
    double peakWatt = 0;
    double energyWh = 0;  // used in it
    double counterWh = 0; // the refrigerator's count at its end
    double fridgeCelsius = 0;
    double freezerCelsius = 0;
    double ambientCelsius = 0;
    int level = 0;         // the highest
    bool override = false; // at any time in it, as the next two
    bool defrostHeld = false;
    bool windowActive = false; // the service held defrost for a reservation
    double compressor = 0;     // mean capacity, 0 to 1
    double heater = 0;         // share of the time, 0 to 1
};

struct TraceFilter {
    std::size_t limit = 500;
    std::optional<std::int64_t> beforeId{};
    std::string source{}; // empty: all
    std::string text{};   // contained, in any case; empty: all
};

struct Baseline {
    std::optional<double> averageWatt;
    std::optional<double> peakWatt;
    int days = 0;
};

class History {
public:
    static constexpr int kMinuteDays = 40;
    static constexpr std::int64_t kTraceEntries = 100'000;
    static constexpr std::int64_t kRecords = 1'000;
    static constexpr int kBaselineDays = 10;
    /* So many reads run at a time, so that a crowd of pages costs time and not memory. */
    static constexpr int kReaders = 3;

    /* Opens or makes the file; throws HistoryError. Rows from after nowMs are those of a clock that
     * has since gone back; they are dropped. */
    History(const std::string &path, TimeMs nowMs);
    /* Writes what was handed over. */
    ~History();
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    // ---- writes, from any thread; a failure is told once on standard error, and by failing() ----
    void addMinute(const HistoryRow &row);
    void addTrace(const TraceEntry &entry);
    void saveRecord(const EventRecord &record);
    void saveText(const std::string &name, const std::string &text);

    bool failing() const { return failing_; }

    // ---- reads, from any thread; throw HistoryError ----
    /* The rows of [fromSec, toSec) gathered in steps of stepSec, a multiple of 60. */
    std::vector<HistoryRow> rows(std::int64_t fromSec, std::int64_t toSec, int stepSec) const;
    /* Newest last, one by one: nobody needs thousands of them at once. */
    void trace(const TraceFilter &filter,
               const std::function<void(const TraceEntry &entry)> &take) const;
    /* Newest first. */
    std::vector<EventRecord> records(std::size_t limit) const;
    std::optional<std::string> text(const std::string &name) const;
    std::int64_t lastTraceId() const;
    std::int64_t lastRecordId() const;
    /* The same local hours of the days before, without those with an event or without rows. For a
     * task of afterWrites(): it does not wait for writes. */
    Baseline baseline(TimeMs fromMs, TimeMs toMs) const;

    /* Waits for all writes and tasks that were handed over. */
    void flush() const;

    /* Runs the task after the writes that were handed over before it, on the thread of the writes.
     */
    void afterWrites(TaskThread::Task task);

private:
    using Connection = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;
    using Write = std::function<void(sqlite3 *)>;

    /* A reader's connection, and its place among those that may read at a time. */
    class Reader;

    Connection open(int flags) const;
    Reader reader() const;
    void write(Write action);
    void prune(std::int64_t newestSec);

    const std::string path_;
    Connection writer_;             // used by the thread of the writes alone
    std::int64_t lastPruneSec_ = 0; // likewise
    std::atomic<bool> failing_ = false;
    mutable TaskThread thread_;
    mutable std::counting_semaphore<kReaders> places_{kReaders};
};

} // namespace corvane::appliance

#endif
