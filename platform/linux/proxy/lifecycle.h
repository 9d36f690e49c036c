// The remote proxy's place in the life of the program: prepared before the service is created,
// silenced before it is terminated, closed after that. The main loop calls these three in this
// order, on its own thread; what the service calls in between is in <ocf_proxy.h>.
//
// A program that never prepares the proxy has none: every function of <ocf_proxy.h> then answers
// -1.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_LIFECYCLE_H
#define CORVANE_PLATFORM_LINUX_PROXY_LIFECYCLE_H

#include <string>

namespace corvane::platform {

// Reads CORVANE_COAP_LISTEN and CORVANE_COAP_PSK_FILE, checks them, loads the keys and binds the
// address. Answers an empty text when all is well, else one line that says what failed, why, and
// which variable to set; nothing is left open then. No thread is started yet.
[[nodiscard]] std::string prepareProxy();

// On return no handler is running and none will be called again; later requests are answered 5.03.
// Waits for the handler that is running, if any. Harmless when called twice or without a proxy.
void quiesceProxy();

// Sends what is queued, closes the sockets and joins both threads. Quiesces first if that was not
// done. Harmless when called twice or without a proxy; prepareProxy() may be called again after it.
void closeProxy();

} // namespace corvane::platform

#endif
