// The proxy under what it must bear: floods of rubbish, many watchers, many threads.
#include "live_proxy.h"

#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>

using namespace corvane::test;
using corvane::platform::CommandId;
using nlohmann::json;

namespace {

constexpr const char *kOverride = "house/ControlOverride";
const std::string kOn = R"({"override":1})";

class LoadTest : public testing::Test {
protected:
    LoadTest() { proxy->handlers().controlOverride = Gate::handler; }

    static Packet watch(CoapClient &client, const std::string &query = {}) {
        Packet packet = client.request(kGet, "house/SendDRLCNotify");
        packet.options.insert(packet.options.begin(), {option::kObserve, numberValue(0)});
        if (!query.empty())
            packet.options.emplace_back(option::kUriQuery, query);
        return packet;
    }

    LiveProxy proxy;
};

// Bytes that are no packet, or a packet with some of its bytes changed or cut off.
std::string rubbish(std::mt19937 &random, const std::string &packet) {
    const auto below = [&](std::size_t bound) { return random() % bound; };
    std::string bytes;
    if (below(2) == 0) {
        bytes.resize(1 + below(64));
        for (char &byte : bytes)
            byte = static_cast<char>(below(256));
        return bytes;
    }
    bytes = packet.substr(0, 1 + below(packet.size()));
    for (std::size_t i = 0; i < 1 + below(4); ++i)
        bytes[below(bytes.size())] = static_cast<char>(below(256));
    return bytes;
}

} // namespace

TEST_F(LoadTest, FloodOfMalformedDatagramsStopsNothingAndFillsNoLog) {
    CoapClient flooder = proxy.client();
    CoapClient client = proxy.client();
    std::mt19937 random(20261121);
    const std::string packet = encodePacket(flooder.request(kPost, kOverride, kOn));
    for (int i = 0; i < 100'000; ++i) {
        flooder.sendBytes(rubbish(random, packet));
        if (i % 64 == 0) { // keeps in step, so that none is lost for want of room in the socket
            ASSERT_EQ(client.ask(client.request(kGet, "house/SendDRLCNotify")).code, 205);
        }
    }
    EXPECT_EQ(client.ask(client.request(kPost, kOverride, kOn)).code, 204);
    EXPECT_LE(takeLogLines().size(), 1u);
}

TEST_F(LoadTest, FloodFromManyPortsStopsNothing) {
    CoapClient client = proxy.client();
    for (int i = 0; i < 2'000; ++i) {
        CoapClient once = proxy.client();
        once.sendBytes("\x40\x02\x01\x02\xFF");
        if (i % 64 == 0) {
            ASSERT_EQ(client.ask(client.request(kGet, "house/SendDRLCNotify")).code, 205);
        }
    }
    EXPECT_EQ(client.ask(client.request(kPost, kOverride, kOn)).code, 204);
}

TEST_F(LoadTest, ThousandWatchersAllHear) {
    std::vector<std::unique_ptr<CoapClient>> watchers;
    for (int i = 0; i < 1'000; ++i) {
        watchers.push_back(std::make_unique<CoapClient>(proxy.port()));
        ASSERT_EQ(watchers.back()->ask(watch(*watchers.back())).code, 205);
    }
    // Acknowledgements that find no room in the proxy's socket are lost, and the proxy repeats
    // itself: each watcher reads on until it sees the new value.
    for (int level = 1; level <= 3; ++level) {
        proxy->notify(CommandId::SendDRLCNotify, {{"level", level}});
        for (const auto &watcher : watchers) {
            json value;
            do {
                const Packet packet = watcher->receive();
                watcher->acknowledge(packet);
                value = json::parse(packet.payload);
            } while (value["seq"] < level);
            ASSERT_EQ(value["level"], level);
        }
    }
    CoapClient client = proxy.client();
    EXPECT_EQ(client.askUntilAnswered(client.request(kPost, kOverride, kOn)).code, 204);
}

TEST_F(LoadTest, WatchesAreBounded) {
    CoapClient client = proxy.client();
    for (int i = 0; i < 4'096; ++i)
        ASSERT_EQ(client.ask(watch(client, "n=" + std::to_string(i))).code, 205) << i;
    const Packet refused = client.ask(watch(client, "one-more"));
    EXPECT_EQ(refused.code, 503);
    EXPECT_EQ(refused.payload, "too many watchers");
    // Who watches already may say so again, and one that leaves makes room.
    EXPECT_EQ(client.ask(watch(client, "n=7")).code, 205);
    Packet leave = watch(client, "n=7");
    leave.options.front().second = numberValue(1);
    EXPECT_EQ(client.ask(leave).code, 205);
    EXPECT_EQ(client.ask(watch(client, "one-more")).code, 205);
}

TEST_F(LoadTest, ThreadsMayCallEverythingAtOnce) {
    CoapClient watcher = proxy.client();
    watcher.ask(watch(watcher));
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([this] {
            for (int i = 0; i < 2'000; ++i) {
                proxy->notify(CommandId::SendDRLCNotify, {{"level", i % 5}});
                proxy->notify(CommandId::SendDefrostBlockNotify, {{"block", i % 2}});
                proxy->handlers().controlOverride = Gate::handler;
            }
        });
    threads.emplace_back([this] {
        CoapClient client = proxy.client();
        for (int i = 0; i < 500; ++i)
            ASSERT_EQ(client.ask(client.request(kPost, kOverride, kOn)).code, 204);
    });
    int lastSeq = 0;
    while (lastSeq < 6'000) {
        const Packet packet = watcher.receive();
        watcher.acknowledge(packet);
        const json value = json::parse(packet.payload);
        EXPECT_GE(value["seq"], lastSeq);
        lastSeq = value["seq"];
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(lastSeq, 6'000);
}

TEST_F(LoadTest, ClosingWithRequestsAndNotificationsUnderWayEndsCleanly) {
    std::atomic<bool> isOver = false;
    std::thread notifier([&] {
        while (!isOver)
            proxy->notify(CommandId::SendDRLCNotify, {{"level", 1}});
    });
    std::thread requester([&] {
        CoapClient client = proxy.client();
        while (!isOver)
            client.send(client.request(kPost, kOverride, kOn));
    });
    Gate::waitForCall(100);
    proxy->quiesce();
    const int calls = Gate::calls();
    proxy->close();
    isOver = true;
    notifier.join();
    requester.join();
    EXPECT_EQ(Gate::calls(), calls);
}
