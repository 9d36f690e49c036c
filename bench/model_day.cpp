/*
 * How long the refrigerator's model takes for a simulated day, looked at once a minute as the
 * appliance's history does. A year of days, so that defrosts, nights and shopping have their share.
 */
#include "refrigerator.h"

#include "percentiles.h"

#include <chrono>

using namespace corvane::appliance;

int main() {
    constexpr int kDays = 365;
    constexpr TimeMs kBegin = 1'767'225'600'000; // 2026-01-01T00:00:00Z
    Refrigerator refrigerator(1, kBegin);
    std::vector<double> dayUs;
    double wattMinutes = 0;
    for (int day = 0; day < kDays; ++day) {
        const auto begin = std::chrono::steady_clock::now();
        for (int minute = 1; minute <= 24 * 60; ++minute) {
            refrigerator.advance(kBegin + day * kMsPerDay + minute * 60 * kMsPerSec);
            wattMinutes += refrigerator.powerWatt();
        }
        dayUs.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                .count());
    }
    corvane::bench::printPercentiles("a simulated day", dayUs);
    std::printf("the year's energy: %.0f kWh, its minutes' mean power %.1f W\n",
                refrigerator.energyWh() / 1000, wattMinutes / (kDays * 24 * 60));
}
