/*
 * The refrigerator's micro-controller as the settings store sees it: commands come in as texts in
 * order, each is applied a little later, and what has changed is reported by writing keys. Every
 * minute it publishes the energy that the appliance, without the display board, has used since.
 *
 * It advances the refrigerator that it controls, so an owner need advance only the Micom. One
 * thread at a time; no clock, no input or output.
 */
#ifndef CORVANE_APPLIANCE_MODEL_MICOM_H
#define CORVANE_APPLIANCE_MODEL_MICOM_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <vector>

#include "model_time.h"
#include "refrigerator.h"
#include "settings_write.h"

namespace corvane::appliance {

/* What became of a command. Only an accepted one is applied. */
enum class Heard {
    Accepted,
    Unknown, // not a command of this Micom; ignored
    Dropped, // lost, by the fault that drops commands
    Deaf,    // the Micom is silent or starting
    Overrun  // more commands wait than it can hold (kMostWaiting); lost
};

/* Faults that stay until they are switched off. A restart is an operation of its own. */
struct MicomFaults {
    bool silent = false;        // hears nothing, writes nothing; the refrigerator goes on
    bool slow = false;          // applies after 5 to 15 s instead of 0.1 to 0.8 s
    bool dropsCommands = false; // loses every second command, the next one first
    bool wrongEcho = false;     // reports another level than it has applied
};

/* Plain values that survive a restart of the program. Commands that wait do not. */
struct MicomMemory {
    TimeMs at = 0;
    TimeMs nextPublicationAt = 0;
    int reportedLevel = 0; // what the keys hold
    int reportedOverride = 0;
    std::int64_t publishedCounts = 0; // of the refrigerator's micomEnergyWh()
    std::uint64_t draws = 0;
};

class Micom {
public:
    static constexpr double kCountWh = 0.01; // one count of the published energy
    static constexpr TimeMs kPublicationMs = 60'000;
    static constexpr TimeMs kBootMs = 3'000; // it is deaf and mute for so long after a restart
    static constexpr std::size_t kMostWaiting = 64;

    /*
     * Controls `refrigerator`, which must outlive it. The keys are taken to hold what the
     * refrigerator is in (level, override), so a start writes nothing.
     */
    Micom(Refrigerator &refrigerator, std::uint64_t seed, TimeMs now);

    /* Takes one value of the command key. It is applied by an advance() 0.1 to 0.8 s later, never
     * before a command heard earlier. */
    Heard hear(std::string_view command, TimeMs now);

    /*
     * Lives up to `now`, the refrigerator included, and returns what is to be written, in order:
     * level and override when what they should tell differs from what was last written; each
     * kPublicationMs the four bytes of the energy counts since the last publication (one
     * publication, with everything, after a long gap; the fraction of a count is carried). A clock
     * that was set delays nothing: waiting commands are applied at once.
     */
    [[nodiscard]] std::vector<SettingsWrite> advance(TimeMs now);

    /* The time at which advance() has something to do next. */
    [[nodiscard]] TimeMs nextAt() const;

    /* Like a power cut of the control: waiting commands and the unpublished energy are lost; level,
     * override and defrost hold are none, and are reported so after kBootMs. */
    void restart(TimeMs now);

    void setFaults(const MicomFaults &faults);
    [[nodiscard]] const MicomFaults &faults() const { return faults_; }
    /* Whether it hears and writes at present. */
    [[nodiscard]] bool alive() const { return !faults_.silent && !bootedAt_; }

    [[nodiscard]] const MicomMemory &memory() const { return memory_; }
    /* After the refrigerator's restore(). */
    void restore(const MicomMemory &memory);

private:
    struct Waiting {
        TimeMs at;
        std::size_t command; // index into the table of commands
    };

    [[nodiscard]] std::int64_t countsUsed() const;
    void followSetClock(TimeMs now);
    void apply(const Waiting &waiting);
    void report(TimeMs at, std::vector<SettingsWrite> &writes);
    void publish(TimeMs at, std::vector<SettingsWrite> &writes);

    Refrigerator &refrigerator_;
    std::uint64_t seed_;
    MicomMemory memory_;
    MicomFaults faults_;
    std::deque<Waiting> waiting_;
    std::optional<TimeMs> bootedAt_; // end of a restart under way
    bool dropNext_ = true;
    bool reportDue_ = false; // what happened while it was silent
};

} // namespace corvane::appliance

#endif
