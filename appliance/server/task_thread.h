/*
 * A thread that runs what it is given, one task after the other, in order. It is how a part that
 * blocks (the database, the service's answers) is kept away from those that must not wait.
 */
#ifndef CORVANE_APPLIANCE_SERVER_TASK_THREAD_H
#define CORVANE_APPLIANCE_SERVER_TASK_THREAD_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace corvane::appliance {

class TaskThread {
public:
    using Task = std::function<void()>;

    /* No more than limit tasks wait at a time. */
    explicit TaskThread(std::size_t limit);
    /* stop() */
    ~TaskThread();
    TaskThread(const TaskThread &) = delete;
    TaskThread &operator=(const TaskThread &) = delete;

    /* From any thread. False when the limit is reached or the thread stops: the task is not run. */
    [[nodiscard]] bool post(Task task);

    /* Forgets what waits, but for the task under way, and takes nothing more. From any thread. */
    void dropWaiting();

    /* Runs what waits already, then ends the thread. */
    void stop();

private:
    void run();

    const std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_; // guarded by mutex_
    bool stopping_ = false;  // guarded by mutex_
    std::thread thread_;
};

} // namespace corvane::appliance

#endif
