/*
 * How failures of the platform read.
 */
#include "status.h"

#include <system_error>

namespace corvane::platform {

Status systemFailure(int code, const std::string &what) {
    return {code, what + ": " + std::generic_category().message(code)};
}

} // namespace corvane::platform
