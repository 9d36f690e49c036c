/*
 * The settings of this process, and <vconf.h> on top of them.
 */
#include "settings.h"
#include "text.h"

#include <dlog.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

/* A change as callbacks see it: they read the value with vconf_get_int(). */
struct _keynode_t {
    std::string key;
};

namespace corvane::platform {
namespace {

/* A file with a number far ahead (one put back by hand) must not hold the loop for long: the kernel
 * itself queues no more notifications than this. */
constexpr std::uint64_t kMaxCallsPerChange = 16384;

} // namespace

Settings &Settings::instance() {
    // Never destroyed: threads may still read settings while the process ends.
    static auto *settings = new Settings;
    return *settings;
}

Status Settings::open() {
    const std::lock_guard<std::mutex> lock(openMutex_);
    if (open_)
        return {};
    Folders folders;
    Status status = findFolders(folders);
    if (status.ok())
        status = store_.open(folders);
    if (status.ok())
        status = watcher_.open();
    open_ = status.ok();
    return status;
}

void Settings::Complaints::note(const std::string &key, const Status &status) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (status.ok()) {
            if (!keys_.empty())
                keys_.erase(key);
            return;
        }
        if (!keys_.insert(key).second)
            return;
    }
    (void)__dlog_print(LOG_ID_MAIN, DLOG_WARN, "corvane", "settings: %s", status.text.c_str());
}

Status Settings::readInt(const std::string &key, int &value) {
    Status status = open();
    SettingValue found;
    if (status.ok()) {
        status = store_.read(key, found);
        if (status.code == ENOENT)
            return status;
    }
    const int *number = std::get_if<int>(&found);
    if (status.ok() && number == nullptr)
        status = {EBADMSG, "settings key " + inQuotes(key, kMaxSettingKey) +
                               " cannot be read as a number: it holds a text"};
    reads_.note(key, status);
    if (status.ok())
        value = *number;
    return status;
}

Status Settings::write(const std::string &key, const SettingValue &value) {
    Status status = open();
    if (status.ok())
        status = store_.write(key, value);
    writes_.note(key, status);
    return status;
}

Status Settings::notify(const std::string &key, vconf_callback_fn callback, void *userData) {
    Status status = open();
    if (status.ok())
        status = watcher_.watch(key);
    if (!status.ok())
        return status;
    const std::lock_guard<std::mutex> lock(registrationsMutex_);
    std::vector<Registration> &registered = registrations_[key];
    const Registration registration{callback, userData};
    if (std::find(registered.begin(), registered.end(), registration) == registered.end())
        registered.push_back(registration);
    return {};
}

Status Settings::deliver() {
    return watcher_.drain([this](const SettingChange &change) { run(change); });
}

/* Also for a value that was missed or cannot be read: there was a write, and the callback reads
 * what is there now. */
void Settings::run(const SettingChange &change) {
    std::vector<Registration> registered;
    {
        const std::lock_guard<std::mutex> lock(registrationsMutex_);
        registered = registrations_[change.key];
    }
    _keynode_t node{change.key};
    const std::uint64_t calls = std::min(change.missed + 1, kMaxCallsPerChange);
    for (std::uint64_t i = 0; i < calls; ++i) {
        for (const Registration &registration : registered)
            registration.callback(&node, registration.userData);
    }
}

} // namespace corvane::platform

using corvane::platform::Settings;

int vconf_get_int(const char *in_key, int *intval) {
    if (in_key == nullptr || intval == nullptr)
        return -1;
    return Settings::instance().readInt(in_key, *intval).ok() ? 0 : -1;
}

int vconf_set_int(const char *in_key, const int intval) {
    if (in_key == nullptr)
        return -1;
    return Settings::instance().write(in_key, intval).ok() ? 0 : -1;
}

int vconf_set_str(const char *in_key, const char *strval) {
    if (in_key == nullptr || strval == nullptr)
        return -1;
    return Settings::instance().write(in_key, std::string(strval)).ok() ? 0 : -1;
}

int vconf_notify_key_changed(const char *in_key, vconf_callback_fn cb, void *user_data) {
    if (in_key == nullptr || cb == nullptr)
        return -1;
    return Settings::instance().notify(in_key, cb, user_data).ok() ? 0 : -1;
}
