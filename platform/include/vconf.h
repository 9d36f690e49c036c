/*
 * Settings store: integer and text keys shared by every process of the appliance.
 *
 * The only way to the main micro-controller and to settings that survive a restart. Keys under
 * "db/" are kept over a restart of the machine, keys under "memory/" are not. Every function may be
 * called from any thread.
 */
#ifndef CORVANE_PLATFORM_VCONF_H
#define CORVANE_PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/* A change as the store hands it to a callback. Opaque: read the new value with vconf_get_int(). */
typedef struct _keynode_t keynode_t;

/*
 * Called on the platform's main loop after every write of the key it was registered for, by any
 * process, also when the value written equals the old one. No lock of the store is held: the
 * callback may use every function of this header.
 */
typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);

/*
 * Reads an integer key.
 * Returns 0 with *intval set; -1 when the key does not exist, holds a text or cannot be read:
 * *intval is then untouched.
 */
int vconf_get_int(const char *in_key, int *intval);

/* Writes an integer key, whole and visible to every process on return. Returns 0, or -1. */
int vconf_set_int(const char *in_key, const int intval);

/*
 * Writes a text key. strval ends with its terminator and is copied. Returns 0, or -1.
 * Two writes in quick succession are two changes, but a later read sees only the second.
 */
int vconf_set_str(const char *in_key, const char *strval);

/*
 * Registers cb for every later write of the key, which need not exist yet. The same key and
 * callback with another user_data is a further registration; an identical one is kept once.
 * user_data is handed back untouched and never freed. Registrations last as long as the process.
 * Returns 0, or -1.
 */
int vconf_notify_key_changed(const char *in_key, vconf_callback_fn cb, void *user_data);

#ifdef __cplusplus
}
#endif

#endif
