/* The sums of a minute; see the header. */
#include "minute_meter.h"

#include <algorithm>
#include <utility>

namespace corvane::appliance {
namespace {

constexpr TimeMs kMinuteMs = 60'000;
constexpr double kLeastSeenSec = 30;
/* Between samples further apart nobody looked. */
constexpr TimeMs kGapMs = 30'000;

double secondsBetween(TimeMs from, TimeMs to) { return static_cast<double>(to - from) / 1000; }

} // namespace

std::optional<HistoryRow> MinuteMeter::add(const RefrigeratorState &sample, int level,
                                           bool override, bool windowActive) {
    const std::optional<Point> before = std::exchange(last_, Point{sample.at, sample.energyWh});
    if (before && sample.at == before->atMs)
        return std::nullopt;
    if (!before || sample.at < before->atMs || sample.at - before->atMs > kGapMs) {
        row_ = {};
        seenSec_ = 0;
        return std::nullopt;
    }
    const TimeMs minuteMs = sample.at - sample.at % kMinuteMs;
    const double wh = sample.energyWh - before->counterWh;
    if (before->atMs >= minuteMs) {
        take(sample, level, override, windowActive, secondsBetween(before->atMs, sample.at), wh);
        return std::nullopt;
    }
    // The span crosses the full minute: each side gets its share.
    const double share =
        secondsBetween(before->atMs, minuteMs) / secondsBetween(before->atMs, sample.at);
    take(sample, level, override, windowActive, secondsBetween(before->atMs, minuteMs), wh * share);
    row_.atSec = (minuteMs - kMinuteMs) / 1000;
    row_.counterWh = before->counterWh + wh * share;
    auto row = finish();
    take(sample, level, override, windowActive, secondsBetween(minuteMs, sample.at),
         wh * (1 - share));
    return row;
}

void MinuteMeter::take(const RefrigeratorState &sample, int level, bool override, bool windowActive,
                       double sec, double wh) {
    seenSec_ += sec;
    row_.energyWh += wh;
    row_.peakWatt = std::max(row_.peakWatt, sample.powerWatt);
    row_.fridgeCelsius += sample.fridgeCelsius * sec;
    row_.freezerCelsius += sample.freezerCelsius * sec;
    row_.ambientCelsius += sample.ambientCelsius * sec;
    row_.compressor += sample.compressor.capacity * sec;
    row_.heater += sample.defrost.heaterOn ? sec : 0;
    row_.level = std::max(row_.level, level);
    row_.override = row_.override || override;
    row_.defrostHeld = row_.defrostHeld || sample.defrost.held;
    row_.windowActive = row_.windowActive || windowActive;
}

std::optional<HistoryRow> MinuteMeter::finish() {
    HistoryRow row = std::exchange(row_, {});
    const double seenSec = std::exchange(seenSec_, 0);
    if (seenSec < kLeastSeenSec)
        return std::nullopt;
    row.powerWatt = row.energyWh * 3600 / seenSec;
    for (double *sum : {&row.fridgeCelsius, &row.freezerCelsius, &row.ambientCelsius,
                        &row.compressor, &row.heater})
        *sum /= seenSec;
    return row;
}

} // namespace corvane::appliance
