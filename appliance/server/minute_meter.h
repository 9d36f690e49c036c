/*
 * Makes one history row of each minute out of the samples that the engine takes.
 */
#ifndef CORVANE_APPLIANCE_SERVER_MINUTE_METER_H
#define CORVANE_APPLIANCE_SERVER_MINUTE_METER_H

#include "history.h"
#include "refrigerator.h"

#include <optional>

namespace corvane::appliance {

class MinuteMeter {
public:
    /*
     * A sample tells of the time since the one before it. The first sample in a new minute gives
     * the row of the minute before; a minute of which half or more was not seen gives none.
     */
    std::optional<HistoryRow> add(const RefrigeratorState &sample, int level, bool override,
                                  bool windowActive);

private:
    void take(const RefrigeratorState &sample, int level, bool override, bool windowActive,
              double sec, double wh);
    std::optional<HistoryRow> finish();

    struct Point {
        TimeMs atMs;
        double counterWh;
    };
    std::optional<Point> last_;
    HistoryRow row_; // sums over seenSec_, until finish() makes means of them
    double seenSec_ = 0;
};

} // namespace corvane::appliance

#endif
