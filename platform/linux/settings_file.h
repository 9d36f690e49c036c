/*
 * The text of one key's file. Pure functions: no file is touched here.
 *
 *     int 3                                          the present value
 *     change 42 since 2026-11-21T11:54:26.123456Z    its number, and when the file began
 *     int 2                                          value 41
 *     text SET_SMARTGRID_LEVEL2                      value 40, and so on
 *
 * In a text, backslash and control characters are written as \\ and \xNN, so that a line end always
 * ends a value. A file that does not begin with two whole lines of this form is damaged; values
 * further down only serve late watchers, so that the first malformed one merely ends the list.
 */
#ifndef CORVANE_PLATFORM_LINUX_SETTINGS_FILE_H
#define CORVANE_PLATFORM_LINUX_SETTINGS_FILE_H

#include "settings_store.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::platform {

/* Old values are dropped, the oldest first, once the text is longer than this... */
inline constexpr std::size_t kSettingsFileSize = 4096;
/* ...except that so many are always kept. */
inline constexpr std::size_t kMinOldValues = 16;

/* The first two lines, and the rest. Its views are into the text that was parsed. */
struct SettingsFile {
    std::string_view valueLine;
    std::uint64_t sequence = 0;
    std::string_view since;
    std::string_view oldValues;
};

/* False when the text is damaged; file is then unchanged. */
bool parseSettingsFile(std::string_view text, SettingsFile &file);

/* False when the line is no value; value is then unchanged. */
bool parseSettingValue(std::string_view line, SettingValue &value);

/* Up to limit values of the file, newest first. */
std::vector<SettingValue> parseSettingValues(const SettingsFile &file, std::uint64_t limit);

/*
 * The text after one more write. before is the present text, empty when there is none; a damaged
 * one is given up, and a file begun anew at the time now.
 */
std::string composeSettingsFile(const SettingValue &value, std::string_view before,
                                std::chrono::system_clock::time_point now);

} // namespace corvane::platform

#endif
