// The one thread on which handlers run, and the bounded queue in front of it. One at a time, in the
// order of arrival, with no lock held; what a handler throws leaves the thread and ends the
// process.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_HANDLER_WORKER_H
#define CORVANE_PLATFORM_LINUX_PROXY_HANDLER_WORKER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace corvane::platform {

class HandlerWorker {
public:
    struct Job {
        std::function<void()> run;  // on the worker's thread
        std::function<void()> drop; // instead of run, when the worker is quiesced first
    };

    explicit HandlerWorker(std::size_t capacity) : capacity_(capacity) {}
    ~HandlerWorker() { stop(); }
    HandlerWorker(const HandlerWorker &) = delete;
    HandlerWorker &operator=(const HandlerWorker &) = delete;

    void start();

    enum class Taken { Yes, NoRoom, Quiesced };

    // Queues a job, from any thread. When it is not taken neither function is called.
    [[nodiscard]] Taken submit(Job job);

    // On return no job runs and none will. Waiting jobs are dropped on the calling thread, which
    // must not be the worker's own.
    void quiesce();

    // Quiesces, then joins the thread.
    void stop();

private:
    void work();

    const std::size_t capacity_;
    std::thread thread_; // touched by start() and stop() only
    std::mutex mutex_;
    std::condition_variable jobArrived_; // a job, or the end
    std::condition_variable jobDone_;
    std::deque<Job> jobs_;    // guarded by mutex_
    bool isRunning_ = false;  // guarded by mutex_: a job is being run
    bool isQuiesced_ = false; // guarded by mutex_
    bool isEnding_ = false;   // guarded by mutex_
};

} // namespace corvane::platform

#endif
