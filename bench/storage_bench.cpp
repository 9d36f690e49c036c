/*
 * What the service's storage layer costs over SQLite's C interface: open, insert, close, with the
 * same statement, file system layer and durability on both sides. The files are in
 * CORVANE_STATE_DIR.
 */
#include <cstdio>
#include <iostream>

#include <benchmark/benchmark.h>
#include <dlog.h>
#include <sqlite3.h>

#include "EnergyDB.h"
#include "folders.h"
#include "storage.h"

/* The cost of the log's own output is not storage's. */
int __dlog_print(log_id_t, int, const char *, const char *, ...) { return 0; }

namespace {

constexpr const char *kFile = "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/bench.db";

void clear() {
    Corvane::Database database;
    database._open(kFile);
    database._create("power_usage_table");
    database._delete("power_usage_table", "");
    database._close();
}

void serviceInsert(benchmark::State &state) {
    clear();
    for (auto _ : state) {
        Corvane::Database database;
        database._open(kFile);
        database._insert("power_usage_table", {"2026050110", "1500", "0"});
        database._close();
    }
}

void directInsert(benchmark::State &state) {
    clear();
    for (auto _ : state) {
        sqlite3 *database = nullptr;
        sqlite3_open_v2(kFile, &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        sqlite3_exec(database,
                     "INSERT INTO power_usage_table (date, power_usage, running_time) "
                     "values('2026050110', '1500', '0');",
                     nullptr, nullptr, nullptr);
        sqlite3_close(database);
    }
}

} // namespace

BENCHMARK(serviceInsert)->Unit(benchmark::kMicrosecond);
BENCHMARK(directInsert)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv) {
    corvane::platform::Folders folders;
    corvane::platform::Status status = findFolders(folders);
    if (status.ok()) {
        status = corvane::platform::prepareStorage(folders.state);
    }
    if (!status.ok()) {
        std::fprintf(stderr, "storage_bench: %s\n", status.text.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    // The service's lines on standard output would mix with the results.
    std::freopen("/dev/null", "w", stdout);
    benchmark::ConsoleReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
}
