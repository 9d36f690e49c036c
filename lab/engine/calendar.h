/*
 * The C library's calendar within a run of virtual time, remembered.
 *
 * A service that lives a year in minutes asks millions of times for what it has asked before: the
 * window of the day, the local time of this minute. strptime, mktime, timegm, localtime_r, gmtime_r
 * and strftime answer the same to the same arguments for as long as the time zone stays, so within
 * a run their answers are kept and given again. The zone is watched: setenv, unsetenv and putenv
 * note that TZ has been touched, and what depends on it is forgotten when tzset or mktime, as the C
 * library does, next looks at it. A program that writes to environ itself is not seen.
 *
 * One answer depends on what was asked before: of a local time that comes twice, when clocks are
 * set back, mktime chooses one. Within a run it stays with its first choice.
 */
#ifndef CORVANE_LAB_CALENDAR_H
#define CORVANE_LAB_CALENDAR_H

namespace virtualtime::calendar {

// Forgets everything, so that no run knows what another one asked.
void forget();

// From now on "%c" reads amiss by so many seconds within runs, as it does where a locale writes
// dates otherwise than asctime(). 0: no more.
void misreadBySec(int sec);

} // namespace virtualtime::calendar

#endif
