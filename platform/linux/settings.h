/*
 * The settings of this process: the one store behind <vconf.h>, the registrations, and the end that
 * the main loop serves.
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_H

#include "settings_store.h"
#include "settings_watcher.h"

#include <vconf.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace corvane::platform {

/* Every function may be called from any thread, deliver() from the main loop only. */
class Settings {
public:
    /* The process's own; opened by the first use, in the folders that the environment tells. */
    static Settings &instance();

    /* Opens the store once; a failed attempt may be repeated. Every function below does so itself.
     */
    Status open();

    /* ENOENT for a key never written, EBADMSG for one that holds a text or is damaged. The first
     * failure of a key is logged, until it reads well again; an absent key is no failure. */
    Status readInt(const std::string &key, int &value);

    /* A failure is logged in the same way. */
    Status write(const std::string &key, const SettingValue &value);

    Status notify(const std::string &key, vconf_callback_fn callback, void *userData);

    /* Readable when deliver() has something to do; the store must be open. */
    int fd() const { return watcher_.fd(); }

    /* Calls the callbacks of every write since the last call, one for each write. */
    Status deliver();

private:
    struct Registration {
        vconf_callback_fn callback;
        void *userData;
        bool operator==(const Registration &) const = default;
    };

    /* Remembers which keys were complained about. */
    class Complaints {
    public:
        void note(const std::string &key, const Status &status);

    private:
        std::mutex mutex_;
        std::set<std::string> keys_; // guarded by mutex_
    };

    void run(const SettingChange &change);

    std::mutex openMutex_;
    bool open_ = false; // guarded by openMutex_
    SettingsStore store_;
    SettingsWatcher watcher_{store_};
    Complaints reads_;
    Complaints writes_;
    std::mutex registrationsMutex_;
    std::map<std::string, std::vector<Registration>> registrations_; // guarded by
                                                                     // registrationsMutex_
};

} // namespace corvane::platform

#endif
