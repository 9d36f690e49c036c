/*
 * How failures of the platform read.
 */
#include "status.h"

#include <system_error>

namespace corvane::platform {

Status systemFailure(int code, const std::string &what) {
    return {code, what + ": " + std::generic_category().message(code)};
}

std::string quoted(std::string_view text, std::size_t limit) {
    std::string result = "\"";
    for (char c : text.substr(0, limit)) {
        const auto byte = static_cast<unsigned char>(c);
        result += byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    result += text.size() > limit ? "...\"" : "\"";
    return result;
}

} // namespace corvane::platform
