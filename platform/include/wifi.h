/*
 * Wi-Fi: is the radio on, and is it connected to an access point.
 */
#ifndef CORVANE_PLATFORM_WIFI_H
#define CORVANE_PLATFORM_WIFI_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An access point. Opaque; the caller need not release it. */
typedef void *wifi_ap_h;

typedef enum { WIFI_ERROR_NONE = 0, WIFI_ERROR_OPERATION_FAILED = -1 } wifi_error_e;

/* Called on the platform's main loop, once for each wifi_activate() that returned 0. */
typedef void (*wifi_activated_cb)(wifi_error_e result, void *user_data);

/* Prepares this library for the process. May be repeated. Returns 0 or a wifi_error_e. */
int wifi_initialize(void);

/* Sets *activated to whether the radio is on. Returns 0, or an error: *activated is then untouched.
 */
int wifi_is_activated(bool *activated);

/* Switches the radio on; callback hears how it went. Returns 0, or an error: then no callback
 * comes. */
int wifi_activate(wifi_activated_cb callback, void *user_data);

/* Returns 0 with *ap set when connected to an access point, otherwise an error. */
int wifi_get_connected_ap(wifi_ap_h *ap);

/* Drops the callback for connection changes, if one was set. Returns 0 or a wifi_error_e. */
int wifi_unset_connection_state_changed_cb(void);

#ifdef __cplusplus
}
#endif

#endif
