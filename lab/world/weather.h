/*
 * The weather of a run: what goes wrong around the service, how often and how badly. Each kind is
 * sometimes off and sometimes extreme; all of it is drawn from one number and printed before the
 * run begins.
 */
#ifndef CORVANE_LAB_WEATHER_H
#define CORVANE_LAB_WEATHER_H

#include <cstdint>
#include <string>

namespace corvane::lab {

/* Plain values. Hours are means between two occurrences; 0: never. */
struct Weather {
    const char *zone = "UTC";
    std::int64_t startSec = 0;    // true time at the begin, UTC
    double micomHours = 0;        // the Micom is slow, silent, drops commands, echoes wrongly
    double micomRestartHours = 0; // its control loses power for a moment
    double displayHours = 0;      // somebody switches the override on the display
    double wifiLateSec = 0;       // after each start, on average
    double wrongClockShare = 0;   // of the starts: 1970, 2015 or hours off
    double clockJumpHours = 0;    // seconds to years, forwards and back, mended later
    double zoneHours = 0;         // another zone is set while the service runs
    double databaseHours = 0;     // busy, full, failing, locked by another process
    double meteringHours = 0;     // refuses, slow, hanging
    double requestHours = 0;      // of the remote side
    double orderShare = 1;        // of the events that it thinks of
    double absurdShare = 0;       // of its requests
    double crowdShare = 0;        // of its requests: several at once, or repeated
    double powerCutHours = 0;
    double killHours = 0;
    double terminateHours = 0;
    double stormShare = 0; // of the ends of a life: several more within a minute
    bool suspends = false; // the main board, for as long as nothing is due
};

[[nodiscard]] Weather drawWeather(std::uint64_t seed);
[[nodiscard]] Weather calmWeather(std::uint64_t seed);

/* One line for people: the kinds that are not off. */
[[nodiscard]] std::string describe(const Weather &weather);

} // namespace corvane::lab

#endif
