/* The stop descriptor on signalfd(); see the header. */
#include "stop_signal.h"

#include "errors.h"

#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace corvane::client {

StopSignal::StopSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0)
        throw CommandFailed("cannot listen for Ctrl-C: no descriptor is left; close some programs");
}

StopSignal::~StopSignal() {
    // The signal has done its work, it must not stay pending.
    signalfd_siginfo taken{};
    while (read(fd_, &taken, sizeof taken) > 0) {
    }
    close(fd_);
}

bool StopSignal::cameWithin(double seconds) const {
    pollfd stop{fd_, POLLIN, 0};
    return poll(&stop, 1, static_cast<int>(seconds * 1000)) > 0;
}

} // namespace corvane::client
