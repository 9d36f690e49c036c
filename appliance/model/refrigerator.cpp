/*
 * In this order: life in steps, the household, orders, the control that decides at the end of each
 * step, and what is shown and kept.
 */
#include "refrigerator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "random.h"

namespace corvane::appliance {

namespace {

constexpr TimeMs kStepMs = 10'000;
constexpr int kStrongLevel = 3; // the first whose beginning has to be felt at once
constexpr double kSecPerHour = 3600;

constexpr TimeMs floorDiv(TimeMs a, TimeMs b) { return a / b - (a % b < 0 ? 1 : 0); }

double secBetween(TimeMs from, TimeMs to) {
    return static_cast<double>(to - from) / static_cast<double>(kMsPerSec);
}

/* A wave of period 1 between -1 and 1, with its top at 0: two parabolas, within 6 % of the cosine
 * and made of plain arithmetic, which gives the same bits everywhere. */
double wave(double phase) {
    const double x = phase - std::floor(phase) - 0.5; // bottom at 0
    return std::abs(x) < 0.25 ? 16 * x * x - 1 : 1 - 16 * (0.5 - std::abs(x)) * (0.5 - std::abs(x));
}

std::string withTimeLeft(const char *text, double sec) {
    const int left = static_cast<int>(std::ceil(sec));
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%s, %d:%02d left", text, left / 60, left % 60);
    return buffer;
}

/* A thermostat: calls above the band, no more below it, and stays as it is within. */
bool calls(bool called, double celsius, double set, double band) {
    return called ? celsius > set - band : celsius > set + band;
}

} // namespace

const char *modeName(Mode mode) {
    switch (mode) {
    case Mode::Normal:
        return "normal";
    case Mode::Delay:
        return "delay";
    case Mode::Moderate:
        return "moderate";
    case Mode::Strong:
        return "strong";
    case Mode::Off:
        return "off";
    case Mode::Override:
        return "override";
    case Mode::Returning:
        return "returning";
    }
    return "normal";
}

Refrigerator::Refrigerator(std::uint64_t seed, TimeMs now, const Parameters &parameters)
    : parameters_(parameters), seed_(seed), household_(seed), cabinet_(parameters),
      defrost_(parameters) {
    // A day and a half before the beginning, of which nothing is counted, settles everything.
    Random random(seed_, Draw::Beginning);
    defrost_.restore({.compressorSec = random.between(0, parameters_.defrostIntervalShortestSec)});
    now_ = now - kMsPerDay - random.whole(0, static_cast<int>(kMsPerDay));
    memory_.compressorPhaseSec = parameters_.minimumOffSec;
    findPlan();
    control();
    advance(now);
    memory_.energyWh = 0;
    memory_.displayEnergyWh = 0;
    Defrost::Memory settled = defrost_.memory();
    settled.cycles = 0;
    defrost_.restore(settled);
}

Refrigerator::Refrigerator(std::uint64_t seed, const RefrigeratorMemory &memory,
                           const Parameters &parameters)
    : parameters_(parameters), seed_(seed), household_(seed), cabinet_(parameters),
      defrost_(parameters) {
    restore(memory);
}

// --- Life in steps

void Refrigerator::advance(TimeMs now) {
    if (clockWasSet(now_, now)) {
        now_ = now;
        findPlan();
        control();
        return;
    }
    for (;;) {
        TimeMs next = (floorDiv(now_, kStepMs) + 1) * kStepMs;
        if (householdPresent_) {
            for (const DoorTimes &door : doors_) {
                if (door.nextChange() != DoorTimes::kNever) {
                    next = std::min(next, planDay_ * kMsPerDay + door.nextChange() - utcOffsetMs_);
                }
            }
        }
        if (next > now) {
            return;
        }
        stepTo(next);
    }
}

/* Lives up to an order's time, between the grid's points too. */
void Refrigerator::reach(TimeMs now) {
    if (now > now_) {
        advance(now);
    }
    if (now > now_) {
        stepTo(now);
    }
}

void Refrigerator::stepTo(TimeMs end) {
    const double sec = secBetween(now_, end);
    cabinet_.pass(sec, inputs_);
    memory_.energyWh += powerWatt() * sec / kSecPerHour;
    memory_.displayEnergyWh += displayWatt_ * sec / kSecPerHour;
    defrost_.pass(sec, memory_.compressorOn, inputs_.fridgeDoorOpen || inputs_.freezerDoorOpen);
    passTimers(sec);
    passIce(sec);
    now_ = end;
    followHousehold();
    control();
}

void Refrigerator::passTimers(double sec) {
    memory_.compressorPhaseSec += sec;
    memory_.displayLitLeftSec = std::max(0.0, memory_.displayLitLeftSec - sec);
    memory_.extrasWaitSec = std::max(0.0, memory_.extrasWaitSec - sec);
    if (memory_.level > 0) {
        memory_.levelSec += sec;
    }
    if (memory_.level >= kStrongLevel) {
        memory_.strongSec += sec;
    }
    if (memory_.returnFrom == 0) {
        return;
    }
    memory_.returnSec += sec;
    if (memory_.returnSec >= memory_.returnDelaySec + memory_.returnRampSec) {
        memory_.returnFrom = 0;
        resumeCooling();
    }
}

void Refrigerator::passIce(double sec) {
    memory_.iceStageLeftSec = std::max(0.0, memory_.iceStageLeftSec - sec);
    if (memory_.iceStageLeftSec > 0) {
        return;
    }
    if (memory_.iceStage == static_cast<int>(IceStage::Freezing)) {
        memory_.iceStage = static_cast<int>(IceStage::Frozen);
    } else if (memory_.iceStage == static_cast<int>(IceStage::Harvesting)) {
        memory_.iceStage = static_cast<int>(IceStage::Idle);
        --memory_.iceWanted;
    }
}

// --- The household and the kitchen

void Refrigerator::followHousehold() {
    if (!householdPresent_) {
        return;
    }
    const TimeMs local = now_ + utcOffsetMs_;
    if (floorDiv(local, kMsPerDay) != planDay_) {
        findPlan();
        return;
    }
    for (DoorTimes &door : doors_) {
        if (const DoorOpening *opening = door.reach(local - planDay_ * kMsPerDay)) {
            opened(*opening);
        }
    }
}

/* Finds the plan of the present local day, and the place in it. */
void Refrigerator::findPlan() {
    const TimeMs local = now_ + utcOffsetMs_;
    planDay_ = floorDiv(local, kMsPerDay);
    std::array<std::vector<DoorOpening>, 2> byDoor;
    for (const DoorOpening &opening : household_.plan(planDay_)) {
        byDoor.at(static_cast<std::size_t>(opening.compartment)).push_back(opening);
    }
    for (std::size_t door = 0; door < doors_.size(); ++door) {
        doors_.at(door).begin(std::move(byDoor.at(door)), local - planDay_ * kMsPerDay);
    }
}

void Refrigerator::opened(const DoorOpening &opening) {
    cabinet_.addWarmGoods(opening.goodsJoule);
    if (opening.takesIce && memory_.iceWanted < parameters_.iceBinBatches) {
        ++memory_.iceWanted;
    }
    memory_.displayLitLeftSec = parameters_.displayLitSec;
}

/* The kitchen's temperature, found anew every five minutes. */
void Refrigerator::followAmbient() {
    constexpr TimeMs kAmbientMs = 300'000;
    const TimeMs local = now_ + utcOffsetMs_;
    if (local < ambientFromMs_ || local >= ambientFromMs_ + kAmbientMs) {
        ambientFromMs_ = floorDiv(local, kAmbientMs) * kAmbientMs;
        inputs_.ambientCelsius = ambientAt(ambientFromMs_);
    }
}

double Refrigerator::ambientAt(TimeMs localMs) const {
    const TimeMs day = floorDiv(localMs, kMsPerDay);
    const double dayShare =
        static_cast<double>(localMs - day * kMsPerDay) / static_cast<double>(kMsPerDay);
    const auto difference = [this](TimeMs ofDay) {
        return Random(seed_, Draw::Ambient, static_cast<std::uint64_t>(ofDay)).between(-1, 1);
    };
    // From one midnight's difference to the next one's.
    const double dayToDay = difference(day) + (difference(day + 1) - difference(day)) * dayShare;
    return parameters_.ambientMeanCelsius + parameters_.ambientDayToDayKelvin * dayToDay +
           parameters_.ambientSwingKelvin * wave(dayShare - parameters_.ambientWarmestHour / 24);
}

void Refrigerator::setUtcOffsetSec(int offsetSec) {
    if (offsetSec * kMsPerSec != utcOffsetMs_) {
        utcOffsetMs_ = offsetSec * kMsPerSec;
        findPlan();
        control();
    }
}

void Refrigerator::setAmbientMeanCelsius(double celsius) {
    parameters_.ambientMeanCelsius = celsius;
    ambientFromMs_ = kNoTime;
    control();
}

void Refrigerator::setHouseholdPresent(bool present) {
    householdPresent_ = present;
    findPlan();
    control();
}

// --- Orders

void Refrigerator::setLevel(int level, TimeMs now) {
    if (level < 0 || level > kHighestLevel) {
        return;
    }
    reach(now);
    if (level == memory_.level) {
        return;
    }
    const int ended = effectiveLevel();
    memory_.level = level;
    if (level < kStrongLevel) {
        memory_.strongSec = 0;
    }
    memory_.returnFrom = 0;
    if (level == 0) {
        if (ended > 0) {
            // Each appliance of a fleet draws its own delay, or all would start at once. What a
            // short event has put off is little, and need not be spread far.
            Random random(seed_, Draw::Return, memory_.draws++);
            const double longest =
                std::min(parameters_.returnDelayLongestSec, memory_.levelSec / 2);
            memory_.returnFrom = ended;
            memory_.returnSec = 0;
            memory_.returnDelaySec = random.between(0, longest);
            memory_.returnRampSec = std::min(parameters_.returnRampLongestSec, memory_.levelSec);
            // So do the heaters of defrost and ice maker, which draw more than compressors do.
            memory_.extrasWaitSec =
                memory_.returnDelaySec +
                random.between(0, std::min(parameters_.returnExtrasLongestSec, memory_.levelSec));
        }
        memory_.levelSec = 0;
    }
    if (effectiveLevel() >= 2) {
        defrost_.interrupt();
    }
    control();
}

void Refrigerator::setOverride(bool on, TimeMs now) {
    reach(now);
    if (on == memory_.override) {
        return;
    }
    const bool slackened = effectiveLevel() > 0 || memory_.returnFrom > 0;
    memory_.override = on;
    if (on) {
        memory_.returnFrom = 0;
        memory_.extrasWaitSec = 0;
        if (slackened) {
            resumeCooling();
        }
    } else if (effectiveLevel() >= 2) {
        defrost_.interrupt();
    }
    control();
}

void Refrigerator::setDefrostHold(bool on, TimeMs now) {
    reach(now);
    memory_.defrostHold = on;
    control();
}

void Refrigerator::restartControl(TimeMs now) {
    reach(now);
    memory_.level = 0;
    memory_.levelSec = 0;
    memory_.strongSec = 0;
    memory_.override = false;
    memory_.defrostHold = false;
    memory_.returnFrom = 0;
    memory_.extrasWaitSec = 0;
    memory_.freezerCalls = false;
    memory_.fridgeCalls = false;
    memory_.compressorOn = false;
    memory_.compressorPhaseSec = 0;
    control();
}

void Refrigerator::setDoor(Compartment compartment, bool open, TimeMs now) {
    reach(now);
    bool &door =
        compartment == Compartment::Fridge ? memory_.fridgeHandOpen : memory_.freezerHandOpen;
    if (open && !door) {
        memory_.displayLitLeftSec = parameters_.displayLitSec;
    }
    door = open;
    if (!open) {
        doors_.at(static_cast<std::size_t>(compartment)).close();
    }
    control();
}

void Refrigerator::lightDisplay(TimeMs now) {
    reach(now);
    memory_.displayLitLeftSec = parameters_.displayLitSec;
    control();
}

/* Lets a cycle that a level has cut short go on, instead of waiting for the upper thresholds. */
void Refrigerator::resumeCooling() {
    memory_.freezerCalls = true;
    memory_.fridgeCalls = true;
}

// --- Control

int Refrigerator::effectiveLevel() const { return memory_.override ? 0 : memory_.level; }

bool Refrigerator::returnDelayed() const {
    return memory_.returnFrom > 0 && memory_.returnSec < memory_.returnDelaySec;
}

Mode Refrigerator::mode() const {
    if (memory_.level > 0) {
        return memory_.override ? Mode::Override : static_cast<Mode>(memory_.level);
    }
    return memory_.returnFrom > 0 ? Mode::Returning : Mode::Normal;
}

Refrigerator::Wishes Refrigerator::wishes() const {
    const Parameters &p = parameters_;
    const int level = returnDelayed() ? memory_.returnFrom : effectiveLevel();
    double share = 1; // of what the level adds to the set-points
    double limit = 1;
    int from = level;
    if (level == 0 && memory_.returnFrom > 0) {
        const double back =
            (memory_.returnSec - memory_.returnDelaySec) / std::max(1.0, memory_.returnRampSec);
        from = memory_.returnFrom;
        share = 1 - back;
        limit = p.returnCapacityLimit + (1 - p.returnCapacityLimit) * back;
    } else {
        const bool shedding = level >= kStrongLevel && memory_.strongSec < p.strongShedSec;
        limit = shedding ? 0 : p.levels.at(static_cast<std::size_t>(level)).capacityLimit;
    }
    if (memory_.foodLimitActive) {
        share = 0;
        const Temperatures &t = cabinet_.temperatures();
        const bool tooWarm = t.fridgeFood > p.fridgeFoodHighestCelsius ||
                             t.freezerFood > p.freezerFoodHighestCelsius;
        limit = tooWarm ? 1 : std::max(limit, p.returnCapacityLimit);
    }
    const LevelParameters &warmer = p.levels.at(static_cast<std::size_t>(from));
    return {.fridgeSetCelsius = p.fridgeSetCelsius + share * warmer.fridgeWarmerKelvin,
            .freezerSetCelsius = p.freezerSetCelsius + share * warmer.freezerWarmerKelvin,
            .capacityLimit = limit,
            .extrasHeld = level > 0};
}

void Refrigerator::control() {
    controlFoodLimit();
    wishes_ = wishes();
    controlDefrost(wishes_);
    controlCompressor(wishes_);
    controlIce();
    switchOutputs(wishes_);
}

void Refrigerator::controlFoodLimit() {
    const Parameters &p = parameters_;
    const double band = memory_.foodLimitActive ? p.foodGuardBandKelvin : 0;
    const Temperatures &t = cabinet_.temperatures();
    const bool slackened = effectiveLevel() > 0 || memory_.returnFrom > 0;
    // Without the defrost that is overdue, ice blocks the air; the freezer has to be cold for it.
    memory_.foodLimitActive = slackened && (t.fridgeFood > p.fridgeFoodGuardCelsius - band ||
                                            t.freezerFood > p.freezerFoodGuardCelsius - band ||
                                            defrost_.overdueSec() > 0);
}

void Refrigerator::controlDefrost(const Wishes &wishes) {
    const bool held = memory_.defrostHold || wishes.extrasHeld || memory_.extrasWaitSec > 0;
    if (held != memory_.held) {
        memory_.held = held;
        memory_.heldSince = now_;
    }
    const bool mayNotStop =
        memory_.compressorOn && memory_.compressorPhaseSec < parameters_.minimumOnSec;
    const bool recovering =
        cabinet_.temperatures().freezerFood > parameters_.defrostWarmestFoodCelsius &&
        defrost_.overdueSec() < parameters_.defrostRecoverySec;
    defrost_.control(held, mayNotStop || recovering);
}

void Refrigerator::controlCompressor(const Wishes &wishes) {
    const Parameters &p = parameters_;
    const Temperatures &t = cabinet_.temperatures();
    memory_.freezerCalls =
        calls(memory_.freezerCalls, t.freezerAir, wishes.freezerSetCelsius, p.freezerBandKelvin);
    memory_.fridgeCalls =
        calls(memory_.fridgeCalls, t.fridgeAir, wishes.fridgeSetCelsius, p.fridgeBandKelvin);

    const bool wanted = wantsCooling();
    if (wanted != memory_.compressorOn &&
        memory_.compressorPhaseSec >= (wanted ? p.minimumOffSec : p.minimumOnSec)) {
        memory_.compressorOn = wanted;
        memory_.compressorPhaseSec = 0;
        if (wanted) { // one start serves both compartments
            memory_.freezerCalls |= t.freezerAir > wishes.freezerSetCelsius;
            memory_.fridgeCalls |= t.fridgeAir > wishes.fridgeSetCelsius;
        }
    }
    if (!memory_.compressorOn) {
        memory_.capacity = 0;
        return;
    }
    const double above = std::max(t.freezerAir - wishes.freezerSetCelsius - p.freezerBandKelvin,
                                  t.fridgeAir - wishes.fridgeSetCelsius - p.fridgeBandKelvin);
    const double share = std::clamp(above / p.capacityFullKelvin, 0.0, 1.0);
    const double needed = p.smallestCapacity + (1 - p.smallestCapacity) * share;
    memory_.capacity = std::max(p.smallestCapacity, std::min(needed, wishes.capacityLimit));
}

bool Refrigerator::wantsCooling() const {
    return (memory_.freezerCalls || memory_.fridgeCalls) && !defrost_.active() &&
           wishes_.capacityLimit > 0;
}

bool Refrigerator::iceHeld() const { return wishes_.extrasHeld || memory_.extrasWaitSec > 0; }

void Refrigerator::controlIce() {
    const auto stage = static_cast<IceStage>(memory_.iceStage);
    const auto enter = [this](IceStage next, double sec) {
        memory_.iceStage = static_cast<int>(next);
        memory_.iceStageLeftSec = sec;
    };
    if (iceHeld()) {
        if (stage == IceStage::Harvesting) {
            enter(IceStage::Frozen, 0);
        }
    } else if (stage == IceStage::Frozen) {
        enter(IceStage::Harvesting, parameters_.iceHarvestSec);
    } else if (stage == IceStage::Idle && memory_.iceWanted > 0) {
        enter(IceStage::Freezing, parameters_.iceFreezeSec);
    }
}

/* Switches everything to what was decided, and adds up what it draws until the next step's end. */
void Refrigerator::switchOutputs(const Wishes &wishes) {
    const Parameters &p = parameters_;
    const auto stage = static_cast<IceStage>(memory_.iceStage);
    const double harvestWatt = stage == IceStage::Harvesting ? p.iceHarvestWatt : 0;
    const double freezeWatt = stage == IceStage::Freezing ? p.iceBatchJoule / p.iceFreezeSec : 0;

    followAmbient();
    inputs_.capacity = memory_.capacity;
    inputs_.fanOn = memory_.compressorOn;
    inputs_.damperOpen = memory_.fridgeCalls;
    inputs_.defrostHeaterOn = defrost_.heaterOn();
    inputs_.antiSweatOn = !wishes.extrasHeld;
    inputs_.fridgeDoorOpen = memory_.fridgeHandOpen || (householdPresent_ && doors_[0].isOpen());
    inputs_.freezerDoorOpen = memory_.freezerHandOpen || (householdPresent_ && doors_[1].isOpen());
    inputs_.iceHeatWatt = harvestWatt + freezeWatt;

    compressorWatt_ = cabinet_.compressorWatt(memory_.capacity, inputs_.ambientCelsius);
    micomWatt_ = p.mainBoardWatt + compressorWatt_ + harvestWatt + (inputs_.fanOn ? p.fanWatt : 0) +
                 (inputs_.antiSweatOn ? p.antiSweatWatt : 0) +
                 (inputs_.defrostHeaterOn ? p.defrostHeaterWatt : 0);
    displayWatt_ = memory_.displayLitLeftSec > 0 ? p.displayLitWatt : p.displayIdleWatt;
}

// --- What is shown and kept

std::optional<std::string> Refrigerator::compressorReason() const {
    const Parameters &p = parameters_;
    if (memory_.compressorOn) {
        if (!wantsCooling()) {
            return withTimeLeft("minimum on time", p.minimumOnSec - memory_.compressorPhaseSec);
        }
        if (memory_.foodLimitActive) {
            return "keeps food below its limit";
        }
        return std::nullopt;
    }
    if (defrost_.active()) {
        return withTimeLeft(defrost_.heaterOn() ? "defrost" : "melt water drains",
                            defrost_.phaseLeftSec());
    }
    if (wantsCooling()) {
        return withTimeLeft("minimum off time", p.minimumOffSec - memory_.compressorPhaseSec);
    }
    if (returnDelayed()) {
        return withTimeLeft("return is spread", memory_.returnDelaySec - memory_.returnSec);
    }
    if (wishes_.capacityLimit <= 0) {
        return "off by the level";
    }
    return std::nullopt;
}

RefrigeratorState Refrigerator::state() const {
    const Temperatures &t = cabinet_.temperatures();
    const auto stage = static_cast<IceStage>(memory_.iceStage);
    RefrigeratorState state;
    state.at = now_;
    state.powerWatt = powerWatt();
    state.energyWh = energyWh();
    state.fridgeCelsius = t.fridgeAir;
    state.freezerCelsius = t.freezerAir;
    state.fridgeFoodCelsius = t.fridgeFood;
    state.freezerFoodCelsius = t.freezerFood;
    state.fridgeSetCelsius = wishes_.fridgeSetCelsius;
    state.freezerSetCelsius = wishes_.freezerSetCelsius;
    state.ambientCelsius = inputs_.ambientCelsius;
    state.compressor = {memory_.compressorOn, memory_.capacity, compressorWatt_,
                        compressorReason()};
    state.fanOn = inputs_.fanOn;
    state.antiSweatOn = inputs_.antiSweatOn;
    state.iceMakerOn =
        !wishes_.extrasHeld && (stage == IceStage::Freezing || stage == IceStage::Harvesting);
    state.displayWatt = displayWatt_;
    state.defrost = {defrost_.heaterOn(), memory_.held, defrost_.due(),
                     memory_.held ? std::optional(memory_.heldSince) : std::nullopt,
                     defrost_.active() ? 0 : defrost_.leftSec() / kSecPerHour};
    state.doors = {inputs_.fridgeDoorOpen, inputs_.freezerDoorOpen};
    state.mode = mode();
    state.foodLimitActive = memory_.foodLimitActive;
    return state;
}

RefrigeratorMemory Refrigerator::memory() const {
    RefrigeratorMemory memory = memory_;
    memory.at = now_;
    memory.temperatures = cabinet_.temperatures();
    memory.goodsJoule = cabinet_.goodsJoule();
    memory.defrost = defrost_.memory();
    return memory;
}

void Refrigerator::restore(const RefrigeratorMemory &memory) {
    memory_ = memory;
    now_ = memory.at;
    cabinet_.restore(memory.temperatures, memory.goodsJoule);
    defrost_.restore(memory.defrost);
    findPlan();
    control();
}

} // namespace corvane::appliance
