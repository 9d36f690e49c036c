/* The net of heat capacities: what goes in comes out, and steps are short enough. */
#include "cabinet.h"

#include <cmath>

#include <gtest/gtest.h>

namespace corvane::appliance {
namespace {

double heatContent(const Parameters &p, const Cabinet &cabinet) {
    const Temperatures &t = cabinet.temperatures();
    return p.fridgeAirJoulePerKelvin * t.fridgeAir + p.fridgeLoadJoulePerKelvin * t.fridgeFood +
           p.freezerAirJoulePerKelvin * t.freezerAir + p.freezerLoadJoulePerKelvin * t.freezerFood +
           p.evaporatorJoulePerKelvin * t.evaporator + cabinet.goodsJoule();
}

CabinetInputs cooling() {
    CabinetInputs inputs;
    inputs.capacity = 0.5;
    inputs.fanOn = true;
    inputs.damperOpen = true;
    return inputs;
}

Cabinet startedCabinet(const Parameters &p) {
    Cabinet cabinet(p);
    cabinet.restore({8, 5, -12, -16, -20}, 50'000);
    return cabinet;
}

TEST(Cabinet, HeatIsNeitherMadeNorLostInside) {
    Parameters p;
    p.fridgeLossWattPerKelvin = 0;
    p.freezerLossWattPerKelvin = 0;
    p.fanWatt = 0;
    Cabinet cabinet = startedCabinet(p);
    const double before = heatContent(p, cabinet);
    CabinetInputs inputs = cooling();
    inputs.capacity = 0;
    for (int step = 0; step < 360; ++step) {
        cabinet.pass(10, inputs);
    }
    EXPECT_NEAR(heatContent(p, cabinet), before, 1e-3);
    EXPECT_GT(cabinet.temperatures().evaporator, -20); // something has moved all the same
}

TEST(Cabinet, HeatThatComesInIsThatOfTheHeater) {
    Parameters p;
    p.fridgeLossWattPerKelvin = 0;
    p.freezerLossWattPerKelvin = 0;
    Cabinet cabinet = startedCabinet(p);
    const double before = heatContent(p, cabinet);
    CabinetInputs inputs;
    inputs.defrostHeaterOn = true;
    for (int step = 0; step < 120; ++step) {
        cabinet.pass(10, inputs);
    }
    const double expected = 1200 * p.defrostHeaterWatt * (1 - p.defrostIntoFrost);
    EXPECT_NEAR(heatContent(p, cabinet) - before, expected, 1e-3);
}

TEST(Cabinet, WaterGivesItsHeatToTheFreezer) {
    Cabinet with = startedCabinet(Parameters());
    Cabinet without = startedCabinet(Parameters());
    CabinetInputs inputs;
    without.pass(10, inputs);
    inputs.iceHeatWatt = 7.5;
    with.pass(10, inputs);
    const double kelvin = with.temperatures().freezerAir - without.temperatures().freezerAir;
    EXPECT_NEAR(kelvin * Parameters().freezerAirJoulePerKelvin, 75, 1e-6);
}

TEST(Cabinet, StepsOfTenSecondsComeOutAsThoseOfAHalf) {
    const Parameters p;
    Cabinet coarse = startedCabinet(p);
    Cabinet fine = startedCabinet(p);
    for (int step = 0; step < 360; ++step) {
        CabinetInputs inputs = cooling();
        inputs.fridgeDoorOpen = step % 60 < 2;
        coarse.pass(10, inputs);
        for (int part = 0; part < 20; ++part) {
            fine.pass(0.5, inputs);
        }
        ASSERT_NEAR(coarse.temperatures().fridgeAir, fine.temperatures().fridgeAir, 0.15);
        ASSERT_NEAR(coarse.temperatures().freezerAir, fine.temperatures().freezerAir, 0.15);
        ASSERT_NEAR(coarse.temperatures().evaporator, fine.temperatures().evaporator, 0.3);
    }
    EXPECT_NEAR(coarse.temperatures().fridgeFood, fine.temperatures().fridgeFood, 0.01);
    EXPECT_NEAR(coarse.temperatures().freezerFood, fine.temperatures().freezerFood, 0.01);
}

TEST(Cabinet, WithoutCoolingEverythingBecomesAsWarmAsTheKitchen) {
    Cabinet cabinet = startedCabinet(Parameters());
    CabinetInputs inputs;
    inputs.ambientCelsius = 24;
    for (int step = 0; step < 20 * 24 * 360; ++step) {
        cabinet.pass(10, inputs);
    }
    const Temperatures &t = cabinet.temperatures();
    for (const double celsius :
         {t.fridgeAir, t.fridgeFood, t.freezerAir, t.freezerFood, t.evaporator}) {
        EXPECT_NEAR(celsius, 24, 0.1);
    }
}

TEST(Cabinet, CompressorDrawsMoreForMoreCapacityAndInAWarmerKitchen) {
    const Cabinet cabinet = startedCabinet(Parameters());
    EXPECT_EQ(cabinet.compressorWatt(0, 22), 0);
    EXPECT_GT(cabinet.compressorWatt(0.35, 22), 20);
    EXPECT_GT(cabinet.compressorWatt(1, 22), 2.5 * cabinet.compressorWatt(0.35, 22));
    EXPECT_GT(cabinet.compressorWatt(1, 22), 1.1 / 0.35 * cabinet.compressorWatt(0.35, 22) - 6);
    EXPECT_LT(cabinet.compressorWatt(1, 22), 160);
    EXPECT_GT(cabinet.compressorWatt(0.35, 32), 1.1 * cabinet.compressorWatt(0.35, 22));
}

TEST(Cabinet, AnOpenDoorWarmsItsOwnCompartmentAlone) {
    Cabinet shut = startedCabinet(Parameters());
    Cabinet open = startedCabinet(Parameters());
    CabinetInputs inputs;
    shut.pass(10, inputs);
    inputs.freezerDoorOpen = true;
    open.pass(10, inputs);
    EXPECT_GT(open.temperatures().freezerAir, shut.temperatures().freezerAir + 0.2);
    EXPECT_EQ(open.temperatures().fridgeAir, shut.temperatures().fridgeAir);
}

} // namespace
} // namespace corvane::appliance
