/*
 * The common trace, and what concerns all fakes at once.
 */
#include "fakes.h"
#include "internal.h"
#include "storage.h"
#include "virtual_time.h"

#include <algorithm>
#include <ctime>
#include <mutex>
#include <utility>

namespace fakes {
namespace {

std::mutex traceMutex;
std::vector<Entry> entries; // guarded by traceMutex, as is the rest
std::string pauseText;
double pauseSec = 0;
std::function<void(const Entry &)> observer; // set while nothing runs

bool isWanted(const Entry &entry, std::initializer_list<Kind> kinds) {
    return kinds.size() == 0 || std::find(kinds.begin(), kinds.end(), entry.kind) != kinds.end();
}

} // namespace

namespace internal {

std::int64_t systemClockNs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

bool keepsRecords() { return observer == nullptr; }

void record(Kind kind, std::string text) {
    const std::int64_t now = systemClockNs();
    if (observer != nullptr) {
        observer({kind, std::move(text), now});
        return;
    }
    double sec = 0;
    {
        const std::lock_guard lock(traceMutex);
        sec = text == pauseText ? pauseSec : 0;
        entries.push_back({kind, std::move(text), now});
    }
    if (sec > 0) {
        virtualtime::sleepSec(sec);
    }
}

} // namespace internal

std::string formatUtc(std::int64_t utcNs) {
    const time_t sec = utcNs / 1'000'000'000;
    std::tm fields{};
    gmtime_r(&sec, &fields);
    char text[40];
    return {text, std::strftime(text, sizeof text, "%FT%T", &fields)};
}

std::string Entry::utc() const { return formatUtc(utcNs); }

std::vector<Entry> trace(std::initializer_list<Kind> kinds) {
    const std::lock_guard lock(traceMutex);
    std::vector<Entry> wanted;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(wanted),
                 [kinds](const Entry &entry) { return isWanted(entry, kinds); });
    return wanted;
}

std::vector<std::string> texts(std::initializer_list<Kind> kinds) {
    std::vector<std::string> wanted;
    for (Entry &entry : trace(kinds)) {
        wanted.push_back(std::move(entry.text));
    }
    return wanted;
}

void observe(std::function<void(const Entry &)> newObserver) { observer = std::move(newObserver); }

void pauseAt(const std::string &text, double sec) {
    const std::lock_guard lock(traceMutex);
    pauseText = text;
    pauseSec = sec;
}

void clearRecords() {
    {
        const std::lock_guard lock(traceMutex);
        entries.clear();
    }
    internal::clearLog();
    internal::clearSettings();
    internal::clearWifi();
    internal::clearProxy();
    internal::clearMetering();
    storage::clearCalls();
}

void newProcess() {
    internal::forgetRegistrations();
    internal::forgetCallbacks();
    internal::forgetHandlers();
}

void reset() {
    clearRecords();
    pauseAt("", 0);
    internal::resetLog();
    internal::resetSettings();
    internal::resetLoop();
    internal::resetWifi();
    internal::resetPower();
    internal::resetProxy();
    internal::resetMetering();
    storage::heal();
}

} // namespace fakes
