// The proxy's own lines in the platform log.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_LOG_H
#define CORVANE_PLATFORM_LINUX_PROXY_LOG_H

#include <dlog.h>
#include <string>

namespace corvane::platform {

inline void logProxy(int priority, const std::string &line) {
    __dlog_print(LOG_ID_SYSTEM, priority, "corvane-proxy", "%s", line.c_str());
}

} // namespace corvane::platform

#endif
