/*
 * One folder of the settings store, shared by the store and its watchers.
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_ROOT_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_ROOT_H

#include "settings_store.h"

#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace corvane::platform {

struct SettingsStore::Root {
    Root(std::string keyPrefix, std::string folderPath, bool isDurable)
        : prefix(std::move(keyPrefix)), path(std::move(folderPath)), durable(isDurable) {}
    ~Root();
    Root(const Root &) = delete;
    Root &operator=(const Root &) = delete;

    Status open();

    /* The name of a key's file in the folder, and back: empty when the file is none of a key. */
    std::string fileOf(std::string_view key) const;
    std::string keyOf(std::string_view fileName) const;

    /* Constant after open(). */
    const std::string prefix; // of the keys, with its slash
    const std::string path;
    const bool durable; // synchronised to the disk before a write returns
    int folder = -1;
    int lockFile = -1;

    std::mutex mutex; // taken with lockFile: the turn of this process's writers
};

} // namespace corvane::platform

#endif
