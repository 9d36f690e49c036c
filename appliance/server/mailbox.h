/*
 * How other threads reach the engine: closures that its thread runs one after the other, between
 * two steps of the models.
 */
#ifndef CORVANE_APPLIANCE_SERVER_MAILBOX_H
#define CORVANE_APPLIANCE_SERVER_MAILBOX_H

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane::appliance {

class Mailbox {
public:
    using Task = std::function<void()>;

    Mailbox() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Mailbox() { close(fd_); }
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;

    /* From any thread. After shut() tasks are dropped. */
    void post(Task task) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (isClosed_)
                return;
            tasks_.push_back(std::move(task));
        }
        (void)eventfd_write(fd_, 1); // cannot fail: the counter is far from full
    }

    /* Runs the task on the engine's thread and waits for its result. From any other thread. Throws
     * std::future_error when the engine has ended. */
    template <typename F>
    auto call(F task) -> decltype(task()) {
        using Result = decltype(task());
        auto packed = std::make_shared<std::packaged_task<Result()>>(std::move(task));
        auto result = packed->get_future();
        post([packed] { (*packed)(); });
        packed.reset(); // so that a task that is dropped breaks its promise
        return result.get();
    }

    /* Readable when run() has something to do. */
    int fd() const { return fd_; }

    /* By the engine's thread. */
    void run() {
        eventfd_t ignored = 0;
        (void)eventfd_read(fd_, &ignored); // fails when there is nothing
        std::vector<Task> tasks;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            tasks.swap(tasks_);
        }
        for (const Task &task : tasks)
            task();
    }

    /* Drops what waits, and what comes. */
    void shut() {
        std::vector<Task> dropped;
        const std::lock_guard<std::mutex> lock(mutex_);
        isClosed_ = true;
        dropped.swap(tasks_);
    }

private:
    const int fd_;
    std::mutex mutex_;
    std::vector<Task> tasks_; // guarded by mutex_
    bool isClosed_ = false;   // guarded by mutex_
};

} // namespace corvane::appliance

#endif
