/*
 * The appliance around the service, as the settings store sees it: the models of the virtual
 * appliance, driven on the world's own steady time, and what of them goes on in the next life.
 */
#ifndef CORVANE_LAB_APPLIANCE_H
#define CORVANE_LAB_APPLIANCE_H

#include "draws.h"

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::lab {

struct MicomFaults {
    bool silent = false;
    bool slow = false;
    bool dropsCommands = false;
    bool wrongEcho = false;
};

class Appliance {
public:
    using Write = std::function<void(const char *key, int value)>;

    Appliance(std::uint64_t seed, std::int64_t nowMs) : draws_(seed), publishAt_(nowMs + 60'000) {}

    void hear(const std::string &command, std::int64_t nowMs);
    void advance(std::int64_t nowMs, const Write &write);
    std::int64_t nextAt() const;
    void restart(std::int64_t nowMs);

    void setFaults(const MicomFaults &faults) { faults_ = faults; }
    int reportedLevel() const { return reportedLevel_; }
    bool isFaulty() const {
        return faults_.silent || faults_.slow || faults_.dropsCommands || faults_.wrongEcho;
    }

private:
    static constexpr int kMost = 64;

    struct Waiting {
        std::int64_t at;
        int command;
    };

    Draws draws_;
    MicomFaults faults_;
    std::int64_t publishAt_;
    std::int64_t bootedAt_ = 0;
    Waiting waiting_[kMost] = {};
    int waitingCount_ = 0;
    bool dropNext_ = true;
    int level_ = 0;
    int override_ = 0;
    int reportedLevel_ = -1;
    int reportedOverride_ = 0;
};

} // namespace corvane::lab

#endif
