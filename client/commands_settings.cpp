/*
 * The settings commands: the same store that the service uses, in the folders of the environment.
 * They need no running service.
 */
#include "commands.h"

#include "answers.h"
#include "calendar.h"
#include "errors.h"
#include "local_state.h"
#include "stop_signal.h"

#include "settings_store.h"
#include "settings_watcher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>

#include <poll.h>

namespace corvane::client {
namespace {

using platform::SettingsStore;
using platform::SettingValue;

constexpr std::size_t kShownText = 1000;

void check(const platform::Status &status) {
    if (!status.ok())
        throw CommandFailed(status.text);
}

/* Opens the store of the environment's folders to read it, which makes nothing. */
void openToRead(SettingsStore &store) {
    const platform::Folders folders = environmentFolders();
    if (!hasState(folders))
        throw CommandFailed("no settings are kept in " + folders.state + " or " + folders.runtime +
                            "; run as the service's user, or set CORVANE_STATE_DIR and "
                            "CORVANE_RUNTIME_DIR as the service has them");
    check(store.openExisting(folders));
}

SettingValue valueOf(const std::string &text, bool forceText) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!forceText && error == std::errc() && end == text.data() + text.size())
        return number;
    return text;
}

std::string shown(const SettingValue &value) {
    if (const int *number = std::get_if<int>(&value))
        return std::to_string(*number);
    return "\"" + printable(std::get<std::string>(value), kShownText) + "\"";
}

Json settingJson(const std::string &key, const SettingValue &value) {
    if (const int *number = std::get_if<int>(&value))
        return {{"key", key}, {"type", "int"}, {"value", *number}};
    return {{"key", key}, {"type", "text"}, {"value", std::get<std::string>(value)}};
}

} // namespace

void getSetting(const Context &context, const std::string &key) {
    SettingsStore store;
    openToRead(store);
    SettingValue value;
    const platform::Status status = store.read(key, value);
    if (status.code == ENOENT)
        throw CommandFailed("settings key " + key +
                            " has never been written; see which there are with: corvanectl "
                            "settings list");
    check(status);
    if (context.json)
        context.print(settingJson(key, value));
    else if (const std::string *text = std::get_if<std::string>(&value))
        context.out << printable(*text, text->size()) << "\n";
    else
        context.out << std::get<int>(value) << "\n";
}

void setSetting(const Context &context, const std::string &key, const std::string &text,
                bool forceText) {
    SettingsStore store;
    check(store.open(environmentFolders()));
    const SettingValue value = valueOf(text, forceText);
    check(store.write(key, value));
    if (context.json)
        context.print(settingJson(key, value));
    else
        context.out << key << " = " << shown(value) << "\n";
}

void listSettings(const Context &context) {
    SettingsStore store;
    openToRead(store);
    std::vector<std::string> keys;
    check(store.list(keys));
    std::size_t width = 0;
    for (const std::string &key : keys)
        width = std::max(width, key.size());
    Json list = Json::array();
    for (const std::string &key : keys) {
        SettingValue value;
        const platform::Status status = store.read(key, value);
        if (context.json && status.ok())
            list.push_back(settingJson(key, value));
        else if (context.json)
            list.push_back({{"key", key}, {"type", nullptr}, {"value", nullptr}});
        else
            context.out << key << std::string(width - key.size() + 2, ' ')
                        << (status.ok() ? shown(value) : context.style.bad("cannot be read"))
                        << "\n";
    }
    if (context.json)
        context.print({{"settings", list}});
}

void watchSettings(const Context &context, const std::vector<std::string> &keys) {
    const StopSignal stop;
    SettingsStore store;
    openToRead(store);
    platform::SettingsWatcher watcher(store);
    platform::Status status = watcher.open();
    if (status.code == ENOENT)
        status.text += "; the service makes it when it starts";
    check(status);
    if (keys.empty())
        check(watcher.watchAll());
    for (const std::string &key : keys)
        check(watcher.watch(key));

    const auto show = [&](const platform::SettingChange &change) {
        if (context.json) {
            Json line = change.value
                            ? settingJson(change.key, *change.value)
                            : Json{{"key", change.key}, {"type", nullptr}, {"value", nullptr}};
            line["sequence"] = change.sequence;
            line["missed"] = change.missed;
            context.print(line, true);
            return;
        }
        context.out << context.style.dim(formatLocal(std::time(nullptr), "%F %T")) << "  "
                    << change.key << " = "
                    << (change.value ? shown(*change.value) : context.style.bad("cannot be read"))
                    << (change.missed > 0
                            ? "  (" + std::to_string(change.missed) + " values before were missed)"
                            : "")
                    << "\n"
                    << std::flush;
    };
    while (true) {
        std::array<pollfd, 2> fds{{{watcher.fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}}};
        poll(fds.data(), fds.size(), -1);
        check(watcher.drain(show));
        if ((fds[1].revents & POLLIN) != 0)
            return;
    }
}

} // namespace corvane::client
