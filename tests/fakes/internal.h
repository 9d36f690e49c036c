/*
 * What the fakes share among themselves; tests include fakes.h.
 */
#ifndef CORVANE_TESTS_FAKES_INTERNAL_H
#define CORVANE_TESTS_FAKES_INTERNAL_H

#include "fakes.h"

#include <cstdint>
#include <functional>
#include <string>

namespace fakes::internal {

// Appends to the common trace.
void record(Kind kind, std::string text);

// Whether records are kept, which they are not for an observer.
bool keepsRecords();

// The system clock, virtual during a run.
std::int64_t systemClockNs();

// Has callback run on the thread of the loop, in order of time and then of calls; dropped when the
// service has been or is being terminated.
void deliverOnLoop(std::function<void()> callback, double delaySec = 0);

// One pair for each fake: all back to the beginning; only the records.
void resetLog();
void clearLog();
void resetSettings();
void clearSettings();
void resetLoop();
void resetWifi();
void clearWifi();
void resetPower();
void resetProxy();
void clearProxy();
void resetMetering();
void clearMetering();

// What a process loses when it ends: registrations, handlers, callbacks under way.
void forgetRegistrations();
void forgetCallbacks();
void forgetHandlers();

} // namespace fakes::internal

#endif
