/*
 * The defrost cycle: due after so many hours of compressor time, fewer when doors were open much;
 * then the heater runs, then the evaporator drips, and counting begins anew. While it is held a
 * due cycle waits; one cycle runs when the hold ends, however many would have been due. A hold
 * counts no more when the compressor has run past a safety limit, since ice then blocks the ducts.
 *
 * Time is counted here, not read: steps of the clock change nothing.
 */
#ifndef CORVANE_APPLIANCE_MODEL_DEFROST_H
#define CORVANE_APPLIANCE_MODEL_DEFROST_H

#include "parameters.h"

namespace corvane::appliance {

class Defrost {
public:
    enum class Phase { Counting, Heating, Dripping };

    /* What survives a restart. */
    struct Memory {
        double compressorSec = 0; // since the last cycle
        double doorOpenSec = 0;   // since the last cycle
        double phaseLeftSec = 0;  // of heating or dripping
        int phase = 0;            // as Phase
        int cycles = 0;           // completed since the model's beginning
    };

    explicit Defrost(const Parameters &parameters) : parameters_(parameters) {}

    /* Passes time in which the compressor and a door were as told throughout. */
    void pass(double sec, bool compressorOn, bool doorOpen);
    /* Starts a cycle when one is due and neither held nor `inhibited` (the compressor may not stop
     * yet, the freezer has to recover first). The safety limit overrules `held`, not `inhibited`.
     */
    void control(bool held, bool inhibited);

    /* Switches the heater off in the middle of a cycle, which is then due again as a whole. */
    void interrupt();

    [[nodiscard]] Phase phase() const { return static_cast<Phase>(memory_.phase); }
    [[nodiscard]] bool heaterOn() const { return phase() == Phase::Heating; }
    [[nodiscard]] bool active() const { return phase() != Phase::Counting; }
    [[nodiscard]] bool due() const { return phase() == Phase::Counting && leftSec() <= 0; }
    /* Compressor time until the next cycle is due; 0 when it is due or runs. */
    [[nodiscard]] double leftSec() const;
    /* Compressor time past the safety limit; 0 before it. */
    [[nodiscard]] double overdueSec() const;
    /* Time until heating or dripping ends; 0 when neither runs. */
    [[nodiscard]] double phaseLeftSec() const { return memory_.phaseLeftSec; }
    [[nodiscard]] int cycles() const { return memory_.cycles; }
    [[nodiscard]] const Memory &memory() const { return memory_; }
    void restore(const Memory &memory) { memory_ = memory; }

private:
    [[nodiscard]] double frostShare() const;

    Parameters parameters_;
    Memory memory_;
};

} // namespace corvane::appliance

#endif
