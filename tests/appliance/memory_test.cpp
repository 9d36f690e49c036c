/* Saving and restoring: a restored appliance goes on as if nothing had been. */
#include "memory.h"

#include <string>

#include <gtest/gtest.h>

#include "virtual_days.h"

namespace corvane::appliance {
namespace {

struct Appliance {
    Refrigerator refrigerator;
    Micom micom;

    explicit Appliance(std::uint64_t seed, TimeMs begin = kBegin)
        : refrigerator(seed, begin), micom(refrigerator, seed, begin) {}

    ApplianceMemory memory() const { return {refrigerator.memory(), micom.memory()}; }

    void restore(const ApplianceMemory &memory) {
        refrigerator.restore(memory.refrigerator);
        micom.restore(memory.micom);
    }

    void order(const char *command, double hours) {
        static_cast<void>(micom.advance(afterHours(hours)));
        ASSERT_EQ(micom.hear(command, afterHours(hours)), Heard::Accepted);
        static_cast<void>(micom.advance(afterHours(hours) + 1000));
    }

    /* The rest of a life with an event and a hold in it, as its memory at the end. */
    std::string rest(double from) {
        order("SET_SMARTGRID_LEVEL_NORMAL", from + 1);
        order("SET_SMARTGRID_ENABLE", from + 2);
        order("SET_SMARTGRID_DISABLE", from + 9);
        order("SET_SMARTGRID_LEVEL2", from + 12);
        order("SET_SMARTGRID_LEVEL_NORMAL", from + 14);
        static_cast<void>(micom.advance(afterHours(from + 20)));
        return toText(memory());
    }
};

TEST(Memory, RestoredLifeIsEqualToTheUninterruptedOne) {
    for (double hours = 3.01; hours < 30; hours += 2.3) { // all kinds of moments
        Appliance uninterrupted(1);
        uninterrupted.order("SET_SMARTGRID_LEVEL3", hours - 0.5);
        uninterrupted.order("SET_SMARTGRID_OVERRIDE_FOREVER", hours - 0.2);
        uninterrupted.order("SET_SMARTGRID_OVERRIDE_OFF", hours - 0.1);
        static_cast<void>(uninterrupted.micom.advance(afterHours(hours)));
        const auto saved = fromText(toText(uninterrupted.memory()));
        ASSERT_TRUE(saved);
        Appliance restored(1, afterHours(500)); // whatever it was before
        restored.restore(*saved);
        EXPECT_EQ(toText(restored.memory()), toText(*saved)) << hours;
        EXPECT_EQ(restored.rest(hours), uninterrupted.rest(hours)) << hours;
    }
}

TEST(Memory, RefrigeratorBegunFromAMemoryIsEqualToTheRestoredOne) {
    Appliance life(1);
    life.order("SET_SMARTGRID_LEVEL3", 5);
    const RefrigeratorMemory saved = life.refrigerator.memory();
    Refrigerator restored(1, afterHours(500));
    restored.restore(saved);
    Refrigerator begun(1, saved);
    restored.advance(afterHours(40));
    begun.advance(afterHours(40));
    EXPECT_EQ(toText({begun.memory(), {}}), toText({restored.memory(), {}}));
}

TEST(Memory, DelayOfAReturnIsKept) {
    Appliance before(1);
    before.order("SET_SMARTGRID_LEVEL3", 1);
    before.order("SET_SMARTGRID_LEVEL_NORMAL", 5);
    ASSERT_EQ(before.refrigerator.mode(), Mode::Returning);
    Appliance after(1);
    after.restore(*fromText(toText(before.memory())));
    EXPECT_EQ(after.refrigerator.mode(), Mode::Returning);
    static_cast<void>(before.micom.advance(afterHours(8)));
    static_cast<void>(after.micom.advance(afterHours(8)));
    EXPECT_EQ(toText(after.memory()), toText(before.memory()));
}

TEST(Memory, LevelAndOverrideAreNotReportedAgain) {
    Appliance before(1);
    before.order("SET_SMARTGRID_LEVEL3", 1);
    before.order("SET_SMARTGRID_OVERRIDE_FOREVER", 1.1);
    Appliance after(1);
    after.restore(before.memory());
    EXPECT_EQ(after.refrigerator.level(), 3);
    EXPECT_TRUE(after.refrigerator.override());
    EXPECT_TRUE(after.micom.advance(afterHours(1.1) + 2000).empty());
}

TEST(Memory, TimeWithoutTheProgramIsLivedThrough) {
    Appliance before(1);
    static_cast<void>(before.micom.advance(afterHours(10)));
    Appliance after(1);
    after.restore(before.memory());
    const auto writes = after.micom.advance(afterHours(34));
    EXPECT_EQ(writes.size(), 4U); // one publication with a day's energy
    EXPECT_GT(after.refrigerator.energyWh(), before.refrigerator.energyWh() + 700);
}

TEST(Memory, TextIsRefusedWhenItIsNotAWholeMemory) {
    const std::string good = toText(Appliance(1).memory());
    ASSERT_TRUE(fromText(good));
    const auto with = [&good](const std::string &name, const std::string &value) {
        const std::size_t begin = ("\n" + good).find("\n" + name + " ");
        const std::size_t end = good.find('\n', begin);
        return good.substr(0, begin) + name + " " + value + good.substr(end);
    };
    EXPECT_TRUE(fromText(with("level", "4")));
    EXPECT_TRUE(fromText(with("fridgeAirCelsius", "12.5")));
    EXPECT_FALSE(fromText(with("level", "5")));
    EXPECT_FALSE(fromText(with("level", "-1")));
    EXPECT_FALSE(fromText(with("level", "1.5")));
    EXPECT_FALSE(fromText(with("level", "")));
    EXPECT_FALSE(fromText(with("override", "2")));
    EXPECT_FALSE(fromText(with("fridgeAirCelsius", "300")));
    EXPECT_FALSE(fromText(with("fridgeAirCelsius", "nan")));
    EXPECT_FALSE(fromText(with("fridgeAirCelsius", "inf")));
    EXPECT_FALSE(fromText(with("fridgeAirCelsius", "12.5 ")));
    EXPECT_FALSE(fromText(with("energyWh", "-1")));
    EXPECT_FALSE(fromText(with("at", "99999999999999999999")));
    EXPECT_FALSE(fromText(""));
    EXPECT_FALSE(fromText(good + "level 0\n"));
    EXPECT_FALSE(fromText(good + "colour 1\n"));
    EXPECT_FALSE(fromText(good + "\n"));
    EXPECT_FALSE(fromText(good.substr(0, good.size() - 1)));
    for (std::size_t cut = 0; cut < good.size(); cut += 7) {
        EXPECT_FALSE(fromText(good.substr(0, cut))) << cut;
    }
}

} // namespace
} // namespace corvane::appliance
