/* The thread and its queue; see the header. */
#include "task_thread.h"

#include <utility>

namespace corvane::appliance {

TaskThread::TaskThread(std::size_t limit) : limit_(limit), thread_([this] { run(); }) {}

TaskThread::~TaskThread() { stop(); }

bool TaskThread::post(Task task) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || tasks_.size() >= limit_)
            return false;
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
    return true;
}

void TaskThread::dropWaiting() {
    std::deque<Task> dropped; // outlives the lock: its tasks' destructors are calls out
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
}

void TaskThread::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable())
        thread_.join();
}

void TaskThread::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty())
            return;
        const Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

} // namespace corvane::appliance
