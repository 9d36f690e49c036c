/*
 * The life of the service around its three callbacks: create, the main loop, and a stop that ends
 * in bounded time whatever the service does.
 */
#ifndef CORVANE_PLATFORM_LINUX_SERVICE_LOOP_H
#define CORVANE_PLATFORM_LINUX_SERVICE_LOOP_H

#include <service_app.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace corvane::platform {

/* How the loop carries the remote proxy; proxy/lifecycle.h tells what each function promises. */
struct ProxyLife {
    std::function<std::string()> prepare;
    std::function<void()> quiesce;
    std::function<void()> close;
};

/* Calls expired, on a thread of its own, when it has not been destroyed within the bound. */
class StopBound {
public:
    StopBound(std::chrono::milliseconds bound, std::function<void()> expired);
    ~StopBound();
    StopBound(const StopBound &) = delete;
    StopBound &operator=(const StopBound &) = delete;

private:
    std::mutex mutex_;
    std::condition_variable disarm_;
    bool disarmed_ = false; // guarded by mutex_
    std::thread thread_;    // the last member: it uses the others from its start
};

/*
 * Runs the service on the calling thread, which must be the process's only one, and returns the
 * exit status:
 *
 * - the folders, the settings, the storage and the proxy are prepared; what cannot be used is one
 *   line on standard error, and the status is 1 with no callback called;
 * - create; SIGTERM or SIGINT ends the loop, SIGUSR1 is an application-control request;
 * - the stop is armed: after stopBound the process ends with status 1, with a line in the log;
 * - no settings or Wi-Fi callback runs any more, quiesce, terminate, close; 0.
 *
 * systemd hears of the start, the stop and, when it asks for it, of each turn of the loop.
 */
int runService(const service_app_lifecycle_callback_s &callbacks, void *userData,
               const ProxyLife &proxy, std::chrono::milliseconds stopBound);

} // namespace corvane::platform

#endif
