/*
 * libcurl's easy interface in memory, as far as the service uses it.
 */
#include "fakes.h"
#include "internal.h"

#include <cstdarg>
#include <mutex>
#include <thread>

#include <curl/curl.h>

namespace {

std::mutex mutex;
std::vector<fakes::metering::Post> recorded; // guarded by mutex, as is the rest
int handlesOpen = 0;
int creationsToFail = 0;
int transfersToFail = 0;
double transferSec = 0;

// curl_easy_setopt under a name of our own, because its option is an enumeration, which C++ cannot
// pass in front of variable arguments.
extern "C" CURLcode setOption(CURL *handle, int option, ...) __asm__("curl_easy_setopt");

fakes::metering::Post *toPost(CURL *handle) { return static_cast<fakes::metering::Post *>(handle); }

} // namespace

extern "C" {

CURL *curl_easy_init() {
    const std::lock_guard lock(mutex);
    if (creationsToFail > 0) {
        --creationsToFail;
        return nullptr;
    }
    ++handlesOpen;
    return new fakes::metering::Post{};
}

CURLcode setOption(CURL *handle, int option, ...) {
    fakes::metering::Post *post = toPost(handle);
    va_list arguments;
    va_start(arguments, option);
    if (option == CURLOPT_URL || option == CURLOPT_CUSTOMREQUEST) {
        // The checker overlooks that va_start is just above.
        const std::string text =
            va_arg(arguments, const char *); // NOLINT(clang-analyzer-valist.Uninitialized)
        (option == CURLOPT_URL ? post->url : post->method) = text;
        post->options.push_back((option == CURLOPT_URL ? "URL=" : "CUSTOMREQUEST=") + text);
    } else {
        post->options.push_back("option " + std::to_string(option));
    }
    va_end(arguments);
    return CURLE_OK;
}

CURLcode curl_easy_perform(CURL *handle) {
    fakes::metering::Post *post = toPost(handle);
    post->utcNs = fakes::internal::systemClockNs();
    fakes::internal::record(fakes::Kind::Post, post->method + " " + post->url);
    double sec = 0;
    bool fails = false;
    {
        const std::lock_guard lock(mutex);
        if (fakes::internal::keepsRecords()) {
            recorded.push_back(*post);
        }
        sec = transferSec;
        fails = transfersToFail > 0;
        transfersToFail -= fails ? 1 : 0;
    }
    if (sec > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(sec));
    }
    return fails ? CURLE_COULDNT_CONNECT : CURLE_OK;
}

void curl_easy_cleanup(CURL *handle) {
    const std::lock_guard lock(mutex);
    --handlesOpen;
    delete toPost(handle);
}

} // extern "C"

namespace fakes {
namespace metering {

std::vector<Post> posts() {
    const std::lock_guard lock(mutex);
    return recorded;
}

int openHandles() {
    const std::lock_guard lock(mutex);
    return handlesOpen;
}

void failCreation(int times) {
    const std::lock_guard lock(mutex);
    creationsToFail = times;
}

void failTransfers(int times) {
    const std::lock_guard lock(mutex);
    transfersToFail = times;
}

void hangTransfers(double sec) {
    const std::lock_guard lock(mutex);
    transferSec = sec;
}

} // namespace metering

namespace internal {

void clearMetering() {
    const std::lock_guard lock(mutex);
    recorded.clear();
}

void resetMetering() {
    const std::lock_guard lock(mutex);
    creationsToFail = 0;
    transfersToFail = 0;
    transferSec = 0;
}

} // namespace internal
} // namespace fakes
