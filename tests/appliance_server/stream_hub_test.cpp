/* The streams: everything, in order, once; and nobody waits for a slow one. */
#include "stream_hub.h"

#include <gmock/gmock.h>

#include <thread>

namespace corvane::appliance {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kNoWait{0};
constexpr milliseconds kLong{60'000};

TEST(StreamEvents, HaveTheFormOfTheWire) {
    EXPECT_EQ(streamEvent("state", "{}"), "event: state\ndata: {}\n\n");
    EXPECT_EQ(streamEvent("trace", "{}", 7), "id: 7\nevent: trace\ndata: {}\n\n");
}

TEST(Hub, StreamBeginsWithTheStateAndGetsWhatIsPublishedLater) {
    StreamHub hub;
    hub.publish("early");
    hub.publishState("state1");
    const auto stream = hub.open();
    std::string text;
    ASSERT_TRUE(hub.wait(*stream, kNoWait, text));
    EXPECT_EQ(text, "state1");
    hub.publish("a");
    hub.publish("b");
    ASSERT_TRUE(hub.wait(*stream, kNoWait, text));
    EXPECT_EQ(text, "ab");
    ASSERT_TRUE(hub.wait(*stream, kNoWait, text));
    EXPECT_EQ(text, "");
}

TEST(Hub, NewerStateTakesThePlaceOfOneNotSent) {
    StreamHub hub;
    const auto stream = hub.open();
    hub.publishState("old");
    hub.publish("a");
    hub.publishState("new");
    std::string text;
    ASSERT_TRUE(hub.wait(*stream, kNoWait, text));
    EXPECT_EQ(text, "anew");
}

TEST(Hub, StreamThatFallsBehindIsClosedAndTheOthersAreNot) {
    StreamHub hub;
    const auto slow = hub.open();
    const auto quick = hub.open();
    std::string text;
    for (std::size_t i = 0; i <= StreamHub::kMostQueued; ++i) {
        hub.publish("x");
        ASSERT_TRUE(hub.wait(*quick, kNoWait, text));
    }
    EXPECT_FALSE(hub.wait(*slow, kNoWait, text));
    hub.publish("y");
    ASSERT_TRUE(hub.wait(*quick, kNoWait, text));
    EXPECT_EQ(text, "y");
}

TEST(Hub, ThereIsABoundAndLeavingMakesRoom) {
    StreamHub hub;
    std::vector<std::shared_ptr<StreamHub::Stream>> streams;
    for (std::size_t i = 0; i < StreamHub::kMostStreams; ++i)
        streams.push_back(hub.open());
    EXPECT_EQ(hub.open(), nullptr);
    hub.leave(streams.back());
    EXPECT_NE(hub.open(), nullptr);
    EXPECT_EQ(hub.count(), StreamHub::kMostStreams);
}

TEST(Hub, CloseWakesWhoWaits) {
    StreamHub hub;
    const auto stream = hub.open();
    bool goesOn = true;
    std::thread reader([&] {
        std::string text;
        goesOn = hub.wait(*stream, kLong, text);
    });
    hub.close();
    reader.join();
    EXPECT_FALSE(goesOn);
    EXPECT_EQ(hub.open(), nullptr);
}

TEST(Hub, WhatIsPublishedWakesWhoWaits) {
    StreamHub hub;
    const auto stream = hub.open();
    std::string text;
    std::thread reader([&] { EXPECT_TRUE(hub.wait(*stream, kLong, text)); });
    hub.publish("news");
    reader.join();
    EXPECT_EQ(text, "news");
}

} // namespace
} // namespace corvane::appliance
