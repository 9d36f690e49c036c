/*
 * The models between two lives. A command that waits when the service is killed is heard again in
 * the next life: the Micom knows nothing of the kill, and applying a command twice changes nothing.
 */
#include "appliance.h"

#include <algorithm>
#include <cstdio>

namespace corvane::lab {
namespace {

constexpr std::int64_t kLongestWaitMs = 15'000; // of a slow Micom

} // namespace

Appliance::Appliance(std::uint64_t seed, ApplianceMemory &memory, std::int64_t nowMs)
    : memory_(memory),
      refrigerator_(memory.isSettled ? appliance::Refrigerator(seed, memory.refrigerator)
                                     : appliance::Refrigerator(seed, nowMs)),
      micom_(refrigerator_, seed, nowMs), board_(refrigerator_), metering_(seed) {
    if (!memory.isSettled)
        return;
    micom_.restore(memory.micom);
    micom_.setFaults(memory.faults);
    for (const auto &command : memory.heard) {
        if (nowMs - command.at < kLongestWaitMs)
            (void)micom_.hear(command.text, nowMs);
    }
}

void Appliance::hear(const std::string &command, std::int64_t nowMs) {
    std::rotate(std::begin(memory_.heard), std::begin(memory_.heard) + 1, std::end(memory_.heard));
    auto &last = memory_.heard[ApplianceMemory::kMostCommands - 1];
    last.at = nowMs;
    std::snprintf(last.text, sizeof last.text, "%s", command.c_str());
    (void)micom_.hear(command, nowMs);
}

void Appliance::advance(std::int64_t nowMs, const Write &write) {
    for (const appliance::SettingsWrite &setting : micom_.advance(nowMs))
        write(setting.key, setting.value);
}

void Appliance::setFaults(const appliance::MicomFaults &faults) { micom_.setFaults(faults); }

bool Appliance::isFaulty() const {
    const appliance::MicomFaults &faults = micom_.faults();
    return faults.silent || faults.slow || faults.dropsCommands || faults.wrongEcho;
}

bool Appliance::takesFigure(const std::string &url, std::int64_t nowMs) {
    const std::size_t path = url.find(appliance::MeteringService::kPath);
    return path != url.npos && metering_.take("POST", url.substr(path), nowMs).status == 204;
}

void Appliance::keep() {
    memory_.isSettled = true;
    memory_.refrigerator = refrigerator_.memory();
    memory_.micom = micom_.memory();
    memory_.faults = micom_.faults();
}

} // namespace corvane::lab
