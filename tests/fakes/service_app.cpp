/*
 * Service loop in memory: create, then callbacks as they fall due, then, once a stop was asked for,
 * silence from settings, Wi-Fi and proxy, and terminate.
 */
#include <service_app.h>

#include "fakes.h"
#include "internal.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

std::mutex mutex;
std::condition_variable changed;
std::multimap<Clock::time_point, std::function<void()>> due; // guarded by mutex, as is the rest
bool isRunning = false;
bool stopAsked = false;
bool silenced = false; // between the end of one loop and the begin of another
int appControls = 0;

// Runs whatever is due until a stop is asked for.
void runUntilStop(const service_app_lifecycle_callback_s &callbacks, void *userData) {
    std::unique_lock lock(mutex);
    while (!stopAsked) {
        if (appControls > 0) {
            --appControls;
            lock.unlock();
            fakes::internal::record(fakes::Kind::Loop, "app_control");
            callbacks.app_control(nullptr, userData);
            lock.lock();
        } else if (due.empty()) {
            changed.wait(lock);
        } else if (due.begin()->first > Clock::now()) {
            changed.wait_until(lock, Clock::time_point(due.begin()->first));
        } else {
            const std::function<void()> callback = std::move(due.begin()->second);
            due.erase(due.begin());
            lock.unlock();
            callback();
            lock.lock();
        }
    }
    isRunning = false;
    stopAsked = false;
    silenced = true;
    due.clear();
}

} // namespace

int service_app_main(int, char **, service_app_lifecycle_callback_s *callback, void *user_data) {
    {
        const std::lock_guard lock(mutex);
        silenced = false;
    }
    fakes::internal::record(fakes::Kind::Loop, "create");
    if (!callback->create(user_data)) {
        return 1;
    }
    {
        const std::lock_guard lock(mutex);
        isRunning = true;
    }
    runUntilStop(*callback, user_data);
    fakes::proxy::quiesce();
    fakes::internal::record(fakes::Kind::Loop, "terminate");
    callback->terminate(user_data);
    return 0;
}

namespace fakes {
namespace loop {

void requestStop() {
    const std::lock_guard lock(mutex);
    stopAsked = true;
    changed.notify_all();
}

void sendAppControl() {
    const std::lock_guard lock(mutex);
    ++appControls;
    changed.notify_all();
}

bool running() {
    const std::lock_guard lock(mutex);
    return isRunning;
}

} // namespace loop

namespace internal {

void deliverOnLoop(std::function<void()> callback, double delaySec) {
    const auto when = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(delaySec));
    const std::lock_guard lock(mutex);
    if (!silenced) {
        due.emplace(when, std::move(callback));
        changed.notify_all();
    }
}

void forgetCallbacks() {
    const std::lock_guard lock(mutex);
    due.clear();
    stopAsked = false;
    silenced = false;
    appControls = 0;
}

void resetLoop() { forgetCallbacks(); }

} // namespace internal
} // namespace fakes
