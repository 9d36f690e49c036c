#include "cabinet.h"

#include <algorithm>

namespace corvane::appliance {

namespace {
constexpr double kZeroCelsiusKelvin = 273.15;
}

Cabinet::Cabinet(const Parameters &parameters)
    : parameters_(parameters), temperatures_{.fridgeAir = parameters.fridgeSetCelsius,
                                             .fridgeFood = parameters.fridgeSetCelsius,
                                             .freezerAir = parameters.freezerSetCelsius,
                                             .freezerFood = parameters.freezerSetCelsius,
                                             .evaporator = parameters.freezerSetCelsius} {}

double Cabinet::coolingWatt(double capacity) const {
    const Parameters &p = parameters_;
    const double suction = std::min(temperatures_.evaporator, p.evaporatorWarmestCelsius);
    const double density = 1 + p.capacityPerKelvin * (suction - p.evaporatorRatedCelsius);
    return std::max(0.0, capacity * p.fullCapacityWatt * density);
}

double Cabinet::compressorWatt(double capacity, double ambientCelsius) const {
    if (capacity <= 0) {
        return 0;
    }
    const Parameters &p = parameters_;
    const double suction =
        std::min(temperatures_.evaporator, p.evaporatorWarmestCelsius) - p.evaporatorApproachKelvin;
    const double condenser =
        ambientCelsius + p.condenserKelvin + p.condenserCapacityKelvin * capacity;
    // A cold kitchen narrows the lift, but a compressor keeps a least pressure ratio.
    const double lift = std::max(20.0, condenser - suction);
    const double performance = p.carnotShare * (suction + kZeroCelsiusKelvin) / lift;
    return p.inverterWatt + coolingWatt(capacity) / performance;
}

void Cabinet::pass(double sec, const CabinetInputs &inputs) {
    const Parameters &p = parameters_;
    Temperatures &t = temperatures_;

    const double between = p.betweenWattPerKelvin * (t.fridgeAir - t.freezerAir);
    const double fridgeFood = p.fridgeLoadWattPerKelvin * (t.fridgeFood - t.fridgeAir);
    const double freezerFood = p.freezerLoadWattPerKelvin * (t.freezerFood - t.freezerAir);
    const double goods = goodsJoule_ / p.warmGoodsTimeSec;

    const double fromFridge = inputs.fanOn && inputs.damperOpen
                                  ? p.fridgeFanWattPerKelvin * (t.fridgeAir - t.evaporator)
                                  : 0;
    const double fromFreezer =
        (inputs.fanOn ? p.freezerFanWattPerKelvin : p.freezerStillWattPerKelvin) *
        (t.freezerAir - t.evaporator);

    const double fridgeLoss =
        p.fridgeLossWattPerKelvin + (inputs.fridgeDoorOpen ? p.fridgeDoorWattPerKelvin : 0);
    const double freezerLoss =
        p.freezerLossWattPerKelvin + (inputs.freezerDoorOpen ? p.freezerDoorWattPerKelvin : 0);
    const double antiSweat = inputs.antiSweatOn ? p.antiSweatWatt * p.antiSweatIntoCabinet : 0;
    const double fan = inputs.fanOn ? p.fanWatt : 0;
    const double heater =
        inputs.defrostHeaterOn ? p.defrostHeaterWatt * (1 - p.defrostIntoFrost) : 0;

    const double intoFridge = fridgeLoss * (inputs.ambientCelsius - t.fridgeAir) + fridgeFood +
                              goods + antiSweat - between - fromFridge;
    const double intoFreezer = freezerLoss * (inputs.ambientCelsius - t.freezerAir) + freezerFood +
                               inputs.iceHeatWatt + fan + between - fromFreezer;
    const double intoEvaporator = fromFridge + fromFreezer + heater - coolingWatt(inputs.capacity);

    t.fridgeAir += intoFridge * sec / p.fridgeAirJoulePerKelvin;
    t.freezerAir += intoFreezer * sec / p.freezerAirJoulePerKelvin;
    t.evaporator += intoEvaporator * sec / p.evaporatorJoulePerKelvin;
    t.fridgeFood -= fridgeFood * sec / p.fridgeLoadJoulePerKelvin;
    t.freezerFood -= freezerFood * sec / p.freezerLoadJoulePerKelvin;
    goodsJoule_ -= goods * sec;
}

void Cabinet::restore(const Temperatures &temperatures, double goodsJoule) {
    temperatures_ = temperatures;
    goodsJoule_ = goodsJoule;
}

} // namespace corvane::appliance
