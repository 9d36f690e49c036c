/*
 * The Micom in small: it applies commands after a while, reports changes, publishes energy.
 */
#include "appliance.h"

#include <algorithm>

namespace corvane::lab {
namespace {

constexpr const char *kCommands[] = {"SET_SMARTGRID_LEVEL_NORMAL",    "SET_SMARTGRID_LEVEL1",
                                     "SET_SMARTGRID_LEVEL2",          "SET_SMARTGRID_LEVEL3",
                                     "SET_SMARTGRID_LEVEL4",          "SET_SMARTGRID_OVERRIDE_OFF",
                                     "SET_SMARTGRID_OVERRIDE_FOREVER"};
constexpr int kFirstOverride = 5;

} // namespace

void Appliance::hear(const std::string &command, std::int64_t nowMs) {
    const auto *found = std::find(std::begin(kCommands), std::end(kCommands), command);
    if (found == std::end(kCommands) || faults_.silent || bootedAt_ > nowMs ||
        waitingCount_ == kMost)
        return;
    if (faults_.dropsCommands) {
        dropNext_ = !dropNext_;
        if (!dropNext_)
            return;
    }
    const std::int64_t takes = faults_.slow ? draws_.whole(5'000, 15'000) : draws_.whole(100, 800);
    const std::int64_t before = waitingCount_ > 0 ? waiting_[waitingCount_ - 1].at : 0;
    waiting_[waitingCount_++] = {std::max(before, nowMs + takes),
                                 static_cast<int>(found - std::begin(kCommands))};
}

void Appliance::advance(std::int64_t nowMs, const Write &write) {
    while (waitingCount_ > 0 && waiting_[0].at <= nowMs) {
        const int command = waiting_[0].command;
        std::copy(waiting_ + 1, waiting_ + waitingCount_, waiting_);
        --waitingCount_;
        (command < kFirstOverride ? level_ : override_) =
            command < kFirstOverride ? command : command - kFirstOverride;
    }
    const bool speaks = !faults_.silent && bootedAt_ <= nowMs;
    const int shown = faults_.wrongEcho ? (level_ + 1) % 5 : level_;
    if (speaks && shown != reportedLevel_) {
        reportedLevel_ = shown;
        write("memory/refrigerator/SmartGridDrLevel", shown);
    }
    if (speaks && override_ != reportedOverride_) {
        reportedOverride_ = override_;
        write("memory/refrigerator/SmartGridOverrideState", override_);
    }
    if (nowMs >= publishAt_) {
        publishAt_ = nowMs + 60'000;
        const int counts = draws_.whole(60, 250);
        if (speaks) {
            write("memory/refrigerator/SmartGridWatt1", 0);
            write("memory/refrigerator/SmartGridWatt2", 0);
            write("memory/refrigerator/SmartGridWatt3", counts >> 8);
            write("memory/refrigerator/SmartGridWatt4", counts & 255);
        }
    }
}

std::int64_t Appliance::nextAt() const {
    return waitingCount_ > 0 ? std::min(publishAt_, waiting_[0].at) : publishAt_;
}

void Appliance::restart(std::int64_t nowMs) {
    waitingCount_ = 0;
    level_ = 0;
    override_ = 0;
    bootedAt_ = nowMs + 3'000;
}

} // namespace corvane::lab
