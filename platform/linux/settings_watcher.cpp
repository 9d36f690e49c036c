/*
 * Changes of the settings store. Only the arrival of a file in its place (IN_MOVED_TO) is watched;
 * equal notifications that the kernel merges cost nothing, since the numbered values in the file
 * tell what is new.
 */
#include "settings_watcher.h"

#include "settings_file.h"
#include "settings_root.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <sys/inotify.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

constexpr std::size_t kEventBuffer = 16384;

} // namespace

SettingsWatcher::SettingsWatcher(const SettingsStore &store) : store_(store) {}

SettingsWatcher::~SettingsWatcher() {
    if (fd_ >= 0)
        close(fd_);
}

Status SettingsWatcher::open() {
    if (fd_ < 0) // else an open() before has failed half way
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0)
        return systemFailure(errno, "settings cannot be watched");
    for (std::size_t i = 0; i < descriptors_.size(); ++i) {
        const std::string &path = store_.roots_[i]->path;
        descriptors_[i] = inotify_add_watch(fd_, path.c_str(), IN_MOVED_TO | IN_ONLYDIR);
        if (descriptors_[i] < 0)
            return systemFailure(errno, "settings folder " + inQuotes(path, PATH_MAX) +
                                            " cannot be watched");
    }
    return {};
}

SettingsWatcher::Seen SettingsWatcher::present(const std::string &key) const {
    std::string text;
    SettingsFile file;
    if (!store_.readFile(key, text, file).ok())
        return {}; // absent or damaged: whatever comes next is new
    return {file.sequence, std::string(file.since)};
}

Status SettingsWatcher::watch(const std::string &key) {
    Status status = checkSettingKey(key);
    if (!status.ok())
        return status;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!seen_.contains(key))
        seen_.emplace(key, present(key));
    return {};
}

Status SettingsWatcher::watchAll() {
    std::vector<std::string> keys;
    const std::lock_guard<std::mutex> lock(mutex_);
    Status status = store_.list(keys);
    if (!status.ok())
        return status;
    for (const std::string &key : keys) {
        if (!seen_.contains(key))
            seen_.emplace(key, present(key));
    }
    all_ = true;
    return {};
}

Status SettingsWatcher::readEvents(std::vector<std::string> &keys, bool &lost) {
    alignas(inotify_event) std::array<char, kEventBuffer> buffer;
    const ssize_t size = ::read(fd_, buffer.data(), buffer.size());
    if (size < 0)
        return errno == EAGAIN || errno == EINTR
                   ? Status{}
                   : systemFailure(errno, "changes of settings cannot be read");
    for (ssize_t at = 0; at < size;) {
        const auto *event = reinterpret_cast<const inotify_event *>(buffer.data() + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & IN_IGNORED) != 0)
            return {ENOENT, "a settings folder was removed: changes are no longer seen"};
        lost = lost || (event->mask & IN_Q_OVERFLOW) != 0;
        const auto root = std::find(descriptors_.begin(), descriptors_.end(), event->wd);
        if (event->len == 0 || root == descriptors_.end())
            continue;
        const auto index = static_cast<std::size_t>(root - descriptors_.begin());
        std::string key = store_.roots_[index]->keyOf(event->name);
        if (!key.empty() && std::find(keys.begin(), keys.end(), key) == keys.end())
            keys.push_back(std::move(key));
    }
    return {};
}

/* After lost notifications every key may have changed. */
Status SettingsWatcher::everyKey(std::vector<std::string> &keys) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (all_)
        return store_.list(keys);
    keys.clear();
    for (const auto &[key, seen] : seen_)
        keys.push_back(key);
    return {};
}

void SettingsWatcher::collect(const std::string &key, std::vector<SettingChange> &changes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto found = seen_.find(key);
    if (found == seen_.end()) {
        if (!all_)
            return;
        found = seen_.emplace(key, Seen{}).first;
    }
    Seen &seen = found->second;
    std::string text;
    SettingsFile file;
    if (const Status status = store_.readFile(key, text, file); !status.ok()) {
        if (status.code != ENOENT)
            changes.push_back({key, std::nullopt, seen.sequence, 0});
        return;
    }
    std::uint64_t fresh = file.sequence;
    if (file.since == seen.since) {
        if (file.sequence == seen.sequence)
            return;
        // A file put back from a copy has an older number: its present value is the change.
        fresh = file.sequence > seen.sequence ? file.sequence - seen.sequence : 1;
    }
    const std::vector<SettingValue> values = parseSettingValues(file, fresh);
    std::uint64_t missed = fresh - values.size();
    for (std::size_t i = values.size(); i-- > 0;) {
        changes.push_back({key, values[i], file.sequence - i, missed});
        missed = 0;
    }
    seen = {file.sequence, std::string(file.since)};
}

Status SettingsWatcher::drain(const Deliver &deliver) {
    std::vector<std::string> keys;
    bool lost = false;
    Status status = readEvents(keys, lost);
    if (status.ok() && lost)
        status = everyKey(keys);
    std::vector<SettingChange> changes;
    for (const std::string &key : keys)
        collect(key, changes);
    for (const SettingChange &change : changes)
        deliver(change);
    return status;
}

} // namespace corvane::platform
