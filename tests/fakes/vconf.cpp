/*
 * Settings store in memory. Each successful write queues one callback for every registration of the
 * key on the loop, whatever the old value was.
 */
#include <vconf.h>

#include "fakes.h"
#include "internal.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <variant>

namespace {

using Value = std::variant<int, std::string>;

struct Registration {
    vconf_callback_fn callback;
    void *userData;
    bool operator==(const Registration &) const = default;
};

struct Key {
    std::optional<Value> value;
    std::vector<std::string> history;
    std::vector<Registration> registrations;
    int readsToFail = 0; // kAlways: all
    int writesToFail = 0;
};

std::mutex mutex;
std::map<std::string, Key> keys; // guarded by mutex

// A node says nothing more than which key it is, and only to the store.
int theNode = 0;

bool isKey(const char *key) {
    const std::string_view text = key == nullptr ? "" : key;
    return text.starts_with("db/") || text.starts_with("memory/");
}

// Uses up one of the failures that were asked for.
bool mustFail(int &times) {
    if (times > 0) {
        --times;
        return true;
    }
    return times == fakes::settings::kAlways;
}

std::string asText(const Value &value) {
    const int *number = std::get_if<int>(&value);
    return number != nullptr ? std::to_string(*number) : std::get<std::string>(value);
}

enum class Writer { Service, OtherProcess };

int write(const char *name, Value value, Writer writer) {
    if (!isKey(name)) {
        return -1;
    }
    const std::string text = asText(value);
    std::vector<Registration> toCall;
    {
        const std::lock_guard lock(mutex);
        Key &key = keys[name];
        if (writer == Writer::Service && mustFail(key.writesToFail)) {
            return -1;
        }
        key.value = std::move(value);
        if (fakes::internal::keepsRecords()) {
            key.history.push_back(text);
        }
        toCall = key.registrations;
    }
    fakes::internal::record(fakes::Kind::Setting, std::string(name) + "=" + text);
    for (const Registration &registration : toCall) {
        fakes::internal::deliverOnLoop([registration] {
            registration.callback(reinterpret_cast<keynode_t *>(&theNode), registration.userData);
        });
    }
    return 0;
}

} // namespace

extern "C" {

int vconf_get_int(const char *in_key, int *intval) {
    if (!isKey(in_key)) {
        return -1;
    }
    const std::lock_guard lock(mutex);
    Key &key = keys[in_key];
    if (mustFail(key.readsToFail) || !key.value || !std::holds_alternative<int>(*key.value)) {
        return -1;
    }
    *intval = std::get<int>(*key.value);
    return 0;
}

int vconf_set_int(const char *in_key, const int intval) {
    return write(in_key, intval, Writer::Service);
}

int vconf_set_str(const char *in_key, const char *strval) {
    return strval == nullptr ? -1 : write(in_key, std::string(strval), Writer::Service);
}

int vconf_notify_key_changed(const char *in_key, vconf_callback_fn cb, void *user_data) {
    if (!isKey(in_key) || cb == nullptr) {
        return -1;
    }
    fakes::internal::record(fakes::Kind::Watch, in_key);
    const std::lock_guard lock(mutex);
    auto &registrations = keys[in_key].registrations;
    const Registration registration{cb, user_data};
    if (std::find(registrations.begin(), registrations.end(), registration) ==
        registrations.end()) {
        registrations.push_back(registration);
    }
    return 0;
}

} // extern "C"

namespace fakes {
namespace settings {

void set(const std::string &key, int value) { write(key.c_str(), value, Writer::OtherProcess); }

void set(const std::string &key, const std::string &text) {
    write(key.c_str(), text, Writer::OtherProcess);
}

void remove(const std::string &key) {
    const std::lock_guard lock(mutex);
    keys[key].value.reset();
}

std::optional<int> getInt(const std::string &key) {
    const std::lock_guard lock(mutex);
    const std::optional<Value> &value = keys[key].value;
    return value && std::holds_alternative<int>(*value) ? std::optional(std::get<int>(*value))
                                                        : std::nullopt;
}

std::optional<std::string> getText(const std::string &key) {
    const std::lock_guard lock(mutex);
    const std::optional<Value> &value = keys[key].value;
    return value && std::holds_alternative<std::string>(*value)
               ? std::optional(std::get<std::string>(*value))
               : std::nullopt;
}

std::vector<std::string> history(const std::string &key) {
    const std::lock_guard lock(mutex);
    return keys[key].history;
}

int registrations(const std::string &key) {
    const std::lock_guard lock(mutex);
    return static_cast<int>(keys[key].registrations.size());
}

void failReads(const std::string &key, int times) {
    const std::lock_guard lock(mutex);
    keys[key].readsToFail = times;
}

void failWrites(const std::string &key, int times) {
    const std::lock_guard lock(mutex);
    keys[key].writesToFail = times;
}

} // namespace settings

namespace internal {

void resetSettings() {
    const std::lock_guard lock(mutex);
    keys.clear();
}

void clearSettings() {
    const std::lock_guard lock(mutex);
    for (auto &[name, key] : keys) {
        key.history.clear();
    }
}

void forgetRegistrations() {
    const std::lock_guard lock(mutex);
    for (auto &[name, key] : keys) {
        key.registrations.clear();
    }
}

} // namespace internal
} // namespace fakes
