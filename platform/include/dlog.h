/*
 * Platform log: one line of text with a buffer, a priority and a tag.
 */
#ifndef CORVANE_PLATFORM_DLOG_H
#define CORVANE_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* The log buffer a line goes to. The service writes to the main buffer only. */
typedef enum { LOG_ID_MAIN = 0, LOG_ID_RADIO, LOG_ID_SYSTEM, LOG_ID_APPS } log_id_t;

/* Priorities, most talkative first. */
enum { DLOG_DEBUG = 3, DLOG_INFO = 4, DLOG_WARN = 5, DLOG_ERROR = 6 };

/*
 * Writes one line, formatted as printf() would; the log adds what separates lines, so fmt carries
 * no line end of its own. May be called from any thread; never blocks on a slow reader for long and
 * never fails in a way the caller has to handle. Returns the number of bytes of the text, or a
 * negative value when it could not be written.
 */
int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
