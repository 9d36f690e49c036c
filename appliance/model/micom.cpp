#include "micom.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "random.h"

namespace corvane::appliance {

namespace {

enum class Order { Level, Override, DefrostHold };

struct Command {
    std::string_view text;
    Order order;
    int value;
};

constexpr std::array<Command, 9> kCommands = {{
    {"SET_SMARTGRID_LEVEL_NORMAL", Order::Level, 0},
    {"SET_SMARTGRID_LEVEL1", Order::Level, 1},
    {"SET_SMARTGRID_LEVEL2", Order::Level, 2},
    {"SET_SMARTGRID_LEVEL3", Order::Level, 3},
    {"SET_SMARTGRID_LEVEL4", Order::Level, 4},
    {"SET_SMARTGRID_OVERRIDE_FOREVER", Order::Override, 1},
    {"SET_SMARTGRID_OVERRIDE_OFF", Order::Override, 0},
    {"SET_SMARTGRID_ENABLE", Order::DefrostHold, 1},
    {"SET_SMARTGRID_DISABLE", Order::DefrostHold, 0},
}};

} // namespace

Micom::Micom(Refrigerator &refrigerator, std::uint64_t seed, TimeMs now)
    : refrigerator_(refrigerator), seed_(seed) {
    memory_.at = now;
    memory_.nextPublicationAt = now + kPublicationMs;
    memory_.reportedLevel = refrigerator.level();
    memory_.reportedOverride = refrigerator.override() ? 1 : 0;
    memory_.publishedCounts = countsUsed();
}

Heard Micom::hear(std::string_view command, TimeMs now) {
    if (!alive()) {
        return Heard::Deaf;
    }
    if (faults_.dropsCommands) {
        dropNext_ = !dropNext_;
        if (!dropNext_) {
            return Heard::Dropped;
        }
    }
    const auto *known =
        std::find_if(kCommands.begin(), kCommands.end(),
                     [command](const Command &candidate) { return candidate.text == command; });
    if (known == kCommands.end()) {
        return Heard::Unknown;
    }
    if (waiting_.size() == kMostWaiting) {
        return Heard::Overrun;
    }
    Random random(seed_, Draw::CommandTime, memory_.draws++);
    TimeMs at = now + (faults_.slow ? random.whole(5'000, 15'000) : random.whole(100, 800));
    if (!waiting_.empty()) {
        at = std::max(at, waiting_.back().at);
    }
    waiting_.push_back({at, static_cast<std::size_t>(known - kCommands.begin())});
    return Heard::Accepted;
}

TimeMs Micom::nextAt() const {
    if (bootedAt_) {
        return *bootedAt_;
    }
    return waiting_.empty() ? memory_.nextPublicationAt
                            : std::min(memory_.nextPublicationAt, waiting_.front().at);
}

std::vector<SettingsWrite> Micom::advance(TimeMs now) {
    std::vector<SettingsWrite> writes;
    if (clockWasSet(memory_.at, now)) {
        followSetClock(now);
    }
    while (nextAt() <= now) {
        const TimeMs at = nextAt();
        if (at > refrigerator_.at()) { // its owner may have advanced it already
            refrigerator_.advance(at);
        }
        if (bootedAt_) {
            bootedAt_.reset();
            reportDue_ = true;
        } else if (!waiting_.empty() && waiting_.front().at == at) {
            apply(waiting_.front());
            waiting_.pop_front();
            report(at, writes);
        } else {
            // One publication tells what a long gap has used.
            memory_.nextPublicationAt += kPublicationMs;
            if (memory_.nextPublicationAt > now) {
                publish(at, writes);
            }
        }
        if (reportDue_) {
            report(at, writes);
        }
    }
    refrigerator_.advance(now);
    if (reportDue_) {
        report(now, writes);
    }
    memory_.at = now;
    return writes;
}

void Micom::followSetClock(TimeMs now) {
    refrigerator_.advance(now);
    memory_.nextPublicationAt = now + kPublicationMs;
    for (Waiting &waiting : waiting_) {
        waiting.at = now;
    }
    if (bootedAt_) {
        bootedAt_ = now;
    }
}

void Micom::apply(const Waiting &waiting) {
    const Command &command = kCommands.at(waiting.command);
    switch (command.order) {
    case Order::Level:
        refrigerator_.setLevel(command.value, waiting.at);
        break;
    case Order::Override:
        refrigerator_.setOverride(command.value == 1, waiting.at);
        break;
    case Order::DefrostHold:
        refrigerator_.setDefrostHold(command.value == 1, waiting.at);
        break;
    }
}

void Micom::report(TimeMs at, std::vector<SettingsWrite> &writes) {
    if (!alive()) {
        return;
    }
    reportDue_ = false;
    const int level = refrigerator_.level();
    const int toldLevel = faults_.wrongEcho ? (level + 1) % (kHighestLevel + 1) : level;
    if (toldLevel != memory_.reportedLevel) {
        memory_.reportedLevel = toldLevel;
        writes.push_back({at, kLevelKey, toldLevel});
    }
    const int override = refrigerator_.override() ? 1 : 0;
    if (override != memory_.reportedOverride) {
        memory_.reportedOverride = override;
        writes.push_back({at, kOverrideKey, override});
    }
}

std::int64_t Micom::countsUsed() const {
    return static_cast<std::int64_t>(std::floor(refrigerator_.micomEnergyWh() / kCountWh));
}

void Micom::publish(TimeMs at, std::vector<SettingsWrite> &writes) {
    if (!alive()) {
        return;
    }
    const std::int64_t used = countsUsed();
    const auto counts = static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(used - memory_.publishedCounts, 0, INT32_MAX));
    memory_.publishedCounts = used;
    for (std::size_t place = 0; place < kEnergyKeys.size(); ++place) {
        const std::uint32_t byte = (counts >> (8 * (kEnergyKeys.size() - 1 - place))) & 255U;
        writes.push_back({at, kEnergyKeys.at(place), static_cast<int>(byte)});
    }
}

void Micom::restart(TimeMs now) {
    refrigerator_.restartControl(now);
    waiting_.clear();
    memory_.publishedCounts = countsUsed();
    bootedAt_ = now + kBootMs;
}

void Micom::setFaults(const MicomFaults &faults) {
    if (faults_.silent && !faults.silent) {
        reportDue_ = true;
    }
    if (!faults_.dropsCommands && faults.dropsCommands) {
        dropNext_ = true;
    }
    faults_ = faults;
}

void Micom::restore(const MicomMemory &memory) {
    memory_ = memory;
    waiting_.clear();
    bootedAt_.reset();
    reportDue_ = false;
}

} // namespace corvane::appliance
