/*
 * The cabinet as a net of five heat capacities: air and food of both compartments, and the
 * evaporator, from which the compressor takes heat and to which the fan brings it. What is switched
 * on comes in from outside and holds for a whole step; decisions are the refrigerator's.
 */
#ifndef CORVANE_APPLIANCE_MODEL_CABINET_H
#define CORVANE_APPLIANCE_MODEL_CABINET_H

#include "parameters.h"

namespace corvane::appliance {

/* All degrees Celsius. */
struct Temperatures {
    double fridgeAir = 0;
    double fridgeFood = 0;
    double freezerAir = 0;
    double freezerFood = 0;
    double evaporator = 0;
};

/* What is switched and open during a step. */
struct CabinetInputs {
    double ambientCelsius = 22;
    double capacity = 0; // of the compressor, 0 to 1
    bool fanOn = false;
    bool damperOpen = false; // lets the fan's air through to the fridge too
    bool defrostHeaterOn = false;
    bool antiSweatOn = false;
    bool fridgeDoorOpen = false;
    bool freezerDoorOpen = false;
    double iceHeatWatt = 0; // into the freezer
};

class Cabinet {
public:
    explicit Cabinet(const Parameters &parameters);

    /* Passes time; `sec` is at most 30, beyond which the step would be coarse. */
    void pass(double sec, const CabinetInputs &inputs);
    /* Puts warm goods into the fridge: their heat comes out over an hour or two. */
    void addWarmGoods(double joule) { goodsJoule_ += joule; }

    /* What the compressor draws at this capacity and at the present temperatures, W. */
    [[nodiscard]] double compressorWatt(double capacity, double ambientCelsius) const;
    [[nodiscard]] const Temperatures &temperatures() const { return temperatures_; }
    [[nodiscard]] double goodsJoule() const { return goodsJoule_; }
    void restore(const Temperatures &temperatures, double goodsJoule);

private:
    [[nodiscard]] double coolingWatt(double capacity) const;

    Parameters parameters_;
    Temperatures temperatures_;
    double goodsJoule_ = 0;
};

} // namespace corvane::appliance

#endif
