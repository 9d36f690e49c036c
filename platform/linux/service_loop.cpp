/*
 * The life of the service: prepare, create, loop, stop. The loop is libsystemd's; it serves three
 * descriptors (settings, calls posted by other threads, signals) and nothing else, so that an idle
 * service does not run at all.
 */
#include "service_loop.h"

#include "folders.h"
#include "instance_lock.h"
#include "main_queue.h"
#include "settings.h"
#include "storage.h"

#include <dlog.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <utility>

#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

struct Service {
    const service_app_lifecycle_callback_s &callbacks;
    void *userData;
};

using Event = std::unique_ptr<sd_event, decltype(&sd_event_unref)>;

Status prepare(const ProxyLife &proxy, InstanceLock &lock) {
    Folders folders;
    Status status = findFolders(folders);
    if (status.ok())
        status = Settings::instance().open();
    if (status.ok())
        status = lock.take(folders);
    if (status.ok())
        status = prepareStorage(folders.state);
    if (status.ok())
        status = MainQueue::instance().open();
    if (!status.ok())
        return status;
    if (std::string failure = proxy.prepare(); !failure.empty())
        return {EADDRNOTAVAIL, std::move(failure)};
    return {};
}

/* The loop calls these from C: an exception of a callback ends the process here, as it must. */

int onSettings(sd_event_source *source, int, uint32_t, void *) noexcept {
    const Status status = Settings::instance().deliver();
    if (status.ok())
        return 0;
    (void)__dlog_print(LOG_ID_MAIN, DLOG_ERROR, "corvane", "settings: %s", status.text.c_str());
    return sd_event_exit(sd_event_source_get_event(source), 1);
}

int onPosted(sd_event_source *, int, uint32_t, void *) noexcept {
    MainQueue::instance().run();
    return 0;
}

int onStop(sd_event_source *source, const signalfd_siginfo *, void *) noexcept {
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int onControl(sd_event_source *, const signalfd_siginfo *, void *data) noexcept {
    const auto *service = static_cast<const Service *>(data);
    if (service->callbacks.app_control != nullptr)
        service->callbacks.app_control(nullptr, service->userData);
    return 0;
}

/* The loop with its sources, which go with it. */
Status makeLoop(Event &event, Service &service) {
    sd_event *made = nullptr;
    int result = sd_event_new(&made);
    event.reset(made);
    const auto addDescriptor = [&](int fd, sd_event_io_handler_t handler) {
        if (result >= 0)
            result = sd_event_add_io(made, nullptr, fd, EPOLLIN, handler, nullptr);
    };
    const auto addSignal = [&](int signal, sd_event_signal_handler_t handler) {
        if (result >= 0)
            result = sd_event_add_signal(made, nullptr, signal, handler, &service);
    };
    addDescriptor(Settings::instance().fd(), onSettings);
    addDescriptor(MainQueue::instance().fd(), onPosted);
    addSignal(SIGTERM, onStop);
    addSignal(SIGINT, onStop);
    addSignal(SIGUSR1, onControl);
    if (result >= 0)
        result = sd_event_set_watchdog(made, 1);
    return result < 0 ? systemFailure(-result, "the main loop cannot be made") : Status{};
}

int runLoop(sd_event *event) {
    sd_notify(0, "READY=1");
    const int result = sd_event_loop(event);
    if (result < 0)
        (void)__dlog_print(LOG_ID_MAIN, DLOG_ERROR, "corvane", "%s",
                           systemFailure(-result, "the main loop ended").text.c_str());
    sd_notify(0, "STOPPING=1");
    return result == 0 ? 0 : 1;
}

int failed(const std::string &text) {
    (void)std::fprintf(stderr, "corvane: %s\n", text.c_str());
    return 1;
}

} // namespace

StopBound::StopBound(std::chrono::milliseconds bound, std::function<void()> expired)
    : thread_([this, bound, call = std::move(expired)] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (disarm_.wait_for(lock, bound, [this] { return disarmed_; }))
              return;
          lock.unlock();
          call();
      }) {}

StopBound::~StopBound() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        disarmed_ = true;
    }
    disarm_.notify_one();
    thread_.join();
}

int runService(const service_app_lifecycle_callback_s &callbacks, void *userData,
               const ProxyLife &proxy, std::chrono::milliseconds stopBound) {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    InstanceLock lock;
    if (const Status status = prepare(proxy, lock); !status.ok())
        return failed(status.text);
    Service service{callbacks, userData};
    Event event(nullptr, sd_event_unref);
    if (const Status status = makeLoop(event, service); !status.ok()) {
        proxy.close();
        return failed(status.text);
    }
    if (!callbacks.create(userData)) {
        proxy.close();
        return failed("the service refused to start; its log tells why");
    }
    const int result = runLoop(event.get());

    const StopBound bound(stopBound, [stopBound] {
        (void)__dlog_print(LOG_ID_MAIN, DLOG_ERROR, "corvane",
                           "stop: not done after %lld ms, ending the process",
                           static_cast<long long>(stopBound.count()));
        _exit(1);
    });
    proxy.quiesce();
    callbacks.terminate(userData);
    proxy.close();
    return result;
}

} // namespace corvane::platform
