/*
 * Home-platform proxy: named commands and notifications between the service and a home-network
 * controller.
 *
 * Order of use: declare every command, KestInitProxy(), KestStart(), KestSendSetProxyCmds();
 * handlers may be registered at any time. Every function may be called from any thread and returns
 * 0, or -1 when it could not do its work.
 *
 * Handlers run on threads of this library, one request at a time, with no lock of the library held,
 * and answer 1 (handled) or 0 (refused, or no controller). Before a handler is called the request
 * has been checked: ranges, forms and sizes are as the members below say. A KestSend… function only
 * queues and never calls back. An exception that leaves a handler ends the process.
 */
#ifndef CORVANE_PLATFORM_OCF_PROXY_H
#define CORVANE_PLATFORM_OCF_PROXY_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A demand-response event as ordered. Every member ends with a terminator. 35 bytes. */
typedef struct {
    char drlcLevel[5]; /* "0" cancels, "1" to "4" */
    char duration[10]; /* hh:mm:ss, or "null" or empty: absent. The handler may write a default here
                        */
    char drlcStartTime[20]; /* UTC time of day hh:mm:ss, or "null" or empty: now */
} KestDrlcInfo;

/*
 * A defrost reservation. A text that fills its member is not terminated. Local time; the year is
 * always "0000"; of endTime only month and day count. 130 bytes.
 */
typedef struct {
    char id[50];          /* "0" and "1" seasonal defaults, "2" and "3" remote ones */
    char startTime[20];   /* 0000-MM-DDThh:mm:ss: first day of the season, daily start */
    char endTime[20];     /* 0000-MM-DDThh:mm:ss: last day of the season */
    char period[10];      /* hh:mm:ss: length of the daily window */
    char description[30]; /* free text */
} KestDefrostReservation;

/* Declares one command. kind: 0 a notification that the service sends, 1 a request that it answers.
 */
int KestAddProxyCommands(const char *name, int kind);

/* Creates the proxy under its name, with the commands declared so far. */
int KestInitProxy(const char *name);

/* Starts serving. */
int KestStart(void);

/* Publishes the declared commands to the remote side. */
int KestSendSetProxyCmds(void);

/* level: 0 to 4; override_state: 0 off, 1 on; -1 in either: not known yet. Both written on
 * answer 1. */
typedef int (*KestGetDRLCOverrideFunc)(int *level, int *override_state);
typedef int (*KestControlOverrideFunc)(int override_state);
/* info belongs to the library; the handler may write into it. */
typedef int (*KestControlDRLCFunc)(KestDrlcInfo *info);
/* Writes up to four entries and their number. Answer 0 leaves *count untouched. */
typedef int (*KestGetDefrostReservationsFunc)(KestDefrostReservation *entries, int *count);
/* Writes the new id into entry, and into text as far as the text that it holds reaches; *error 507:
 * no room. */
typedef int (*KestCreateDefrostReservationsFunc)(KestDefrostReservation *entry, char *text,
                                                 int *error);
typedef int (*KestSetDefrostReservationsFunc)(KestDefrostReservation *entry);
/* context is passed through; id is a decimal number with its terminator. */
typedef int (*KestDelDefrostReservationsFunc)(void *context, const char *id);
typedef int (*KestGetDelayDefrostFunc)(int *enabled);
typedef int (*KestSetDelayDefrostFunc)(int enabled);
typedef int (*KestGetDefrostBlockFunc)(int *block);
/* Two buffers of 512 bytes each: this month so far and the whole previous month, decimal texts. */
typedef int (*KestGetEnergyConsumptionFunc)(char *cumulative, char *monthly);

/* Each installs the handler of its command; a second registration replaces the first. */
int KestRegisterGetDRLCOverrideFunc(KestGetDRLCOverrideFunc handler);
int KestRegisterControlOverrideFunc(KestControlOverrideFunc handler);
int KestRegisterControlDRLCFunc(KestControlDRLCFunc handler);
int KestRegisterGetDefrostReservationsFunc(KestGetDefrostReservationsFunc handler);
int KestRegisterCreateDefrostReservationsFunc(KestCreateDefrostReservationsFunc handler);
int KestRegisterSetDefrostReservationsFunc(KestSetDefrostReservationsFunc handler);
int KestRegisterDelDefrostReservationsFunc(KestDelDefrostReservationsFunc handler);
int KestRegisterGetDelayDefrostFunc(KestGetDelayDefrostFunc handler);
int KestRegisterSetDelayDefrostFunc(KestSetDelayDefrostFunc handler);
int KestRegisterGetDefrostBlockFunc(KestGetDefrostBlockFunc handler);
int KestRegisterGetEnergyConsumptionFunc(KestGetEnergyConsumptionFunc handler);

/* Each queues one notification to whoever watches. */
int KestSendOverrideNotify(int override_state);
int KestSendDRLCNotify(int level);
int KestSendDelayDefrostNotify(bool enabled);
int KestSendDefrostBlockNotify(int block);
/* action: 0 created, 2 deleted. entry points to count entries, which are copied. */
int KestSendDefrostReservationsNotify(int action, KestDefrostReservation *entry, int count);

#ifdef __cplusplus
}
#endif

#endif
