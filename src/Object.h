/*
 * Object: what the three controllers have in common. The handle of the worker thread with its stop
 * flag, the one mutex that guards the controller's state, the way to command the micro-controller
 * (the Micom), and the conversions between the service's time texts and time points.
 *
 * Texts have the form "%FT%T" (2016-03-01T14:00:00); whether one is UTC or local time is up to the
 * reader.
 */
#ifndef CORVANE_OBJECT_H
#define CORVANE_OBJECT_H

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

#include "Pin.h"

namespace Corvane {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/** The system clock in whole seconds since the epoch. */
std::time_t nowSec();

/** Broken-down UTC and local time; the local one follows a change of the time zone while running.
 */
tm toUtc(std::time_t seconds);
tm toLocal(std::time_t seconds);

/** The asctime() text, which ends with a line end of its own. */
std::string toAsctime(const tm &time);

/** The text of a fixed-size member of a remote record, which a full member does not terminate. */
template <std::size_t Size>
std::string textOf(const char (&member)[Size]) {
    return {member, strnlen(member, Size)};
}

/** One full second, the pause of every worker and of every deferred task. */
void sleepOneSecond();

class Object {
public:
    Object() = default;
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;
    virtual ~Object() = default;

    virtual void _initialize() {}
    virtual void _finalize() {}

    /** Writes the command whole to the Micom's transmit key. Any thread; sends are not serialised.
     */
    void _sendToMicom(const std::string &command) const;

    /** The instant of a "%FT%T" text read as UTC, or as local time. Malformed text gives some
     * instant. */
    TimePoint _strToTp(const std::string &text) const;
    TimePoint _strToTp_local(const std::string &text) const;

    /** The "%FT%T" text of a broken-down time. */
    std::string _tmToStr(const tm &time) const;

    /**
     * The length of an hh:mm:ss text, read from positions 0-1, 3-4 and 6-7.
     * Throws std::out_of_range when it is too short, std::invalid_argument when a part is no
     * number.
     */
    std::chrono::seconds _strToDuration(const std::string &text) const;

protected:
    /** Ends the worker, if there is one; it notices within a second. May be repeated. */
    void _stopThread();

    std::thread *thread = nullptr; // owned; the owner's thread only
    std::mutex mutex;              // guards the derived controller's state and its use of its table
    std::atomic<bool> stop{false};
    int lastTick = -1; // worker only: the minute of its last pass, -1 before the first
};

} // namespace Corvane

#endif
