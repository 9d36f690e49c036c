/* What a browser may hand on to the service. */
#include "request_checks.h"

#include <gmock/gmock.h>

namespace corvane::appliance {
namespace {

template <typename T>
Refusal refusalOf(const std::variant<T, Refusal> &checked) {
    const Refusal *refusal = std::get_if<Refusal>(&checked);
    return refusal != nullptr ? *refusal : Refusal{"taken", "taken"};
}

TEST(EventCheck, GoodOrdersAreTaken) {
    for (const char *body : {R"({"level":1})", R"({"level":4,"duration":"23:59:59"})",
                             R"({"start":"00:00:00","level":2})"})
        EXPECT_TRUE(std::holds_alternative<nlohmann::json>(checkEvent(body))) << body;
}

TEST(EventCheck, LevelZeroIsNoOrder) {
    EXPECT_EQ(refusalOf(checkEvent(R"({"level":0})")).field, "level");
    EXPECT_THAT(refusalOf(checkEvent(R"({"level":0})")).reason, testing::HasSubstr("1 to 4"));
}

TEST(EventCheck, RefusalNamesItsMember) {
    EXPECT_EQ(refusalOf(checkEvent(R"({"level":2,"duration":"1h"})")).field, "duration");
    EXPECT_EQ(refusalOf(checkEvent(R"({"level":2,"bad":1})")).field, "bad");
    EXPECT_EQ(refusalOf(checkEvent(R"({})")).field, "level");
    EXPECT_EQ(refusalOf(checkEvent("[]")).field, "");
    EXPECT_EQ(refusalOf(checkEvent("{")).field, "");
    EXPECT_EQ(refusalOf(checkEvent(R"({"level":2,"level":3})")).field, "level");
}

TEST(ReservationCheck, FollowsTheRulesOfTheWire) {
    const auto check = [](const std::string &body) {
        return refusalOf(checkForService("CreateDefrostReservations", body)).field;
    };
    const std::string good = R"("startTime":"0000-02-29T17:00:00","endTime":"0000-08-31T00:00:00")";
    EXPECT_EQ(check("{" + good + R"(,"period":"02:00:00"})"), "taken");
    EXPECT_EQ(check("{" + good + R"(,"period":"02:00:00","description":"a'b"})"), "description");
    EXPECT_EQ(check("{" + good + "}"), "period");
}

TEST(ReservationCheck, RefusalIsInTheWordsOfTheForm) {
    const auto reason = [](const std::string &name, const std::string &value) {
        nlohmann::json wish{{"startTime", "0000-06-01T17:00:00"},
                            {"endTime", "0000-08-31T00:00:00"},
                            {"period", "02:00:00"}};
        wish[name] = value;
        const Refusal refusal =
            refusalOf(checkForService("CreateDefrostReservations", wish.dump()));
        EXPECT_EQ(refusal.field, name);
        return refusal.reason;
    };
    EXPECT_EQ(reason("startTime", "0000-06-31T17:00:00"), "first day: \"31\" is no day of June");
    EXPECT_EQ(reason("startTime", "0000-02-T17:00:00"), "first day: \"\" is no day of February");
    EXPECT_EQ(reason("endTime", "0000-12-99T00:00:00"), "last day: \"99\" is no day of December");
    EXPECT_EQ(reason("startTime", "0000-06-01T25:00:00"),
              "daily from: \"25:00:00\" is no time of day such as 17:00:00");
    EXPECT_EQ(reason("startTime", "0000-06-01Thalf past"),
              "daily from: \"half past\" is no time of day such as 17:00:00");
    EXPECT_EQ(reason("period", "2 h"),
              "length: \"2 h\" is no length of time from 00:00:01 to 23:59:59, such as 02:00:00");
    EXPECT_EQ(reason("description", "the 31st of the longest months!"),
              "description: \"the 31st of the longest months!\" is too long: 31 bytes, at most 30");
    EXPECT_THAT(reason("description", "a'b"), testing::HasSubstr("a quote, a backslash"));
}

TEST(ReservationCheck, WhatNoFormSendsIsRefusedInTheWordsOfTheWire) {
    const auto reason = [](const std::string &startTime) {
        return refusalOf(checkForService("CreateDefrostReservations",
                                         R"({"startTime":)" + startTime + "}"))
            .reason;
    };
    for (const char *startTime :
         {R"("2026-06-01T17:00:00")", R"("0000-13-01T17:00:00")", R"("0000-06-01")", R"("")", "7"})
        EXPECT_THAT(reason(startTime), testing::HasSubstr("expected a text 0000-MM-DDThh:mm:ss"));
}

TEST(DoorCheck, TakesExactlyItsTwoMembers) {
    const auto good = checkDoor(R"({"open":true,"compartment":"freezer"})");
    ASSERT_TRUE(std::holds_alternative<DoorWish>(good));
    EXPECT_FALSE(std::get<DoorWish>(good).isFridge);
    EXPECT_TRUE(std::get<DoorWish>(good).isOpen);
    EXPECT_EQ(refusalOf(checkDoor(R"({"open":true})")).field, "compartment");
    EXPECT_EQ(refusalOf(checkDoor(R"({"compartment":"fridge","open":"yes"})")).field, "open");
    EXPECT_EQ(refusalOf(checkDoor(R"({"compartment":7,"open":true})")).field, "compartment");
    EXPECT_THAT(refusalOf(checkDoor(R"({"compartment":"fridge","open":true,"open":false})")).reason,
                testing::HasSubstr("repeated"));
}

TEST(SwitchCheck, TakesABooleanAndNothingElse) {
    EXPECT_EQ(std::get<bool>(checkSwitch(R"({"on":true})")), true);
    EXPECT_EQ(refusalOf(checkSwitch(R"({"on":1})")).field, "on");
    EXPECT_EQ(refusalOf(checkSwitch("null")).reason, "body: expected a JSON object with on");
}

} // namespace
} // namespace corvane::appliance
