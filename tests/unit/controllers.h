/*
 * ControllerTest: what the tests of the demand-response and defrost-delay controllers share.
 *
 * A controller is tested either alone, constructed by the test, so that its passes fall on exact
 * seconds after its construction; or launched by the manager beside the others, so that handlers
 * and controllers find each other. The clock starts at 10:03:00: no tenth minute is near, and the
 * summer reservation holds but is outside its window.
 */
#ifndef CORVANE_TESTS_UNIT_CONTROLLERS_H
#define CORVANE_TESTS_UNIT_CONTROLLERS_H

#include "DefrostDelay.h"
#include "EnergyDR.h"
#include "service_fixture.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <dlog.h>
#include <gmock/gmock.h>

namespace controllers {

using Corvane::DefrostDelay;
using Corvane::EnergyDR;
using Corvane::EnergyManager;
using fakes::Kind;
using Texts = std::vector<std::string>;

inline constexpr const char *kFile = "corvane.db";
inline constexpr const char *kDrLevel = "db/corvane/dr/level";
inline constexpr const char *kDrOverride = "db/corvane/dr/override";
inline constexpr const char *kDefrostStatus = "db/corvane/defrost/status";
inline constexpr const char *kDefrostActivate = "db/corvane/defrost/activate";

// A write of a key, as the trace shows it.
inline std::string setting(const std::string &key, const std::string &value) {
    return key + "=" + value;
}
inline std::string setting(const std::string &key, int value) {
    return setting(key, std::to_string(value));
}
inline std::string command(const std::string &text) {
    return setting(fakes::kMicomCommand, "SET_SMARTGRID_" + text);
}

// What is felt outside: settings written and notifications sent, in order.
inline Texts effects() { return fakes::texts({Kind::Setting, Kind::Notification}); }

// UTC of everything in the trace that has this text.
inline Texts timesOf(Kind kind, const std::string &text) {
    Texts times;
    for (const fakes::Entry &entry : fakes::trace({kind})) {
        if (entry.text == text) {
            times.push_back(entry.utc());
        }
    }
    return times;
}
inline Texts timesOfCommand(const std::string &text) {
    return timesOf(Kind::Setting, command(text));
}
inline Texts timesOfLog(const std::string &message) { return timesOf(Kind::Log, message); }

// Messages logged by one source file, in order.
inline Texts messagesOf(const std::string &file) {
    Texts messages;
    for (const fakes::log::Line &line : fakes::log::lines()) {
        if (line.file == file) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

// Priority of the last line with this message, -1 without one.
inline int priorityOf(const std::string &message) { return fakes::log::find(message).priority; }

// "open", "exec", ... of everything done with SQLite.
inline Texts storageCalls() {
    Texts functions;
    for (const fakes::storage::Call &call : fakes::storage::calls()) {
        functions.push_back(call.function);
    }
    return functions;
}

inline Texts fieldsOf(const Corvane::drRecord &record) {
    return {record.rowid, record.drlcLevel, record.duration, record.drlcStartTime};
}
inline Texts fieldsOf(const Corvane::scheduleRecord &record) {
    return {record.id, record.description, record.startTime, record.endTime, record.period};
}

class ControllerTest : public fakes::ServiceTest {
protected:
    ControllerTest() : ServiceTest(optionsFrom("2026-05-01T10:03:00")) {}

    static Options optionsFrom(const std::string &startUtc) {
        Options options;
        options.startUtc = startUtc;
        return options;
    }

    // All three controllers run on return, 3.5 s later, half a second before the next passes;
    // nothing recorded yet.
    static void launch() {
        EnergyManager::LaunchApp();
        advance(3.5);
        fakes::clearRecords();
    }
    static EnergyDR &dr() { return *EnergyManager::GetEnergyDR(); }
    static DefrostDelay &defrost() { return *EnergyManager::GetDefrostDelay(); }

    // The event in the table, by hand and as it is; start in UTC.
    static void storeEvent(const std::string &level, const std::string &duration,
                           const std::string &start) {
        fakes::storage::execute(
            kFile, "CREATE TABLE IF NOT EXISTS dr_usage_table(rowid INTEGER PRIMARY KEY "
                   "AUTOINCREMENT, drlcLevel NUMERIC(4) NOT NULL, duration TEXT NOT NULL, "
                   "drlcStartTime TEXT NOT NULL); DELETE FROM dr_usage_table; INSERT INTO "
                   "dr_usage_table VALUES (0, '" +
                       level + "', '" + duration + "', '" + start + "');");
    }
    static fakes::storage::Rows storedEvents() {
        return fakes::storage::query(kFile, "SELECT * FROM dr_usage_table");
    }

    // Whether the operation waits, before it does anything with the table, for the mutex that
    // holder keeps while another process has locked the file.
    static bool waitsForMutex(const std::function<void()> &holder,
                              const std::function<void()> &operation) {
        using fakes::storage::Lock;
        auto file = std::make_unique<Lock>(kFile, Lock::Kind::Exclusive);
        std::thread holding(holder);
        virtualtime::sleepMs(10);
        const int opens = fakes::storage::opens();
        std::atomic<bool> done = false;
        std::thread waiting([&] {
            operation();
            done = true;
        });
        virtualtime::sleepMs(10);
        const bool waited = !done && fakes::storage::opens() == opens;
        file.reset();
        holding.join();
        waiting.join();
        return waited;
    }

    // Whether the operation waits for the mutex while somebody is at what the trace shows as this
    // text: the holder, or the worker in a pass that begins within ten milliseconds.
    static bool waitsWhileAt(
        const std::string &text, const std::function<void()> &operation,
        const std::function<void()> &holder = [] {}) {
        fakes::pauseAt(text, 0.1);
        std::thread holding(holder);
        virtualtime::sleepMs(10);
        std::atomic<bool> done = false;
        std::thread waiting([&] {
            operation();
            done = true;
        });
        virtualtime::sleepMs(10);
        const bool waited = !done;
        holding.join();
        waiting.join();
        fakes::pauseAt("", 0);
        return waited;
    }
};

} // namespace controllers

#endif
