/*
 * The whole refrigerator: cabinet, compressor, heaters, ice maker, defrost, the household and the
 * control that decides between them under a demand-response level.
 *
 * It lives in steps that end on a grid of ten seconds, at each door opening and at each order, and
 * decides at the end of each. What it shows between is the last step's end, with power constant
 * since. So it does not matter how often advance() is called, and orders act at once.
 *
 * No clock, no thread, no input or output. One thread at a time.
 */
#ifndef CORVANE_APPLIANCE_MODEL_REFRIGERATOR_H
#define CORVANE_APPLIANCE_MODEL_REFRIGERATOR_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "cabinet.h"
#include "defrost.h"
#include "household.h"
#include "model_time.h"
#include "parameters.h"

namespace corvane::appliance {

inline constexpr int kHighestLevel = 4;

/*
 * What the cabinet does at present. Normal; Delay, Moderate, Strong, Off: levels 1 to 4; Override:
 * a level is in force, and an override lets the cabinet cool normally all the same; Returning: the
 * level has ended, and normal operation is coming back.
 */
enum class Mode { Normal, Delay, Moderate, Strong, Off, Override, Returning };

/* The name that people and programs see: "normal", "delay" … */
[[nodiscard]] const char *modeName(Mode mode);

/* A snapshot for people: what the page shows. */
struct RefrigeratorState {
    TimeMs at = 0;
    double powerWatt = 0;      // of the whole appliance, display board included
    double energyWh = 0;       // of the whole appliance since the model's beginning, up to `at`
    double fridgeCelsius = 0;  // air
    double freezerCelsius = 0; // air
    double fridgeFoodCelsius = 0;
    double freezerFoodCelsius = 0;
    double fridgeSetCelsius = 0; // in force, with what the level adds
    double freezerSetCelsius = 0;
    double ambientCelsius = 0;
    struct {
        bool on = false;
        double capacity = 0; // 0 when off, else up to 1
        double watt = 0;
        /* Why it does not do what the thermostats want, such as "minimum off time, 2:10 left". */
        std::optional<std::string> reason;
    } compressor;
    bool fanOn = false;
    bool antiSweatOn = false;
    bool iceMakerOn = false; // freezes or harvests a batch, and no level holds it
    double displayWatt = 0;
    struct {
        bool heaterOn = false;
        bool held = false; // a hold is in force: ordered, or as a part of a level
        bool due = false;
        std::optional<TimeMs> heldSinceAt;
        double nextInCompressorHours = 0; // 0 when due or running
    } defrost;
    struct {
        bool fridgeOpen = false;
        bool freezerOpen = false;
    } doors;
    Mode mode = Mode::Normal;
    bool foodLimitActive = false; // a level is set aside, or food would become too warm
};

enum class IceStage { Idle, Freezing, Frozen, Harvesting };

/* Everything that survives a restart, as plain values. memory.h makes text of it and back. */
struct RefrigeratorMemory {
    TimeMs at = 0; // of these values
    Temperatures temperatures;
    double goodsJoule = 0;
    Defrost::Memory defrost;
    bool freezerCalls = false; // thermostats
    bool fridgeCalls = false;  // opens the damper too
    bool compressorOn = false;
    double compressorPhaseSec = 0; // since it was last switched on or off
    double capacity = 0;
    int iceStage = 0;  // as IceStage
    int iceWanted = 0; // batches that are still to be made
    double iceStageLeftSec = 0;
    double displayLitLeftSec = 0;
    double energyWh = 0;
    double displayEnergyWh = 0; // its share of energyWh
    int level = 0;
    bool override = false;
    bool defrostHold = false;
    bool held = false;    // by defrostHold or a level
    TimeMs heldSince = 0; // meaningful while held
    bool foodLimitActive = false;
    double levelSec = 0;         // since the level was last 0
    double strongSec = 0;        // since it was last below 3
    int returnFrom = 0;          // level that has ended; 0: no return is under way
    double returnSec = 0;        // since it has ended
    double returnDelaySec = 0;   // how long its set-points stay on
    double returnRampSec = 0;    // and how long normal operation then takes to come back
    double extrasWaitSec = 0;    // how long a return still holds defrost and ice maker
    std::uint64_t draws = 0;     // random numbers used
    bool fridgeHandOpen = false; // opened by hand, beside the household
    bool freezerHandOpen = false;
};

class Refrigerator {
public:
    /* Begins at `now` in a settled state, at a place of its cycle drawn from `seed`. */
    Refrigerator(std::uint64_t seed, TimeMs now, const Parameters &parameters = {});
    /* Goes on from what restore() takes, without the time that settling takes. */
    Refrigerator(std::uint64_t seed, const RefrigeratorMemory &memory,
                 const Parameters &parameters = {});

    /*
     * Lives up to `now`, in any number of steps and of any length: two runs with the same orders at
     * the same times are equal to the bit. A clock that was set (clockWasSet) only moves the time:
     * nothing is cooled, counted or used. Every operation below with a `now` advances first; a
     * `now` before the time reached counts as the time reached.
     */
    void advance(TimeMs now);

    /* Orders, as the Micom understands them. A level outside 0 to 4 changes nothing. */
    void setLevel(int level, TimeMs now);
    void setOverride(bool on, TimeMs now);
    void setDefrostHold(bool on, TimeMs now);
    /*
     * What a restart of the control does: level, override and hold fall back to none without the
     * spread return, and the compressor goes off for its minimum time.
     */
    void restartControl(TimeMs now);

    /*
     * A door opened or closed by hand. The household's own openings go on beside it; one that is
     * going on ends with the door's closing.
     */
    void setDoor(Compartment compartment, bool open, TimeMs now);
    /* Lights the display for its usual time, as a touch of a button does. */
    void lightDisplay(TimeMs now);

    /* The kitchen and the place. Local time drives the household and the ambient's day curve. */
    void setUtcOffsetSec(int offsetSec);
    void setAmbientMeanCelsius(double celsius);
    /* Off: nobody opens a door but by hand, no shopping, no ice (laboratory conditions). */
    void setHouseholdPresent(bool present);

    [[nodiscard]] RefrigeratorState state() const;
    /* The same values one by one, cheap enough for each step of a long run. */
    [[nodiscard]] TimeMs at() const { return now_; }
    [[nodiscard]] double powerWatt() const { return micomWatt_ + displayWatt_; }
    [[nodiscard]] double displayWatt() const { return displayWatt_; }
    [[nodiscard]] double energyWh() const { return memory_.energyWh; }
    /* Energy of everything but the display board, which reports its own. */
    [[nodiscard]] double micomEnergyWh() const {
        return memory_.energyWh - memory_.displayEnergyWh;
    }
    [[nodiscard]] const Temperatures &temperatures() const { return cabinet_.temperatures(); }
    [[nodiscard]] const Defrost &defrost() const { return defrost_; }
    [[nodiscard]] bool compressorOn() const { return memory_.compressorOn; }
    [[nodiscard]] double compressorCapacity() const { return memory_.capacity; }
    [[nodiscard]] int level() const { return memory_.level; }
    [[nodiscard]] bool override() const { return memory_.override; }
    [[nodiscard]] Mode mode() const;

    /* What is needed to go on after a restart. restore() takes it as it is (check what comes from
     * a file with memory.h) and the next advance() lives through the time in between. */
    [[nodiscard]] RefrigeratorMemory memory() const;
    void restore(const RefrigeratorMemory &memory);

private:
    static constexpr TimeMs kNoTime = INT64_MIN / 2;

    /* What a level makes of the thermostats and switches at this moment. */
    struct Wishes {
        double fridgeSetCelsius;
        double freezerSetCelsius;
        double capacityLimit; // 0: the compressor shall be off
        bool extrasHeld;      // defrost, ice maker and anti-sweat heater
    };

    void reach(TimeMs now);
    void stepTo(TimeMs end);
    void passTimers(double sec);
    void passIce(double sec);
    void followHousehold();
    void findPlan();
    void followAmbient();
    void opened(const DoorOpening &opening);
    void resumeCooling();
    void control();
    void controlFoodLimit();
    void controlDefrost(const Wishes &wishes);
    void controlCompressor(const Wishes &wishes);
    void controlIce();
    void switchOutputs(const Wishes &wishes);
    [[nodiscard]] bool returnDelayed() const;
    [[nodiscard]] int effectiveLevel() const;
    [[nodiscard]] bool wantsCooling() const;
    [[nodiscard]] bool iceHeld() const;
    [[nodiscard]] Wishes wishes() const;
    [[nodiscard]] double ambientAt(TimeMs localMs) const;
    [[nodiscard]] std::optional<std::string> compressorReason() const;

    Parameters parameters_;
    std::uint64_t seed_;
    Household household_;
    Cabinet cabinet_;
    Defrost defrost_;
    RefrigeratorMemory memory_; // but for what cabinet_, defrost_ and now_ hold
    TimeMs now_ = 0;            // end of the last step
    TimeMs utcOffsetMs_ = 0;
    bool householdPresent_ = true;

    // The household's doors: its plan of one local day, and the next opening of each door in it.
    std::int64_t planDay_ = INT64_MIN;
    std::array<DoorTimes, 2> doors_;
    TimeMs ambientFromMs_ = kNoTime; // local time from which inputs_.ambientCelsius holds

    // What is switched on since the last step's end.
    CabinetInputs inputs_;
    Wishes wishes_{};
    double compressorWatt_ = 0;
    double micomWatt_ = 0;
    double displayWatt_ = 0;
};

} // namespace corvane::appliance

#endif
