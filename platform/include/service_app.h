/*
 * Service-application framework: the main loop of a process without a window.
 */
#ifndef CORVANE_PLATFORM_SERVICE_APP_H
#define CORVANE_PLATFORM_SERVICE_APP_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A request from another application. Opaque. */
typedef struct app_control_s *app_control_h;

/* Runs once, first, on the main thread; true lets the service run, false ends it. */
typedef bool (*service_app_create_cb)(void *user_data);

/*
 * Runs once, last, on the main thread. Before it runs, no remote handler, settings callback or
 * Wi-Fi callback is running, and none will be called again.
 */
typedef void (*service_app_terminate_cb)(void *user_data);

/* Runs on the main thread for every request of another application. */
typedef void (*service_app_control_cb)(app_control_h app_control, void *user_data);

typedef struct {
    service_app_create_cb create;
    service_app_terminate_cb terminate;
    service_app_control_cb app_control;
} service_app_lifecycle_callback_s;

/*
 * Runs the service: create, then the main loop (which also delivers settings and Wi-Fi callbacks)
 * until the system asks the process to stop, then terminate. user_data is handed to each callback.
 * Returns the exit status of the process: 0 after an orderly stop.
 */
int service_app_main(int argc, char **argv, service_app_lifecycle_callback_s *callback,
                     void *user_data);

#ifdef __cplusplus
}
#endif

#endif
