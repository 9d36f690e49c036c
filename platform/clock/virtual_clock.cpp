/*
 * The clock's file and its arithmetic; see the header. The file is written once and never changed,
 * so it is read once, too.
 */
#include "virtual_clock.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace corvane::clock {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::array<char, 8> kMagic = {'C', 'O', 'R', 'V', 'C', 'L', 'K', '1'};

/* In the byte order of the machine, which all the programs share. */
struct ClockFile {
    std::array<char, 8> magic;
    std::int64_t realStartNs; // of CLOCK_MONOTONIC, which counts from the machine's last start
    std::int64_t virtualStartNs;
    std::int64_t factor;
};
static_assert(sizeof(ClockFile) == 32);

/* Asks the kernel, since clock_gettime() itself may show virtual time here. */
std::int64_t kernelNs(clockid_t clock) {
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    return std::int64_t{now.tv_sec} * kSecondNs + now.tv_nsec;
}

std::string failure(const std::string &what, const std::string &path, int code) {
    return "clock: cannot " + what + " " + path + ": " + std::generic_category().message(code);
}

bool writeFile(const std::string &path, const ClockFile &file) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    errno = EIO; // of a write that is cut short
    const bool written = write(fd, &file, sizeof file) == static_cast<ssize_t>(sizeof file);
    return (close(fd) == 0) && written;
}

} // namespace

VirtualClock::VirtualClock() = default;

std::int64_t VirtualClock::nowNs() const {
    if (!isVirtual_)
        return kernelNs(CLOCK_REALTIME);
    return virtualStartNs_ + (kernelNs(CLOCK_MONOTONIC) - realStartNs_) * factor_;
}

std::string createClock(const std::string &path, int factor, std::int64_t virtualStartNs) {
    if (factor < kMinFactor || factor > kMaxFactor)
        return "clock: a speed of " + std::to_string(factor) + " is not possible; choose " +
               std::to_string(kMinFactor) + " to " + std::to_string(kMaxFactor);
    const ClockFile file{kMagic, kernelNs(CLOCK_MONOTONIC), virtualStartNs, factor};
    const std::string whole = path + "." + std::to_string(getpid());
    if (!writeFile(whole, file) || rename(whole.c_str(), path.c_str()) != 0) {
        const int code = errno;
        unlink(whole.c_str());
        return failure("write", path, code);
    }
    return "";
}

std::string openClock(const std::string &path, VirtualClock &clock) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return failure("open", path, errno);
    ClockFile file{};
    const ssize_t size = read(fd, &file, sizeof file);
    const int code = errno;
    close(fd);
    if (size < 0)
        return failure("read", path, code);
    if (size != static_cast<ssize_t>(sizeof file) || file.magic != kMagic ||
        file.factor < kMinFactor || file.factor > kMaxFactor)
        return "clock: " + path + " is no clock; make one with corvane-clock";
    if (file.realStartNs > kernelNs(CLOCK_MONOTONIC))
        return "clock: " + path + " is from before the machine's last start; make a new one";
    clock.realStartNs_ = file.realStartNs;
    clock.virtualStartNs_ = file.virtualStartNs;
    clock.factor_ = static_cast<int>(file.factor);
    clock.isVirtual_ = true;
    return "";
}

const VirtualClock &processClock() {
    static const VirtualClock clock = [] {
        VirtualClock opened;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes this variable
        const char *path = std::getenv(kClockVariable);
        if (path == nullptr)
            return opened;
        const std::string error = openClock(path, opened);
        if (!error.empty()) {
            std::fprintf(stderr, "%s (%s)\n", error.c_str(), kClockVariable);
            _exit(1);
        }
        return opened;
    }();
    return clock;
}

} // namespace corvane::clock
