/*
 * Runs with figures that can be computed by hand: 100 W without the programme, what a test wants
 * with it.
 */
#ifndef CORVANE_TESTS_LAB_MADE_UP_RUNS_H
#define CORVANE_TESTS_LAB_MADE_UP_RUNS_H

#include <figures.h>

#include <string>

namespace corvane::lab {

/* Two days in UTC, with an event of level 3 from 18:00 to 20:00 on each, all of them confirmed. In
 * event hours 40 W instead of 100 W, in the first hour after 160 W. The food is at 3 and -18
 * degrees, in the second event's last hour at 4 and -17. */
inline Runs madeUpRuns(const std::string &more = "") {
    Runs runs;
    runs.scenario = parseScenario("title = \"Made up\"\nfrom = 2026-06-01\nto = 2026-06-02\n"
                                  "[[programme]]\nname = \"evening\"\nlevel = 3\n"
                                  "from = \"18:00\"\nto = \"20:00\"\n" +
                                      more,
                                  "made-up.toml");
    runs.events = planEvents(runs.scenario);
    for (RunResult *run : {&runs.with, &runs.without}) {
        run->beginMs = runs.scenario.beginMs();
        run->minutes.assign(2 * 1440, {.watt = 100, .fridgeFood = 3, .freezerFood = -18});
        run->isService = true;
    }
    for (const PlannedEvent &event : runs.events) {
        const auto begin =
            static_cast<std::size_t>((event.startMs - runs.with.beginMs) / kMinuteMs);
        for (std::size_t minute = begin; minute < begin + 120; ++minute) {
            runs.with.minutes[minute].watt = 40;
            runs.with.minutes[minute].level = 3;
        }
        for (std::size_t minute = begin + 120; minute < begin + 180; ++minute)
            runs.with.minutes[minute].watt = 160;
        runs.with.fates.push_back({.attempts = 1,
                                   .acceptedMs = event.orderMs,
                                   .commandedMs = event.startMs,
                                   .confirmedMs = event.startMs + 2'000,
                                   .endedMs = event.endMs + 1'000});
    }
    for (std::size_t minute = 1440 + 19 * 60; minute < 1440 + 20 * 60; ++minute) {
        runs.with.minutes[minute].fridgeFood = 4;
        runs.with.minutes[minute].freezerFood = -17;
    }
    runs.plannedEvents = runs.confirmedEvents = 2;
    runs.with.postedCounts = 468'000;
    runs.with.seed = runs.without.seed = 1;
    return runs;
}

} // namespace corvane::lab

#endif
