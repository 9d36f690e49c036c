/*
 * The metering service of the device: it takes the energy figure that is posted to it, checks it,
 * and keeps what came. Sockets are its owner's; here a request goes in and the answer comes out,
 * with the time that it takes.
 */
#ifndef CORVANE_APPLIANCE_MODEL_METERING_H
#define CORVANE_APPLIANCE_MODEL_METERING_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "model_time.h"

namespace corvane::appliance {

struct MeteringFaults {
    bool refuses = false;      // 503; the figure is not kept
    bool slow = false;         // answers after kSlowMs; the figure is kept at once
    bool neverAnswers = false; // the figure is not kept; the connection stays open
    bool garbage = false;      // the figure is kept, the answer is nonsense
};

struct MeteringAnswer {
    int status = 204;
    std::string body = ""; // plain text, one line; any bytes under the garbage fault
    /* When to answer, after the request; none: never. */
    std::optional<TimeMs> delayMs = 0;
};

/* What has come so far. Plain values: save and restore by copying. */
struct MeteringTotals {
    std::int64_t posts = 0;   // requests to the metering path, refused ones too
    std::int64_t refused = 0; // answered with 400 or above, or never
    TimeMs lastAt = 0;
    std::string lastFigure;       // of the last figure kept, as posted: "1.23"
    int lastStatus = 0;           // 0: never answered
    std::int64_t totalCounts = 0; // of 0.01 Wh

    [[nodiscard]] double totalWh() const { return static_cast<double>(totalCounts) / 100; }
};

class MeteringService {
public:
    static constexpr std::string_view kPath = "/external/metering";
    static constexpr TimeMs kSlowMs = 20'000;
    /* A longer figure or duration is not one that an appliance can have measured in a minute. */
    static constexpr std::int64_t kLargestCounts = INT32_MAX;
    static constexpr int kLongestDurationSec = 86'400;

    explicit MeteringService(std::uint64_t seed) : seed_(seed) {}

    /*
     * One request: method "POST" and the request target with its query, as on the request line.
     * 204 when the figure ("cumulativepower": digits, point, two digits; in Wh) and the duration
     * (whole seconds, 1 to kLongestDurationSec) are right; 400 with a one-line reason when one is
     * missing, given twice, negative or no number; 404 for another path; 405 for another method.
     * What is wrong is answered so under a fault too, but for refuses and neverAnswers.
     */
    [[nodiscard]] MeteringAnswer take(std::string_view method, std::string_view target, TimeMs now);

    void setFaults(const MeteringFaults &faults) { faults_ = faults; }
    [[nodiscard]] const MeteringFaults &faults() const { return faults_; }
    [[nodiscard]] const MeteringTotals &totals() const { return totals_; }
    void restore(const MeteringTotals &totals) { totals_ = totals; }

private:
    [[nodiscard]] MeteringAnswer answerTo(std::string_view query);

    std::uint64_t seed_;
    MeteringFaults faults_;
    MeteringTotals totals_;
};

} // namespace corvane::appliance

#endif
