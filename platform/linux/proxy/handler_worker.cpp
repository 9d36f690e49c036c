// See handler_worker.h.
#include "handler_worker.h"

#include <utility>

namespace corvane::platform {

void HandlerWorker::start() {
    thread_ = std::thread([this] { work(); });
    pthread_setname_np(thread_.native_handle(), "proxy-handler");
}

HandlerWorker::Taken HandlerWorker::submit(Job job) {
    {
        const std::lock_guard lock(mutex_);
        if (isQuiesced_)
            return Taken::Quiesced;
        if (jobs_.size() >= capacity_)
            return Taken::NoRoom;
        jobs_.push_back(std::move(job));
    }
    jobArrived_.notify_one();
    return Taken::Yes;
}

void HandlerWorker::quiesce() {
    std::deque<Job> waiting;
    {
        std::unique_lock lock(mutex_);
        isQuiesced_ = true;
        waiting.swap(jobs_);
        jobDone_.wait(lock, [this] { return !isRunning_; });
    }
    for (const Job &job : waiting)
        job.drop();
}

void HandlerWorker::stop() {
    quiesce();
    {
        const std::lock_guard lock(mutex_);
        isEnding_ = true;
    }
    jobArrived_.notify_one();
    if (thread_.joinable())
        thread_.join();
}

void HandlerWorker::work() {
    std::unique_lock lock(mutex_);
    while (true) {
        jobArrived_.wait(lock, [this] { return isEnding_ || !jobs_.empty(); });
        if (isEnding_)
            return;
        {
            const Job job = std::move(jobs_.front());
            jobs_.pop_front();
            isRunning_ = true;
            lock.unlock();
            job.run();
        }
        lock.lock();
        isRunning_ = false;
        jobDone_.notify_all();
    }
}

} // namespace corvane::platform
