/*
 * Whether libcoap makes what DTLS needs. Without keys it is never used, and costs a quarter of a
 * megabyte of memory that nobody else shares.
 */
#ifndef CORVANE_PLATFORM_LINUX_PROXY_DTLS_SUPPORT_H
#define CORVANE_PLATFORM_LINUX_PROXY_DTLS_SUPPORT_H

namespace corvane::platform {

/* For the contexts that this process makes from now on. Any thread. */
void supportDtls(bool wanted);

} // namespace corvane::platform

#endif
