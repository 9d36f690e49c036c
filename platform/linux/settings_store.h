/*
 * The settings store: every integer and text key that the appliance's processes share.
 *
 * Keys begin with "db/" (kept in the state folder, safe against a power cut when write() returns)
 * or "memory/" (kept in the runtime folder). A key is one small text file, always replaced whole,
 * so that a reader needs no lock and a writer may be killed at any instant. The file holds, after
 * the present value, the values before it, so that a SettingsWatcher that wakes late still sees
 * each of them:
 *
 *     int 3
 *     change 42 since 2026-11-21T11:54:26.123456Z
 *     int 2
 *     text SET_SMARTGRID_LEVEL2
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_STORE_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_STORE_H

#include "folders.h"
#include "status.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane::platform {

using SettingValue = std::variant<int, std::string>;

/* Longest text value, in bytes without terminator. */
inline constexpr std::size_t kMaxSettingText = 4096;

/* Longest key, in bytes. */
inline constexpr std::size_t kMaxSettingKey = 200;

struct SettingsFile;

/* What the file of one key holds. */
struct SettingRecord {
    std::uint64_t sequence = 0; // number of the present value: 1 for the first one of this file
    std::string since;          // when the file began; another text means a file begun anew
    std::vector<SettingValue> values; // newest first: values[n] has the number sequence - n
};

/*
 * Good for "db/…" and "memory/…" with parts of printable text that neither begin with a dot nor
 * contain "..", up to kMaxSettingKey bytes; otherwise EINVAL with the reason.
 */
Status checkSettingKey(std::string_view key);

/*
 * Opened once, by open() or openExisting(); after that every other function may be called from any
 * thread. Errors: EINVAL for a bad key or value, ENOENT for a key never written, EBADMSG for a
 * damaged file, otherwise what the system said. Outputs are unchanged on failure.
 */
class SettingsStore {
public:
    SettingsStore();
    ~SettingsStore();
    SettingsStore(const SettingsStore &) = delete;
    SettingsStore &operator=(const SettingsStore &) = delete;

    /* Makes the folders where needed and removes what killed writers have left. */
    Status open(const Folders &folders);

    /* For those that only read: makes and removes nothing. A folder that is missing has no keys;
     * it cannot be written to or watched (ENOENT). */
    Status openExisting(const Folders &folders);

    Status read(const std::string &key, SettingValue &value) const;
    Status readRecord(const std::string &key, SettingRecord &record) const;

    /* Replaces the value; every process sees it on return. Writers, also in other processes, take
     * turns. */
    Status write(const std::string &key, const SettingValue &value);

    /* Every key that has a file, sorted. */
    Status list(std::vector<std::string> &keys) const;

private:
    friend class SettingsWatcher;
    struct Root;
    void setRoots(const Folders &folders);
    const Root *rootOf(std::string_view key) const;
    Status readText(const std::string &key, std::string &text) const;
    Status readFile(const std::string &key, std::string &text, SettingsFile &file) const;

    std::array<std::unique_ptr<Root>, 2> roots_; // constant once opened
};

} // namespace corvane::platform

#endif
