// What a watcher reads: the present value, its number and the last few.
#include "proxy/notifications.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

using namespace corvane::platform;
using nlohmann::json;
using nlohmann::ordered_json;

namespace {

class NotificationsTest : public testing::Test {
protected:
    std::string text(CommandId id) const { return notifications.value(id, Format::Json); }
    json value(CommandId id) const { return json::parse(text(id)); }
    void sendLevel(int level) { notifications.send(CommandId::SendDRLCNotify, {{"level", level}}); }

    std::time_t now = 1795262400; // 2026-11-21T12:00:00Z
    Notifications notifications{[this] { return now; }};
};

ordered_json entry() {
    KestDefrostReservation reservation{};
    std::strcpy(reservation.id, "2");
    std::memcpy(reservation.description, "thirty bytes of a description!", 30); // unterminated
    std::strcpy(reservation.startTime, "0000-06-01T22:00:00");
    std::strcpy(reservation.endTime, "0000-09-30T00:00:00");
    std::strcpy(reservation.period, "04:00:00");
    return reservationMembers(reservation);
}

} // namespace

TEST_F(NotificationsTest, BeforeTheFirstTheValueIsNullAndTheNumberZero) {
    EXPECT_EQ(text(CommandId::SendOverrideNotify),
              R"({"override":null,"seq":0,"at":null,"recent":[]})");
    EXPECT_EQ(text(CommandId::SendDRLCNotify), R"({"level":null,"seq":0,"at":null,"recent":[]})");
    EXPECT_EQ(text(CommandId::SendDelayDefrostNotify),
              R"({"enabled":null,"seq":0,"at":null,"recent":[]})");
    EXPECT_EQ(text(CommandId::SendDefrostBlockNotify),
              R"({"block":null,"seq":0,"at":null,"recent":[]})");
    EXPECT_EQ(text(CommandId::SendDefrostReservationsNotify),
              R"({"action":null,"entries":[],"seq":0,"at":null,"recent":[]})");
}

TEST_F(NotificationsTest, CarryTheirNumberAndTimeInUtc) {
    sendLevel(2);
    EXPECT_EQ(text(CommandId::SendDRLCNotify),
              R"({"level":2,"seq":1,"at":"2026-11-21T12:00:00Z",)"
              R"("recent":[{"level":2,"seq":1,"at":"2026-11-21T12:00:00Z"}]})");
    now += 1;
    sendLevel(0);
    EXPECT_EQ(value(CommandId::SendDRLCNotify)["at"], "2026-11-21T12:00:01Z");
    EXPECT_EQ(value(CommandId::SendDRLCNotify)["recent"][0]["at"], "2026-11-21T12:00:00Z");
}

TEST_F(NotificationsTest, AreCountedEachForItself) {
    sendLevel(1);
    sendLevel(2);
    notifications.send(CommandId::SendDelayDefrostNotify, {{"enabled", true}});
    EXPECT_EQ(value(CommandId::SendDRLCNotify)["seq"], 2);
    EXPECT_EQ(value(CommandId::SendDelayDefrostNotify)["seq"], 1);
    EXPECT_EQ(value(CommandId::SendDelayDefrostNotify)["enabled"], true);
    EXPECT_EQ(value(CommandId::SendDefrostBlockNotify)["seq"], 0);
}

TEST_F(NotificationsTest, SameValueAgainIsOneMore) {
    sendLevel(3);
    sendLevel(3);
    EXPECT_EQ(value(CommandId::SendDRLCNotify)["seq"], 2);
    EXPECT_EQ(value(CommandId::SendDRLCNotify)["recent"].size(), 2u);
}

TEST_F(NotificationsTest, RecentHoldsTheLastEightOldestFirst) {
    for (int i = 1; i <= 11; ++i)
        sendLevel(i % 5);
    const json recent = value(CommandId::SendDRLCNotify)["recent"];
    ASSERT_EQ(recent.size(), 8u);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(recent[static_cast<std::size_t>(i)]["seq"], i + 4);
        EXPECT_EQ(recent[static_cast<std::size_t>(i)]["level"], (i + 4) % 5);
    }
}

TEST_F(NotificationsTest, LongReservationsLeaveOutTheOldestAndStayWithinOneDatagram) {
    for (int i = 0; i < 20; ++i)
        notifications.send(CommandId::SendDefrostReservationsNotify,
                           {{"action", 2}, {"entries", ordered_json::array({entry()})}});
    EXPECT_LE(text(CommandId::SendDefrostReservationsNotify).size(), kMaxBodySize);
    const json last = value(CommandId::SendDefrostReservationsNotify);
    EXPECT_EQ(last["seq"], 20);
    EXPECT_EQ(last["action"], 2);
    EXPECT_EQ(last["entries"][0]["description"], "thirty bytes of a description!");
    ASSERT_GE(last["recent"].size(), 3u);
    EXPECT_EQ(last["recent"].back()["seq"], 20);
    EXPECT_EQ(last["recent"].front()["seq"], 21 - static_cast<int>(last["recent"].size()));
}

TEST_F(NotificationsTest, FourEntriesStillFit) {
    notifications.send(
        CommandId::SendDefrostReservationsNotify,
        {{"action", 0}, {"entries", ordered_json::array({entry(), entry(), entry(), entry()})}});
    EXPECT_LE(text(CommandId::SendDefrostReservationsNotify).size(), kMaxBodySize);
    EXPECT_EQ(value(CommandId::SendDefrostReservationsNotify)["entries"].size(), 4u);
}

TEST_F(NotificationsTest, CborSaysTheSameAsJson) {
    sendLevel(4);
    const std::string cbor = notifications.value(CommandId::SendDRLCNotify, Format::Cbor);
    EXPECT_EQ(json::from_cbor(cbor), value(CommandId::SendDRLCNotify));
    sendLevel(1);
    EXPECT_EQ(json::from_cbor(notifications.value(CommandId::SendDRLCNotify, Format::Cbor)),
              value(CommandId::SendDRLCNotify));
}
