/*
 * libcoap asks two functions of its own interface whether it can do DTLS and TLS before it makes
 * their contexts. A program's definitions go before a library's, so these answer instead.
 */
#include "dtls_support.h"

#include <atomic>

#include <coap3/coap.h>

namespace {

std::atomic<bool> isWanted{false};

} // namespace

int coap_dtls_is_supported() { return isWanted ? 1 : 0; }

int coap_tls_is_supported() { return coap_dtls_is_supported(); }

namespace corvane::platform {

void supportDtls(bool wanted) { isWanted = wanted; }

} // namespace corvane::platform
