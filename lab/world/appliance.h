/*
 * The appliance around the service, as the settings store sees it: the models of the virtual
 * appliance, driven on the world's own steady time, and what of them goes on in the next life of
 * the service.
 */
#ifndef CORVANE_LAB_APPLIANCE_H
#define CORVANE_LAB_APPLIANCE_H

#include "display_board.h"
#include "metering.h"
#include "micom.h"
#include "refrigerator.h"

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::lab {

/* What outlives a life of the service; plain values. */
struct ApplianceMemory {
    bool isSettled = false; // the rest is there
    appliance::RefrigeratorMemory refrigerator;
    appliance::MicomMemory micom;
    appliance::MicomFaults faults;
    /* The last commands heard, oldest first: some may still be waiting to be applied. */
    static constexpr int kMostCommands = 8;
    struct {
        std::int64_t at = 0;
        char text[40] = "";
    } heard[kMostCommands];
};

class Appliance {
public:
    using Write = std::function<void(const char *key, int value)>;

    /* Goes on from the memory, or begins. nowMs: true time since the epoch, here and below. */
    Appliance(std::uint64_t seed, ApplianceMemory &memory, std::int64_t nowMs);
    Appliance(const Appliance &) = delete;
    Appliance &operator=(const Appliance &) = delete;

    void hear(const std::string &command, std::int64_t nowMs);
    void advance(std::int64_t nowMs, const Write &write);
    std::int64_t nextAt() const { return micom_.nextAt(); }
    void restart(std::int64_t nowMs) { micom_.restart(nowMs); }
    void setFaults(const appliance::MicomFaults &faults);
    bool isFaulty() const;
    /* Whether the metering service of the device takes what was posted to the URL. */
    bool takesFigure(const std::string &url, std::int64_t nowMs);

    int reportedLevel() const { return micom_.memory().reportedLevel; }
    /* The display board's own power, in its counts. */
    int displayReading() const { return board_.reading(); }
    const appliance::Refrigerator &refrigerator() const { return refrigerator_; }

    /* At the end of a life. */
    void keep();

private:
    ApplianceMemory &memory_;
    appliance::Refrigerator refrigerator_;
    appliance::Micom micom_;
    appliance::DisplayBoard board_;
    appliance::MeteringService metering_;
};

} // namespace corvane::lab

#endif
