/* The watch on inotify; see the header. */
#include "table_watch.h"

#include "clock_now.h"

#include <array>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

constexpr int kLookAnywayMs = 1000;
/* A new event replaces the old one in two steps; between them the table is empty. */
constexpr int kReplacedWithinMs = 150;

void drain(int fd) {
    alignas(inotify_event) std::array<char, 4096> ignored;
    while (read(fd, ignored.data(), ignored.size()) > 0) {
    }
}

} // namespace

TableWatch::TableWatch(const platform::Folders &folders, Changed changed)
    : folder_(folders.state + "/db"), state_(folders), changed_(std::move(changed)),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      folderFd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), thread_([this] { run(); }) {}

TableWatch::~TableWatch() {
    (void)eventfd_write(stopFd_, 1); // cannot fail: the counter is far from full
    thread_.join();
    close(stopFd_);
    if (folderFd_ >= 0)
        close(folderFd_);
}

/* True when the watch is to end. */
bool TableWatch::wait(int milliseconds) {
    // The folder may be made, or removed and made anew, at any time; a watch that is there stays.
    (void)inotify_add_watch(folderFd_, folder_.c_str(), IN_MODIFY | IN_DELETE | IN_MOVED_TO);
    std::array<pollfd, 2> fds{{{stopFd_, POLLIN, 0}, {folderFd_, POLLIN, 0}}};
    poll(fds.data(), fds.size(), milliseconds);
    drain(folderFd_);
    return (fds[0].revents & POLLIN) != 0;
}

void TableWatch::run() {
    do {
        const TimeMs atMs = clockNowMs();
        const std::optional<PlannedEvent> before = event_;
        if (!look())
            continue;
        if (before && !event_) {
            pollfd stop{stopFd_, POLLIN, 0};
            if (poll(&stop, 1, kReplacedWithinMs) > 0)
                return;
            look();
        }
        changed_(event_, atMs);
    } while (!wait(kLookAnywayMs));
}

/* True when the table holds something else than was told. What cannot be read is no change. */
bool TableWatch::look() {
    const auto report = state_.event();
    const bool isAbsent = !report.value && access((folder_ + "/corvane.db").c_str(), F_OK) != 0;
    if (!report.value && !isAbsent)
        return false;
    std::optional<PlannedEvent> event;
    if (report.value && report.value->details) {
        const client::StoredEvent &stored = *report.value->details;
        event = PlannedEvent{stored.level, TimeMs{stored.time.start} * 1000,
                             TimeMs{stored.time.end} * 1000};
    }
    const bool isNews = !isKnown_ || event != event_;
    isKnown_ = true;
    event_ = event;
    return isNews;
}

} // namespace corvane::appliance
