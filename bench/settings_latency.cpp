/*
 * How long a settings write takes, alone and while another process listens, and how long until that
 * process hears of it.
 *
 * The writer is this process; the listener a child that waits on a SettingsWatcher as the service's
 * loop does. Each change is acknowledged through a pipe before the next is made, so that one change
 * at a time is timed. The folder is the runtime folder of CORVANE_RUNTIME_DIR, meant to be on
 * tmpfs.
 */
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "percentiles.h"
#include "settings_store.h"
#include "settings_watcher.h"

using namespace corvane::platform;

namespace {

constexpr int kWarmUp = 500;
constexpr int kWrites = 20000;
constexpr const char *kKey = "memory/bench/value";

void require(const Status &status) {
    if (!status.ok()) {
        std::fprintf(stderr, "settings_latency: %s\n", status.text.c_str());
        std::_Exit(1);
    }
}

void require(bool good, const char *what) {
    if (!good) {
        std::perror(what);
        std::_Exit(1);
    }
}

/* The same clock in both processes. */
long long nowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

/* Sends the time at which each change was delivered down the pipe. */
[[noreturn]] void listen(const Folders &folders, int answers) {
    SettingsStore store;
    require(store.open(folders));
    SettingsWatcher watcher(store);
    require(watcher.open());
    require(watcher.watch(kKey));
    long long ready = 0;
    require(write(answers, &ready, sizeof ready) == sizeof ready, "pipe");
    for (int heard = 0; heard < kWarmUp + kWrites;) {
        pollfd wait = {watcher.fd(), POLLIN, 0};
        poll(&wait, 1, -1);
        require(watcher.drain([&](const SettingChange &) {
            const long long delivered = nowNs();
            require(write(answers, &delivered, sizeof delivered) == sizeof delivered, "pipe");
            ++heard;
        }));
    }
    std::_Exit(0);
}

} // namespace

int main() {
    Folders folders;
    require(findFolders(folders));
    int answers[2];
    require(pipe(answers) == 0, "pipe");
    SettingsStore store;
    require(store.open(folders));
    std::vector<double> aloneUs;
    for (int i = 0; i < kWarmUp + kWrites; ++i) {
        const long long begin = nowNs();
        require(store.write(kKey, i));
        if (i >= kWarmUp)
            aloneUs.push_back(static_cast<double>(nowNs() - begin) / 1000);
    }
    corvane::bench::printPercentiles("settings write", aloneUs);

    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        listen(folders, answers[1]);
    }
    std::vector<double> writesUs;
    std::vector<double> deliveriesUs;
    long long delivered = 0;
    require(read(answers[0], &delivered, sizeof delivered) == sizeof delivered, "pipe");
    for (int i = 0; i < kWarmUp + kWrites; ++i) {
        const long long begin = nowNs();
        require(store.write(kKey, i));
        const long long end = nowNs();
        require(read(answers[0], &delivered, sizeof delivered) == sizeof delivered, "pipe");
        if (i >= kWarmUp) {
            writesUs.push_back(static_cast<double>(end - begin) / 1000);
            deliveriesUs.push_back(static_cast<double>(delivered - begin) / 1000);
        }
    }
    waitpid(child, nullptr, 0);
    corvane::bench::printPercentiles("settings write, a listener waking", writesUs);
    corvane::bench::printPercentiles("settings write to delivery elsewhere", deliveriesUs);
}
