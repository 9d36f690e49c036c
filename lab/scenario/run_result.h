/*
 * What came of one run of a scenario: the appliance minute by minute, the fate of each ordered
 * event, and what was said between operator, service and Micom. Plain values: made by a run in a
 * process of its own, handed over as bytes, read by the report.
 */
#ifndef CORVANE_LAB_RUN_RESULT_H
#define CORVANE_LAB_RUN_RESULT_H

#include "scenario.h"

#include <cstdint>
#include <string>
#include <vector>

namespace corvane::lab {

/* One minute of the appliance. */
struct Minute {
    float watt = 0;                                        // mean
    float fridgeFood = 0, freezerFood = 0, freezerAir = 0; // degrees Celsius at the minute's end
    std::int8_t level = 0;                                 // in force at the minute's end
    bool override = false;
    bool defrostHeld = false;
    bool defrostHeating = false;
};

/* The fate of one planned event. Times are UTC in milliseconds; 0: it did not happen. */
struct EventFate {
    int attempts = 0;             // of the order
    std::int64_t acceptedMs = 0;  // the service has answered 1
    std::int64_t commandedMs = 0; // its level was sent to the Micom
    std::int64_t confirmedMs = 0; // the operator was told the level
    std::int64_t endedMs = 0;     // the operator was told level 0
    std::int64_t replacedMs = 0;  // a later order took its place before its end
    bool operator==(const EventFate &) const = default;
};

/* Something worth a line in the report. */
enum class NoteKind : std::uint8_t { Request, Command, Notification, Fault, Life };
struct Note {
    std::int64_t atMs = 0;
    NoteKind kind = NoteKind::Request;
    bool isRefusal = false; // a request that was answered 0, or not at all
    std::string text;
};

struct RunResult {
    std::uint64_t seed = 0;
    std::int64_t beginMs = 0;     // of the first minute, UTC
    std::vector<Minute> minutes;  // one after another, without a gap
    std::vector<EventFate> fates; // of planEvents(), in its order; empty without the programme
    std::vector<Note> notes;
    std::int64_t notesLeftOut = 0; // there is a limit
    std::int64_t commands = 0;     // texts sent to the Micom, repeats included
    std::int64_t requests = 0, refusals = 0;
    std::int64_t posts = 0;
    std::int64_t postedCounts = 0; // of 0.01 Wh, in all posts
    int lives = 0;
    std::uint64_t judgedSteps = 0; // at each of which the judge saw no rule broken
    double realSec = 0;
    bool isService = false; // false: the models alone, without the service

    [[nodiscard]] std::int64_t endMs() const {
        return beginMs + static_cast<std::int64_t>(minutes.size()) * kMinuteMs;
    }
};

[[nodiscard]] std::string toBytes(const RunResult &result);
/* Throws std::runtime_error for bytes that toBytes() has not made. */
[[nodiscard]] RunResult resultFromBytes(const std::string &bytes);

} // namespace corvane::lab

#endif
