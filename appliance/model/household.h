/*
 * The people around the refrigerator: when they open its doors, put shopping in and take ice. A
 * day's plan is a pure function of its seed and the local date, so nothing has to be saved, and a
 * jump of the clock finds the right plan.
 */
#ifndef CORVANE_APPLIANCE_MODEL_HOUSEHOLD_H
#define CORVANE_APPLIANCE_MODEL_HOUSEHOLD_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "model_time.h"

namespace corvane::appliance {

enum class Compartment { Fridge, Freezer };

/* One door opening. Openings of one door do not overlap and end within their day. */
struct DoorOpening {
    TimeMs startMs = 0; // since local midnight
    TimeMs endMs = 0;
    Compartment compartment = Compartment::Fridge;
    double goodsJoule = 0; // heat of warm goods put in at the start
    bool takesIce = false; // one batch of ice is taken at the start
};

class Household {
public:
    explicit Household(std::uint64_t seed) : seed_(seed) {}

    /*
     * The openings of a local day (days since 1970-01-01), by start: about 30 of the fridge and 6
     * of the freezer, most at meal times, with shopping twice a week.
     */
    [[nodiscard]] std::vector<DoorOpening> plan(std::int64_t localDay) const;

private:
    std::uint64_t seed_;
};

/* One door's openings of a day, walked through in order. Times are since local midnight. */
class DoorTimes {
public:
    static constexpr TimeMs kNever = INT64_MAX;

    /* Takes a day's openings of one door and goes to a time in it without opening anything. */
    void begin(std::vector<DoorOpening> openings, TimeMs at);
    /* Goes on to a time; the opening that begins exactly there, if one does. */
    const DoorOpening *reach(TimeMs at);
    /* Ends the present opening before its time. */
    void close();

    [[nodiscard]] bool isOpen() const { return open_; }
    /* When it opens or closes next; kNever after the day's last. */
    [[nodiscard]] TimeMs nextChange() const;

private:
    std::vector<DoorOpening> openings_;
    std::size_t next_ = 0; // the first that has not ended
    bool open_ = false;
};

} // namespace corvane::appliance

#endif
