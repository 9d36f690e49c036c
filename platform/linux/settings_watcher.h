/*
 * Changes of the settings store, as they come: each value of a watched key once and in order,
 * whichever process wrote it, also when the watcher wakes late.
 *
 * The kernel's notification only wakes the watcher; what there is to deliver is told by the
 * numbered values in the key's file. So neither merged nor lost notifications lose a value.
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_WATCHER_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_WATCHER_H

#include "settings_store.h"
#include "status.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

struct SettingChange {
    std::string key;
    std::optional<SettingValue> value; // none: the key's file cannot be read at present
    std::uint64_t sequence = 0;        // number of this value within the key's file
    std::uint64_t missed = 0; // values before this one that the watcher came too late for; the
                              // file holds at least the last 16 values
};

/*
 *     SettingsWatcher watcher(store);
 *     Status status = watcher.open();
 *     status = watcher.watch("memory/refrigerator/TxMessage");
 *     while (poll() says that watcher.fd() is readable)
 *         status = watcher.drain([](const SettingChange &change) { ... });
 *
 * watch() and watchAll() may be called from any thread, drain() from one thread at a time.
 */
class SettingsWatcher {
public:
    /* The store is open and outlives the watcher. */
    explicit SettingsWatcher(const SettingsStore &store);
    ~SettingsWatcher();
    SettingsWatcher(const SettingsWatcher &) = delete;
    SettingsWatcher &operator=(const SettingsWatcher &) = delete;

    /* May be repeated after a failure. */
    Status open();

    /* Readable (POLLIN) when drain() has something to do. -1 before open(). */
    int fd() const { return fd_; }

    /* Every value written after the return is delivered. The key need not exist yet. Watching a key
     * again changes nothing. */
    Status watch(const std::string &key);

    /* The same for every key of the store, also those that are made later. */
    Status watchAll();

    using Deliver = std::function<void(const SettingChange &change)>;

    /* Delivers what has come since the last call, without blocking and with no lock held: deliver
     * may call every function of the store and watch(). */
    Status drain(const Deliver &deliver);

private:
    struct Seen {
        std::uint64_t sequence = 0;
        std::string since;
    };

    Seen present(const std::string &key) const;
    Status readEvents(std::vector<std::string> &keys, bool &lost);
    Status everyKey(std::vector<std::string> &keys);
    void collect(const std::string &key, std::vector<SettingChange> &changes);

    const SettingsStore &store_;
    int fd_ = -1;                            // inotify; constant after open()
    std::array<int, 2> descriptors_{-1, -1}; // its watch of each root; constant after open()
    std::mutex mutex_;
    std::map<std::string, Seen> seen_; // guarded by mutex_: the watched keys
    bool all_ = false;                 // guarded by mutex_
};

} // namespace corvane::platform

#endif
