/*
 * The file of pre-shared keys: one "identity:key in hex" a line, empty lines and lines that begin
 * with # aside. Identities are 1 to 64 printable characters without a colon; keys are 16 to 64
 * bytes. The file must belong to the user of the service and be readable by no one else.
 */
#ifndef CORVANE_PLATFORM_LINUX_PSK_FILE_H
#define CORVANE_PLATFORM_LINUX_PSK_FILE_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane::platform {

using PskKeys = std::map<std::string, std::vector<std::uint8_t>, std::less<>>;

/* What is wrong with the file, as the middle of a sentence; never shows a key. */
struct PskError {
    std::string text;
};

std::variant<PskKeys, PskError> parsePskKeys(std::string_view text);
std::variant<PskKeys, PskError> readPskFile(const std::string &path);

} // namespace corvane::platform

#endif
