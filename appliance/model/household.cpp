#include "household.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

#include "random.h"

namespace corvane::appliance {

namespace {

constexpr TimeMs kHourMs = 3600 * kMsPerSec;

/* How often a door is opened in each hour of the day, relative to the others. */
constexpr std::array<int, 24> kHourWeights = {1, 0, 0, 0, 0, 1, 5,  9,  8, 4, 3, 5,
                                              9, 7, 3, 3, 4, 7, 11, 10, 6, 4, 3, 2};

constexpr int kAllWeights = std::accumulate(kHourWeights.begin(), kHourWeights.end(), 0);

TimeMs someTime(Random &random) {
    int place = random.whole(0, kAllWeights - 1);
    int hour = 0;
    while (place >= kHourWeights.at(static_cast<std::size_t>(hour))) {
        place -= kHourWeights.at(static_cast<std::size_t>(hour++));
    }
    return hour * kHourMs + random.whole(0, static_cast<int>(kHourMs) - 1);
}

/* Moves openings of one door apart, and leaves out what would not end on this day. */
void moveApart(std::vector<DoorOpening> &openings) {
    constexpr TimeMs kShutMs = 2000;
    std::sort(openings.begin(), openings.end(),
              [](const DoorOpening &a, const DoorOpening &b) { return a.startMs < b.startMs; });
    TimeMs free = 0;
    for (DoorOpening &opening : openings) {
        const TimeMs late = std::max<TimeMs>(0, free - opening.startMs);
        opening.startMs += late;
        opening.endMs += late;
        free = opening.endMs + kShutMs;
    }
    std::erase_if(openings, [](const DoorOpening &opening) { return opening.endMs >= kMsPerDay; });
}

bool isShoppingDay(std::int64_t localDay) {
    const std::int64_t weekday = ((localDay + 4) % 7 + 7) % 7; // 0 is Sunday
    return weekday == 3 || weekday == 6;
}

} // namespace

std::vector<DoorOpening> Household::plan(std::int64_t localDay) const {
    Random random(seed_, Draw::Household, static_cast<std::uint64_t>(localDay));
    std::vector<DoorOpening> fridge(static_cast<std::size_t>(random.whole(24, 36)));
    for (DoorOpening &opening : fridge) {
        opening.startMs = someTime(random);
        opening.endMs = opening.startMs + random.whole(6'000, 26'000);
    }
    if (isShoppingDay(localDay)) {
        for (int bags = 0; bags < 2; ++bags) {
            DoorOpening opening;
            opening.startMs = 17 * kHourMs + random.whole(0, static_cast<int>(2 * kHourMs));
            opening.endMs = opening.startMs + random.whole(45'000, 90'000);
            opening.goodsJoule = random.between(50'000, 110'000);
            fridge.push_back(opening);
        }
    }
    std::vector<DoorOpening> freezer(static_cast<std::size_t>(random.whole(4, 8)));
    for (DoorOpening &opening : freezer) {
        opening.compartment = Compartment::Freezer;
        opening.startMs = someTime(random);
        opening.endMs = opening.startMs + random.whole(6'000, 18'000);
        opening.takesIce = random.unit() < 0.7;
    }
    moveApart(fridge);
    moveApart(freezer);
    std::vector<DoorOpening> all(fridge.size() + freezer.size());
    std::merge(fridge.begin(), fridge.end(), freezer.begin(), freezer.end(), all.begin(),
               [](const DoorOpening &a, const DoorOpening &b) { return a.startMs < b.startMs; });
    return all;
}

void DoorTimes::begin(std::vector<DoorOpening> openings, TimeMs at) {
    openings_ = std::move(openings);
    next_ = 0;
    reach(at);
}

const DoorOpening *DoorTimes::reach(TimeMs at) {
    while (next_ < openings_.size() && openings_[next_].endMs <= at) {
        ++next_;
    }
    open_ = next_ < openings_.size() && openings_[next_].startMs <= at;
    return open_ && openings_[next_].startMs == at ? &openings_[next_] : nullptr;
}

void DoorTimes::close() {
    if (open_) {
        ++next_;
        open_ = false;
    }
}

TimeMs DoorTimes::nextChange() const {
    if (next_ == openings_.size()) {
        return kNever;
    }
    return open_ ? openings_[next_].endMs : openings_[next_].startMs;
}

} // namespace corvane::appliance
