/* Every notification once, whatever the network does to them. */
#include "notification_trail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane::client {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;

/* The payload of a resource that has sent so many notifications, the first one in this second. */
json payload(std::uint64_t seq, int firstSecond = 0, std::uint64_t kept = 8) {
    const auto at = [&](std::uint64_t n) {
        return "2026-01-01T00:00:" + std::to_string(10 + firstSecond + static_cast<int>(n)) + "Z";
    };
    if (seq == 0)
        return {{"level", nullptr}, {"seq", 0}, {"at", nullptr}, {"recent", json::array()}};
    json value{{"level", 1}, {"seq", seq}, {"at", at(seq)}, {"recent", json::array()}};
    for (std::uint64_t n = seq > kept ? seq - kept + 1 : 1; n <= seq; ++n)
        value["recent"].push_back({{"level", 1}, {"seq", n}, {"at", at(n)}});
    return json::parse(value.dump()); // numbers as they come from the wire
}

std::vector<std::uint64_t> countsOf(const NotificationTrail::News &news) {
    std::vector<std::uint64_t> counts;
    for (const Notification &notification : news.fresh)
        counts.push_back(notification.seq);
    return counts;
}

TEST(NotificationTrail, FirstPayloadTellsNothing) {
    NotificationTrail trail;
    EXPECT_THAT(countsOf(trail.take(payload(5))), IsEmpty());
}

TEST(NotificationTrail, EachNotificationIsToldOnce) {
    NotificationTrail trail;
    trail.take(payload(0));
    EXPECT_THAT(countsOf(trail.take(payload(1))), ElementsAre(1));
    EXPECT_THAT(countsOf(trail.take(payload(1))), IsEmpty());
    EXPECT_THAT(countsOf(trail.take(payload(2))), ElementsAre(2));
}

TEST(NotificationTrail, MergedNotificationsAreToldInOrder) {
    NotificationTrail trail;
    trail.take(payload(2));
    const auto news = trail.take(payload(6));
    EXPECT_THAT(countsOf(news), ElementsAre(3, 4, 5, 6));
    EXPECT_EQ(news.missed, 0u);
    EXPECT_FALSE(news.restarted);
}

TEST(NotificationTrail, NotificationsThatAreNoLongerRememberedAreCounted) {
    NotificationTrail trail;
    trail.take(payload(1));
    const auto news = trail.take(payload(12));
    EXPECT_EQ(news.fresh.front().seq, 5u);
    EXPECT_EQ(news.missed, 3u);
}

TEST(NotificationTrail, ServiceThatCountsAnewIsToldFromItsFirstNotification) {
    NotificationTrail trail;
    trail.take(payload(5));
    const auto news = trail.take(payload(2, 20));
    EXPECT_TRUE(news.restarted);
    EXPECT_THAT(countsOf(news), ElementsAre(1, 2));
}

TEST(NotificationTrail, RestartIsNoticedByTheTimeWhenTheCountHasCaughtUp) {
    NotificationTrail trail;
    trail.take(payload(2));
    const auto news = trail.take(payload(3, 20));
    EXPECT_TRUE(news.restarted);
    EXPECT_THAT(countsOf(news), ElementsAre(1, 2, 3));
}

TEST(NotificationTrail, RestartWithoutNotificationsIsNoticed) {
    NotificationTrail trail;
    trail.take(payload(2));
    const auto news = trail.take(payload(0));
    EXPECT_TRUE(news.restarted);
    EXPECT_THAT(countsOf(news), IsEmpty());
    EXPECT_FALSE(trail.take(payload(0)).restarted);
}

TEST(NotificationTrail, PresentValueCountsEvenWhenRecentIsMissing) {
    NotificationTrail trail;
    trail.take(payload(1));
    json bare = payload(2);
    bare.erase("recent");
    const auto news = trail.take(bare);
    EXPECT_THAT(countsOf(news), ElementsAre(2));
}

TEST(NotificationTrail, PayloadOfAnotherShapeTellsNothing) {
    NotificationTrail trail;
    for (const char *text : {"null", "7", "[]", "{}", R"({"seq":-1})", R"({"seq":"1"})",
                             R"({"recent":[1,{"seq":null}]})"})
        EXPECT_THAT(countsOf(trail.take(json::parse(text))), IsEmpty()) << text;
}

} // namespace
} // namespace corvane::client
