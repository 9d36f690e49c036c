/*
 * Calls that other threads leave for the main loop.
 */
#include "main_queue.h"

#include <cerrno>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane::platform {

MainQueue &MainQueue::instance() {
    // Never destroyed: threads may still post while the process ends.
    static auto *queue = new MainQueue;
    return *queue;
}

MainQueue::~MainQueue() {
    if (fd_ >= 0)
        close(fd_);
}

Status MainQueue::open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (fd_ < 0)
        fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd_ < 0)
        return systemFailure(errno, "the main loop cannot be woken");
    if (!calls_.empty())
        wake();
    return {};
}

void MainQueue::post(std::function<void()> call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
    if (fd_ >= 0)
        wake();
}

void MainQueue::wake() const { (void)eventfd_write(fd_, 1); } // full means that it is awake already

void MainQueue::run() {
    std::vector<std::function<void()>> calls;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        eventfd_t posts = 0;
        (void)eventfd_read(fd_, &posts); // empties it; nothing to read is as good
        calls.swap(calls_);
    }
    for (const std::function<void()> &call : calls)
        call();
}

} // namespace corvane::platform
