/*
 * <service_app.h>: the service's life with the real remote proxy, in a process that has been set up
 * for it.
 */
#include <service_app.h>

#include "proxy/lifecycle.h"
#include "service_loop.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <curl/curl.h>
#include <malloc.h>

namespace {

constexpr std::chrono::seconds kStopBound(10);

/* What concerns the whole process and must be done while it has one thread. */
// NOLINTBEGIN(concurrency-mt-unsafe): it has one thread
void setUpProcess() {
    // A pipe behind standard output sees each line as it comes, and may go away. The buffer is a
    // new one, since the C library goes on filling the old one whole when something was written
    // before.
    static std::array<char, BUFSIZ> buffer;
    (void)std::setvbuf(stdout, buffer.data(), _IOLBF, buffer.size());
    (void)std::signal(SIGPIPE, SIG_IGN);
    // The metering service is on this machine, whatever proxy the environment was made for.
    for (const char *name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        (void)unsetenv(name);
    // Plain HTTP only: nothing of what the other flags would load is used.
    (void)curl_global_init(CURL_GLOBAL_NOTHING);
    // The few threads mostly sleep: one heap for all, whose free end goes back to the system.
    (void)mallopt(M_ARENA_MAX, 1);
    (void)mallopt(M_TRIM_THRESHOLD, 32 * 1024);
    (void)mallopt(M_TOP_PAD, 16 * 1024);
}
// NOLINTEND(concurrency-mt-unsafe)

} // namespace

int service_app_main(int, char **, service_app_lifecycle_callback_s *callback, void *user_data) {
    using namespace corvane::platform;
    if (callback == nullptr || callback->create == nullptr || callback->terminate == nullptr)
        return 1;
    setUpProcess();
    return runService(*callback, user_data, {prepareProxy, quiesceProxy, closeProxy}, kStopBound);
}
