// The memory of lately answered requests.
#include "proxy/exchange_table.h"

#include <gtest/gtest.h>

using namespace corvane::platform;
using namespace std::chrono_literals;

namespace {

class ExchangeTableTest : public testing::Test {
protected:
    ExchangeTable::Clock::time_point now{};
    ExchangeTable table{3, [this] { return now; }};
};

} // namespace

TEST_F(ExchangeTableTest, KnowsWhatItWasTold) {
    EXPECT_EQ(table.find("a"), nullptr);
    table.remember("a");
    ASSERT_NE(table.find("a"), nullptr);
    EXPECT_FALSE(table.find("a")->answer.has_value());
    EXPECT_FALSE(table.find("a")->isAcknowledged);
    table.find("a")->answer = Response{204, "body", Format::Json, false};
    EXPECT_EQ(table.find("a")->answer->body, "body");
    EXPECT_EQ(table.find("b"), nullptr);
}

TEST_F(ExchangeTableTest, ForgetsAfter247Seconds) {
    table.remember("a");
    now += 100s;
    table.remember("b");
    now += 147s - 1ns;
    EXPECT_NE(table.find("a"), nullptr);
    now += 1ns;
    EXPECT_EQ(table.find("a"), nullptr);
    EXPECT_NE(table.find("b"), nullptr);
    EXPECT_EQ(table.size(), 1u);
}

TEST_F(ExchangeTableTest, ForgetsTheOldestWhenItIsFull) {
    for (const char *key : {"a", "b", "c", "d"})
        table.remember(key);
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(table.find("a"), nullptr);
    for (const char *key : {"b", "c", "d"})
        EXPECT_NE(table.find(key), nullptr);
}

TEST_F(ExchangeTableTest, TellsTheAge) {
    table.remember("a");
    now += 3s;
    EXPECT_EQ(table.ageOf(*table.find("a")), 3s);
}

TEST_F(ExchangeTableTest, KeysMayHoldAnyBytes) {
    const std::string one("k\0a", 3);
    const std::string other("k\0b", 3);
    table.remember(one);
    EXPECT_NE(table.find(one), nullptr);
    EXPECT_EQ(table.find(other), nullptr);
}
