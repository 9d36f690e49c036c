/*
 * One folder of the settings store, shared by the store and its watchers. It is never held open:
 * the kernel then tells watchers at once when it is removed.
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_ROOT_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_ROOT_H

#include "settings_store.h"

#include <string>
#include <string_view>

namespace corvane::platform {

struct SettingsStore::Root {
    /* Makes the folder where needed and removes what killed writers have left in it. */
    Status open() const;

    /* The path of a key's file. */
    std::string pathOf(std::string_view key) const;
    /* The key of a file in the folder, empty when it is none of a key. */
    std::string keyOf(std::string_view fileName) const;

    const std::string prefix; // of the keys, with its slash
    const std::string path;
    const bool durable; // synchronised to the disk before a write returns
};

} // namespace corvane::platform

#endif
