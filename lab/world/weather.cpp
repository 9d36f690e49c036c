/*
 * Drawing the weather. The date is often one on which calendars are hard: days on which clocks are
 * changed, a leap day, the year's end, the ends of the seasons.
 */
#include "weather.h"

#include "draws.h"

#include <cstdio>
#include <ctime>

namespace corvane::lab {
namespace {

constexpr std::int64_t kDaySec = 86'400;

constexpr const char *kZones[] = {
    "UTC",           "Europe/Berlin",       "America/New_York", "Asia/Seoul",
    "Asia/Kolkata",  "Australia/Lord_Howe", "America/St_Johns", "Pacific/Auckland",
    "Asia/Kathmandu"};

/* A few days before, so that the date falls into the run. */
constexpr const char *kHardDates[] = {"2026-03-29", "2026-10-25", "2027-03-14", "2027-11-07",
                                      "2027-04-04", "2027-09-26", "2028-02-29", "2026-12-31",
                                      "2027-10-31", "2028-04-30", "2026-05-01", "2026-03-01"};

std::int64_t dateSec(const char *date) {
    std::tm fields{};
    strptime(date, "%Y-%m-%d", &fields);
    return timegm(&fields);
}

std::int64_t drawStart(Draws &draws) {
    std::int64_t daySec = 0;
    if (draws.chance(0.5)) {
        daySec = dateSec(draws.oneOf(kHardDates));
        daySec -= draws.whole(0, 8) * kDaySec;
    } else {
        daySec = dateSec("2016-01-01") +
                 static_cast<std::int64_t>(draws.between(0, 21 * 365.25)) * kDaySec;
    }
    return daySec + draws.whole(0, static_cast<int>(kDaySec) - 1);
}

/* Off, usual or extreme. */
double drawHours(Draws &draws, double usual, double extreme) {
    const double share = draws.unit();
    if (share < 0.35)
        return 0;
    return share < 0.85 ? usual * draws.between(0.5, 2) : extreme * draws.between(0.5, 2);
}

void tell(std::string &text, const char *name, double value, const char *unit) {
    if (value <= 0)
        return;
    char part[80];
    std::snprintf(part, sizeof part, ", %s %.3g%s", name, value, unit);
    text += part;
}

} // namespace

Weather calmWeather(std::uint64_t seed) {
    Draws draws(seed);
    Weather weather;
    weather.startSec = drawStart(draws);
    weather.zone = draws.oneOf(kZones);
    weather.requestHours = 6;
    return weather;
}

Weather drawWeather(std::uint64_t seed) {
    Draws draws(seed);
    Weather weather;
    weather.startSec = drawStart(draws);
    weather.zone = draws.oneOf(kZones);
    weather.micomHours = drawHours(draws, 24, 1);
    weather.micomRestartHours = drawHours(draws, 72, 4);
    weather.displayHours = drawHours(draws, 24, 0.5);
    weather.wifiLateSec = drawHours(draws, 20, 1800);
    weather.wrongClockShare = drawHours(draws, 0.2, 1);
    weather.clockJumpHours = drawHours(draws, 72, 3);
    weather.zoneHours = drawHours(draws, 120, 6);
    weather.databaseHours = drawHours(draws, 48, 1);
    weather.meteringHours = drawHours(draws, 24, 2);
    weather.requestHours = drawHours(draws, 3, 0.1);
    weather.absurdShare = drawHours(draws, 0.05, 0.5);
    weather.crowdShare = drawHours(draws, 0.1, 0.5);
    weather.powerCutHours = drawHours(draws, 72, 6);
    weather.killHours = drawHours(draws, 72, 6);
    weather.terminateHours = drawHours(draws, 72, 6);
    weather.stormShare = drawHours(draws, 0.1, 0.5);
    weather.orderShare = draws.oneOf({0.03, 0.3, 1.0});
    weather.suspends = draws.chance(0.9);
    return weather;
}

std::string describe(const Weather &weather) {
    std::tm fields{};
    const std::time_t start = weather.startSec;
    gmtime_r(&start, &fields);
    char text[80];
    std::strftime(text, sizeof text, "from %FT%TZ in ", &fields);
    std::string all = std::string(text) + weather.zone;
    tell(all, "Micom trouble each", weather.micomHours, " h");
    tell(all, "Micom restart each", weather.micomRestartHours, " h");
    tell(all, "display override each", weather.displayHours, " h");
    tell(all, "Wi-Fi late by", weather.wifiLateSec, " s");
    tell(all, "clock wrong at", weather.wrongClockShare, " of starts");
    tell(all, "clock jump each", weather.clockJumpHours, " h");
    tell(all, "zone change each", weather.zoneHours, " h");
    tell(all, "database trouble each", weather.databaseHours, " h");
    tell(all, "metering trouble each", weather.meteringHours, " h");
    tell(all, "request each", weather.requestHours, " h");
    tell(all, "ordering", weather.orderShare, "");
    tell(all, "absurd", weather.absurdShare, "");
    tell(all, "crowded", weather.crowdShare, "");
    tell(all, "power cut each", weather.powerCutHours, " h");
    tell(all, "kill each", weather.killHours, " h");
    tell(all, "terminate each", weather.terminateHours, " h");
    tell(all, "storm", weather.stormShare, "");
    return weather.suspends ? all + ", suspended while nothing is due" : all;
}

} // namespace corvane::lab
