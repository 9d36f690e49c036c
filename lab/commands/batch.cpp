/*
 * A task's process writes its result into an anonymous file that it shares with this one, and its
 * progress into one number of a shared page.
 */
#include "batch.h"

#include "progress_bar.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include <csignal>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::lab {
namespace {

constexpr int kFailed = 1;
constexpr auto kGlance = std::chrono::milliseconds(20);

/* One number for each task, seen by all processes. */
class SharedProgress {
public:
    explicit SharedProgress(std::size_t count) : bytes_(count * sizeof(std::atomic<float>)) {
        void *memory =
            mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::runtime_error("there is not enough memory for the runs");
        done_ = std::span(static_cast<std::atomic<float> *>(memory), count); // zeros
    }
    ~SharedProgress() { munmap(done_.data(), bytes_); }
    SharedProgress(const SharedProgress &) = delete;
    SharedProgress &operator=(const SharedProgress &) = delete;

    void set(std::size_t task, double share) { done_[task] = static_cast<float>(share); }
    [[nodiscard]] double mean() const {
        return std::accumulate(done_.begin(), done_.end(), 0.0) / static_cast<double>(done_.size());
    }

private:
    std::size_t bytes_;
    std::span<std::atomic<float>> done_;
};

struct Running {
    std::size_t task;
    int file;
};

/* The child's side. */
[[noreturn]] void live(const Scenario &scenario, const Task &task, int file,
                       const std::function<void(double)> &onProgress) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        const std::string bytes = toBytes(
            runScenario(scenario, {task.seed, task.withProgramme, task.spreadReturn, onProgress}));
        for (std::size_t at = 0; at < bytes.size();) {
            const ssize_t written = write(file, bytes.data() + at, bytes.size() - at);
            if (written <= 0)
                throw std::runtime_error("there is not enough memory for the result of a run");
            at += static_cast<std::size_t>(written);
        }
        _exit(0);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "\ncorvane-lab: seed %llu: %s\n",
                     static_cast<unsigned long long>(task.seed), error.what());
        _exit(kFailed);
    }
}

std::string contentOf(int file) {
    std::string bytes(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
    if (pread(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("the result of a run cannot be read");
    return bytes;
}

} // namespace

void runBatch(const Scenario &scenario, const std::vector<Task> &tasks, int jobs,
              const std::function<void(const Task &, RunResult)> &onResult) {
    SharedProgress progress(tasks.size());
    ProgressBar bar;
    std::map<pid_t, Running> running;
    std::size_t next = 0;
    std::size_t done = 0;
    while (done < tasks.size()) {
        while (next < tasks.size() && running.size() < static_cast<std::size_t>(jobs)) {
            const int file = memfd_create("run", MFD_CLOEXEC);
            std::fflush(nullptr);
            const pid_t child = file < 0 ? -1 : fork();
            if (child < 0)
                throw std::runtime_error("a process for a run cannot be made");
            if (child == 0)
                live(scenario, tasks[next], file, [&](double share) { progress.set(next, share); });
            running[child] = {next++, file};
        }
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended <= 0) {
            bar.draw(progress.mean(), done, tasks.size());
            std::this_thread::sleep_for(kGlance);
            continue;
        }
        const Running run = running.at(ended);
        running.erase(ended);
        if (status != 0) {
            for (const auto &[other, ignored] : running)
                kill(other, SIGKILL);
            throw std::runtime_error("a run has failed; see above");
        }
        progress.set(run.task, 1);
        ++done;
        onResult(tasks[run.task], resultFromBytes(contentOf(run.file)));
        close(run.file);
    }
}

} // namespace corvane::lab
