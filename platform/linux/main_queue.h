/*
 * Calls that other threads leave for the main loop.
 */
#ifndef CORVANE_PLATFORM_LINUX_MAIN_QUEUE_H
#define CORVANE_PLATFORM_LINUX_MAIN_QUEUE_H

#include "status.h"

#include <functional>
#include <mutex>
#include <vector>

namespace corvane::platform {

class MainQueue {
public:
    /* The process's own. */
    static MainQueue &instance();

    MainQueue() = default;
    ~MainQueue();
    MainQueue(const MainQueue &) = delete;
    MainQueue &operator=(const MainQueue &) = delete;

    /* Main loop, before it runs. */
    Status open();

    /* Readable when run() has something to do; -1 before open(). */
    int fd() const { return fd_; }

    /* From any thread, also before the loop runs: call runs on the main loop, in the order of the
     * posts. What is posted after the loop has ended is never run. */
    void post(std::function<void()> call);

    /* Main loop: runs what has been posted, with no lock held. */
    void run();

private:
    void wake() const;

    std::mutex mutex_;
    int fd_ = -1;                              // eventfd; written under mutex_ by open() alone
    std::vector<std::function<void()>> calls_; // guarded by mutex_
};

} // namespace corvane::platform

#endif
