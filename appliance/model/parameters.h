/*
 * Every figure of the refrigerator's model, with its unit and where it comes from: physics (can be
 * computed), typical (data sheets and measurements of frost-free household combinations), tuned
 * (chosen so that the whole behaves as measured ones do), rule (a decision of this appliance).
 * docs/appliance-model.md shows the same table with the reasons.
 */
#ifndef CORVANE_APPLIANCE_MODEL_PARAMETERS_H
#define CORVANE_APPLIANCE_MODEL_PARAMETERS_H

#include <array>

namespace corvane::appliance {

/* What one demand-response level changes. */
struct LevelParameters {
    double fridgeWarmerKelvin;  // added to the set-point
    double freezerWarmerKelvin; // added to the set-point
    double capacityLimit;       // largest share of the compressor's capacity; 0: off
};

struct Parameters {
    // The cabinet.
    double fridgeLossWattPerKelvin = 0.78;     // typical: 250 l behind 50 mm of foam, with gasket
    double freezerLossWattPerKelvin = 0.42;    // typical: 110 l behind 65 mm of foam, with gasket
    double betweenWattPerKelvin = 0.25;        // typical: the wall between the compartments
    double fridgeAirJoulePerKelvin = 14'000;   // tuned: air, liner and shelves
    double freezerAirJoulePerKelvin = 10'000;  // tuned: air, liner and drawers
    double fridgeLoadJoulePerKelvin = 60'000;  // physics: 17 kg of food at 3.5 kJ/kgK
    double freezerLoadJoulePerKelvin = 45'000; // physics: 22 kg of frozen food at 2.0 kJ/kgK
    double fridgeLoadWattPerKelvin = 6;        // typical: 1 m2 of packages at 6 W/m2K
    double freezerLoadWattPerKelvin = 5;       // typical: 0.8 m2 of packages at 6 W/m2K
    double fridgeDoorWattPerKelvin = 30;       // typical: 8 kJ for 15 s, moisture included
    double freezerDoorWattPerKelvin = 14;      // typical: 7 kJ for 12 s; drawers hold the air
    double warmGoodsTimeSec = 5'400;           // tuned: how slowly shopping gives off its heat

    // The kitchen.
    double ambientMeanCelsius = 22;     // rule: the climate that the figures are told for
    double ambientSwingKelvin = 1.5;    // typical: half of a kitchen's day swing
    double ambientWarmestHour = 17;     // typical: local time of the day's maximum
    double ambientDayToDayKelvin = 0.7; // typical: a day's mean differs by up to this

    // Evaporator and air ducts.
    double evaporatorJoulePerKelvin = 4'000; // typical: 2.5 kg of aluminium, frost
    double freezerFanWattPerKelvin = 11;     // typical: forced air over the evaporator
    double fridgeFanWattPerKelvin = 3.0;     // tuned: what the damper lets through
    double freezerStillWattPerKelvin = 0.9;  // tuned: evaporator to freezer with the fan off

    // The compressor (variable speed) and its electronics.
    double fullCapacityWatt = 165;         // typical: cooling at evaporatorRatedCelsius
    double evaporatorRatedCelsius = -25;   // typical: rating point of low-temperature types
    double capacityPerKelvin = 0.035;      // physics: density of the suction gas
    double evaporatorWarmestCelsius = -10; // typical: no more refrigerant flows above this
    double smallestCapacity = 0.35;        // typical: 1,500 of 4,300 turns a minute
    double carnotShare = 0.47;             // typical: good variable-speed hermetic types
    double inverterWatt = 2;               // typical: loss of the drive while it runs
    double condenserKelvin = 9;            // typical: above ambient at a standstill
    double condenserCapacityKelvin = 9;    // typical: added at full capacity
    double evaporatorApproachKelvin = 2;   // typical: refrigerant below the metal
    double capacityFullKelvin = 3.0;       // tuned: full capacity this much above set-point
    double minimumOnSec = 60;              // rule: oil returns also at lowest speed
    double minimumOffSec = 240;            // typical: pressures even out

    // Thermostats.
    double fridgeSetCelsius = 3.2;    // rule
    double freezerSetCelsius = -18.5; // rule
    double fridgeBandKelvin = 0.8;    // typical: half width
    double freezerBandKelvin = 1.2;   // typical: half width

    // Small users.
    double fanWatt = 3;                // typical
    double antiSweatWatt = 6;          // typical: mullion heater, mean over its duty
    double antiSweatIntoCabinet = 0.3; // typical: share that goes to the fridge
    double mainBoardWatt = 1.2;        // typical: main board, sensors, supply
    double displayIdleWatt = 1.4;      // typical: display board, radio, dark panel
    double displayLitWatt = 3.8;       // typical: panel lit
    double displayLitSec = 60;         // rule: after a door or a button
    int iceBinBatches = 6;             // typical: what the bin holds
    double iceBatchJoule = 36'000;     // physics: 82 g from 20 C to ice at -10 C
    double iceFreezeSec = 4'800;       // typical
    double iceHarvestWatt = 120;       // typical: heater that frees the ice
    double iceHarvestSec = 120;        // typical

    // Defrost.
    double defrostHeaterWatt = 200;                // typical
    double defrostShortestSec = 1'080;             // typical: little frost
    double defrostLongestSec = 1'320;              // typical: much frost
    double defrostIntoFrost = 0.45;                // tuned: share that leaves with the melt water
    double defrostDripSec = 300;                   // typical
    double defrostIntervalLongestSec = 14 * 3600;  // typical: compressor time with doors shut
    double defrostIntervalShortestSec = 10 * 3600; // typical: with many door openings
    double defrostDoorSec = 900;                   // tuned: door-open time that means most frost
    double defrostLimitSec = 20 * 3600;       // rule: compressor time after which no hold counts
    double defrostWarmestFoodCelsius = -17.0; // rule: a warmer freezer recovers first
    double defrostRecoverySec = 4 * 3600;     // rule: but not for longer, past the limit

    // Demand response.
    std::array<LevelParameters, 5> levels = {{
        {0, 0, 1},        // normal
        {0, 0, 1},        // delay: only defrost, ice maker and anti-sweat heater are held
        {0.4, 1.2, 0.6},  // moderate
        {0.8, 1.8, 0.35}, // strong
        {0.8, 1.8, 0},    // off
    }};
    double strongShedSec = 900; // rule: so long levels 3 and 4 begin with the compressor off
    double fridgeFoodHighestCelsius = 5; // rule: what food may reach on average
    double freezerFoodHighestCelsius = -15;
    double fridgeFoodGuardCelsius = 4.4; // rule: above this a level is set aside
    double freezerFoodGuardCelsius = -15.6;
    double foodGuardBandKelvin = 0.4;      // rule: until food is this much below
    double returnDelayLongestSec = 900;    // rule: drawn between 0 and this, at most half the event
    double returnRampLongestSec = 3'600;   // rule: of the way back to normal; at most the event
    double returnExtrasLongestSec = 9'000; // rule: until defrost and ice maker; at most the event
    double returnCapacityLimit = 0.55;     // rule: where the capacity's ramp begins
};

} // namespace corvane::appliance

#endif
