// The proxy on a real socket, datagram by datagram: requests and their answers, repetitions,
// watching, and the way to the end.
#include "live_proxy.h"

#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>

using namespace corvane::test;
using namespace std::chrono_literals;
using corvane::platform::CommandId;
using nlohmann::json;

namespace {

constexpr const char *kOverride = "house/ControlOverride";
constexpr const char *kLevelNotify = "house/SendDRLCNotify";
const std::string kOn = R"({"override":1})";

class LiveTest : public testing::Test {
protected:
    LiveTest() { proxy->handlers().controlOverride = Gate::handler; }
    ~LiveTest() override { Gate::open(); }

    Packet overrideOn() { return client.request(kPost, kOverride, kOn); }

    Packet watch(std::string_view path) {
        Packet packet = client.request(kGet, path);
        packet.options.insert(packet.options.begin(), {option::kObserve, numberValue(0)});
        return packet;
    }

    // Once this is answered, all that was sent before by the same client is done with.
    void passBarrier() {
        client.send(client.request(kGet, "no/such/resource"));
        passBarrierAnswer();
    }
    void passBarrierAnswer() { EXPECT_EQ(client.receive().code, 404); }

    void notifyLevel(int level) { proxy->notify(CommandId::SendDRLCNotify, {{"level", level}}); }

    // The next notification, acknowledged.
    json nextNotification() {
        const Packet packet = client.receive();
        EXPECT_EQ(packet.type, Type::Confirmable);
        EXPECT_EQ(packet.code, 205);
        client.acknowledge(packet);
        return json::parse(packet.payload);
    }

    LiveProxy proxy;
    CoapClient client{proxy.port()};
};

} // namespace

// ---- requests and their answers ---------------------------------------------------------------

TEST_F(LiveTest, AnswerRidesOnTheAcknowledgement) {
    const Packet request = overrideOn();
    const Packet answer = client.ask(request);
    EXPECT_EQ(answer.type, Type::Acknowledgement);
    EXPECT_EQ(answer.mid, request.mid);
    EXPECT_EQ(answer.token, request.token);
    EXPECT_EQ(answer.code, 204);
    EXPECT_EQ(answer.number(option::kContentFormat), 50u);
    EXPECT_EQ(answer.payload, R"({"result":1})");
    passBarrier();
    EXPECT_FALSE(client.hasMore());
    EXPECT_EQ(Gate::calls(), 1);
}

TEST_F(LiveTest, NonConfirmableRequestGetsANonConfirmableAnswer) {
    Packet request = overrideOn();
    request.type = Type::NonConfirmable;
    const Packet answer = client.ask(request);
    EXPECT_EQ(answer.type, Type::NonConfirmable);
    EXPECT_EQ(answer.token, request.token);
    EXPECT_EQ(answer.code, 204);
}

TEST_F(LiveTest, TokensOfEveryLengthComeBack) {
    for (std::size_t length = 0; length <= 8; ++length) {
        Packet request = overrideOn();
        request.token = std::string(length, '\xFE');
        EXPECT_EQ(client.ask(request).token, request.token);
    }
}

TEST_F(LiveTest, ReadIsAnsweredWithContent) {
    proxy->handlers().getDrlcOverride = [](int *level, int *overrideState) {
        *level = 2;
        *overrideState = 0;
        return 1;
    };
    const Packet read = client.ask(client.request(kGet, "house/GetDRLCOverride"));
    EXPECT_EQ(read.code, 205);
    EXPECT_EQ(read.payload, R"({"result":1,"level":2,"override":0})");
    const Packet posted = client.ask(client.request(kPost, "house/GetDRLCOverride"));
    EXPECT_EQ(posted.code, 204);
    EXPECT_EQ(posted.payload, read.payload);
}

TEST_F(LiveTest, CborGoesInAndOut) {
    Packet request = client.request(kPost, kOverride, "\xA1\x68override\x01");
    request.options.emplace_back(option::kContentFormat, numberValue(60));
    request.options.emplace_back(option::kAccept, numberValue(60));
    const Packet answer = client.ask(request);
    EXPECT_EQ(answer.code, 204);
    EXPECT_EQ(answer.number(option::kContentFormat), 60u);
    EXPECT_EQ(answer.payload, "\xA1\x66result\x01");
}

TEST_F(LiveTest, RefusedRequestIsAConflict) {
    proxy->handlers().createDefrostReservations = [](KestDefrostReservation *, char *, int *error) {
        *error = 507;
        return 0;
    };
    const Packet answer = client.ask(client.request(
        kPost, "house/CreateDefrostReservations",
        R"({"startTime":"0000-06-01T22:00:00","endTime":"0000-09-30T00:00:00","period":"04:00:00"})"));
    EXPECT_EQ(answer.code, 409);
    EXPECT_EQ(answer.payload, R"({"result":0,"error":507})");
}

TEST_F(LiveTest, LongestAnswerFitsOneDatagram) {
    proxy->handlers().getEnergyConsumption = [](char *cumulative, char *monthly) {
        std::memset(cumulative, '9', 512);
        std::memset(monthly, '9', 512);
        return 1;
    };
    proxy->handlers().getDefrostReservations = [](KestDefrostReservation *entries, int *count) {
        std::memset(entries, 'x', 4 * sizeof(*entries));
        *count = 4;
        return 1;
    };
    EXPECT_EQ(client.ask(client.request(kGet, "house/GetEnergyConsumption")).code, 205);
    EXPECT_EQ(client.ask(client.request(kGet, "house/GetDefrostReservations")).code, 205);
}

TEST_F(LiveTest, QueriesAreHarmless) {
    Packet request = overrideOn();
    request.options.emplace_back(option::kUriQuery, "verbose=1");
    request.options.emplace_back(option::kUriQuery, std::string(200, 'q'));
    EXPECT_EQ(client.ask(request).code, 204);
}

TEST_F(LiveTest, AllResourcesAreListedInOneDatagram) {
    const Packet answer = client.ask(client.request(kGet, ".well-known/core"));
    EXPECT_EQ(answer.code, 205);
    EXPECT_EQ(answer.number(option::kContentFormat), 40u);
    for (const auto &command : corvane::platform::allCommands()) {
        const bool isRequest = command.kind == corvane::platform::CommandKind::Request;
        const std::string link = std::string("</house/") + command.name + ">;rt=\"corvane." +
                                 (isRequest ? "request\"" : "notify\";obs");
        EXPECT_NE(answer.payload.find(link), std::string::npos) << link << '\n' << answer.payload;
    }
}

// ---- refusals ---------------------------------------------------------------------------------

TEST_F(LiveTest, WithoutHandlerTheClientShallComeAgain) {
    const Packet answer = client.ask(client.request(kGet, "house/GetDefrostBlock"));
    EXPECT_EQ(answer.code, 503);
    EXPECT_EQ(answer.type, Type::Acknowledgement);
    EXPECT_EQ(answer.number(option::kMaxAge), 5u);
    EXPECT_EQ(answer.payload, "the service is not ready for this yet");
}

TEST_F(LiveTest, BadRequestIsToldWhyAndReachesNoHandler) {
    const Packet answer = client.ask(client.request(kPost, kOverride, R"({"override":"on"})"));
    EXPECT_EQ(answer.code, 400);
    EXPECT_EQ(answer.payload, R"(override: got the text "on", expected the number 0 or 1)");
    EXPECT_FALSE(answer.number(option::kContentFormat).has_value());
    EXPECT_EQ(Gate::calls(), 0);
}

TEST_F(LiveTest, UnknownResourceIsNotFoundForEveryMethod) {
    for (int method = 1; method <= 7; ++method)
        for (const char *path : {"house/Nothing", "house", "other/ControlOverride", "",
                                 "house/ControlOverride/deeper"})
            EXPECT_EQ(client.ask(client.request(method, path)).code, 404) << method << path;
}

TEST_F(LiveTest, WrongMethodIsToldTheRightOnes) {
    EXPECT_EQ(client.ask(client.request(kGet, kOverride)).payload, "ControlOverride takes POST");
    for (const int method : {3, 4, 5, 6, 7})
        EXPECT_EQ(client.ask(client.request(method, kOverride, kOn)).code, 405) << method;
    EXPECT_EQ(client.ask(client.request(kPost, kLevelNotify)).payload, "SendDRLCNotify takes GET");
    EXPECT_EQ(client.ask(client.request(kPut, "house/GetDefrostBlock")).payload,
              "GetDefrostBlock takes GET and POST");
    EXPECT_EQ(Gate::calls(), 0);
}

TEST_F(LiveTest, OtherFormatsAreRefused) {
    Packet request = overrideOn();
    request.options.emplace_back(option::kContentFormat, numberValue(0));
    EXPECT_EQ(client.ask(request).code, 415);
    request = overrideOn();
    request.options.emplace_back(option::kAccept, numberValue(0));
    EXPECT_EQ(client.ask(request).code, 406);
    request = watch(kLevelNotify);
    request.options.emplace_back(option::kAccept, numberValue(40));
    EXPECT_EQ(client.ask(request).code, 406);
    EXPECT_EQ(Gate::calls(), 0);
}

TEST_F(LiveTest, LargeAndDividedBodiesAreRefused) {
    Packet request = client.request(kPost, kOverride, kOn + std::string(1025 - kOn.size(), ' '));
    EXPECT_EQ(client.ask(request).code, 413);
    for (const unsigned block : {0x08u | 2u, 0x10u | 2u, 0x18u | 6u}) {
        request = overrideOn();
        request.options.emplace_back(option::kBlock1, numberValue(block));
        EXPECT_EQ(client.ask(request).code, 413) << block;
    }
    EXPECT_EQ(Gate::calls(), 0);
    request = overrideOn();
    request.options.emplace_back(option::kBlock1, numberValue(2)); // the first block and the last
    EXPECT_EQ(client.ask(request).code, 204);
}

TEST_F(LiveTest, RefusalsAreLoggedOnceInTenSeconds) {
    for (int i = 0; i < 500; ++i)
        client.ask(client.request(kPost, kOverride, "{\"override\":\"\\n\"}"));
    EXPECT_EQ(takeLogLines(),
              (std::vector<std::string>{
                  "5 corvane-proxy: request refused command=ControlOverride code=400 unlogged=0 "
                  "reason=override: got the text \"\\u000a\", expected the number 0 or 1"}));
    proxy.pass(10s);
    client.ask(client.request(kGet, kOverride));
    EXPECT_EQ(takeLogLines(),
              (std::vector<std::string>{
                  "5 corvane-proxy: request refused command=ControlOverride code=405 unlogged=499 "
                  "reason=ControlOverride takes POST"}));
}

// ---- repetitions ------------------------------------------------------------------------------

TEST_F(LiveTest, RepeatedDatagramRunsTheHandlerOnceAndIsAnsweredAgain) {
    const Packet request = overrideOn();
    for (int i = 0; i < 3; ++i) {
        const Packet answer = client.ask(request);
        EXPECT_EQ(answer.type, Type::Acknowledgement);
        EXPECT_EQ(answer.mid, request.mid);
        EXPECT_EQ(answer.code, 204);
        EXPECT_EQ(answer.payload, R"({"result":1})");
    }
    EXPECT_EQ(Gate::calls(), 1);
}

TEST_F(LiveTest, RepeatedNonConfirmableDatagramRunsTheHandlerOnce) {
    Packet request = overrideOn();
    request.type = Type::NonConfirmable;
    client.ask(request);
    EXPECT_EQ(client.ask(request).code, 204);
    EXPECT_EQ(Gate::calls(), 1);
}

TEST_F(LiveTest, OtherPeerTokenOrMessageIdIsAnotherRequest) {
    Packet request = overrideOn();
    client.ask(request);
    CoapClient other = proxy.client();
    other.ask(request);
    EXPECT_EQ(Gate::calls(), 2);
    request.token += 'x';
    client.ask(request);
    EXPECT_EQ(Gate::calls(), 3);
    ++request.mid;
    client.ask(request);
    EXPECT_EQ(Gate::calls(), 4);
}

TEST_F(LiveTest, MessageIdMayBeUsedAgainAfter247Seconds) {
    const Packet request = overrideOn();
    client.ask(request);
    proxy.pass(247s - 1ns);
    client.ask(request);
    EXPECT_EQ(Gate::calls(), 1);
    proxy.pass(1ns);
    client.ask(request);
    EXPECT_EQ(Gate::calls(), 2);
}

TEST_F(LiveTest, StrayCopyWhileTheHandlerIsAtWorkChangesNothing) {
    Gate::close();
    const Packet request = overrideOn();
    client.send(request);
    Gate::waitForCall(1);
    client.send(request);
    passBarrier();
    Gate::open();
    EXPECT_EQ(client.receive().type, Type::Acknowledgement);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
    EXPECT_EQ(Gate::calls(), 1);
}

TEST_F(LiveTest, RepetitionWhileTheHandlerIsAtWorkIsAcknowledgedAndAnsweredByItself) {
    Gate::close();
    const Packet request = overrideOn();
    client.send(request);
    Gate::waitForCall(1);
    passBarrier(); // the proxy has noted the time of the request
    proxy.pass(2s);
    const Packet acknowledgement = client.ask(request);
    EXPECT_EQ(acknowledgement.type, Type::Acknowledgement);
    EXPECT_EQ(acknowledgement.code, 0);
    EXPECT_EQ(acknowledgement.mid, request.mid);
    EXPECT_EQ(acknowledgement.token, "");
    Gate::open();
    const Packet answer = client.receive();
    EXPECT_EQ(answer.type, Type::Confirmable);
    EXPECT_EQ(answer.token, request.token);
    EXPECT_EQ(answer.code, 204);
    client.acknowledge(answer);
    EXPECT_EQ(client.ask(request).code, 204);
    EXPECT_EQ(Gate::calls(), 1);
}

// ---- watching ---------------------------------------------------------------------------------

TEST_F(LiveTest, WatcherGetsThePresentValueAndThenEachNewOne) {
    const Packet first = client.ask(watch(kLevelNotify));
    EXPECT_EQ(first.code, 205);
    EXPECT_TRUE(first.number(option::kObserve).has_value());
    EXPECT_EQ(first.payload, R"({"level":null,"seq":0,"at":null,"recent":[]})");
    for (int i = 1; i <= 4; ++i) {
        notifyLevel(i);
        const json value = nextNotification();
        EXPECT_EQ(value["seq"], i);
        EXPECT_EQ(value["level"], i);
        EXPECT_EQ(value["recent"].size(), static_cast<std::size_t>(i));
    }
}

TEST_F(LiveTest, NotificationsThatWereMergedStandInRecent) {
    client.ask(watch(kLevelNotify));
    notifyLevel(1);
    const Packet held = client.receive(); // while it is not acknowledged nothing more is sent
    notifyLevel(2);
    notifyLevel(3);
    notifyLevel(4);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
    client.acknowledge(held);
    const json value = nextNotification();
    EXPECT_EQ(value["seq"], 4);
    ASSERT_EQ(value["recent"].size(), 4u);
    EXPECT_EQ(value["recent"][1]["level"], 2);
    EXPECT_EQ(value["recent"][2]["level"], 3);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
}

TEST_F(LiveTest, ReadDoesNotWatch) {
    EXPECT_FALSE(client.ask(client.request(kGet, kLevelNotify)).number(option::kObserve));
    notifyLevel(1);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
}

TEST_F(LiveTest, CancelledWatchIsOver) {
    Packet request = watch(kLevelNotify);
    client.ask(request);
    request.options.front().second = numberValue(1);
    ++request.mid;
    EXPECT_FALSE(client.ask(request).number(option::kObserve));
    notifyLevel(1);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
}

TEST_F(LiveTest, ResetEndsAWatch) {
    client.ask(watch(kLevelNotify));
    notifyLevel(1);
    Packet reset;
    reset.type = Type::Reset;
    reset.mid = client.receive().mid;
    client.send(reset);
    passBarrier();
    notifyLevel(2);
    passBarrier();
    EXPECT_FALSE(client.hasMore());
}

TEST_F(LiveTest, WatcherMayAskForCbor) {
    Packet request = watch(kLevelNotify);
    request.options.emplace_back(option::kAccept, numberValue(60));
    EXPECT_EQ(json::from_cbor(client.ask(request).payload)["seq"], 0);
    notifyLevel(3);
    const Packet notification = client.receive();
    EXPECT_EQ(notification.number(option::kContentFormat), 60u);
    EXPECT_EQ(json::from_cbor(notification.payload)["level"], 3);
    client.acknowledge(notification);
}

TEST_F(LiveTest, HandlerMayNotifyWhileItRuns) {
    static corvane::platform::Proxy *notifier;
    notifier = &*proxy;
    proxy->handlers().controlDrlc = [](KestDrlcInfo *info) {
        notifier->notify(CommandId::SendDRLCNotify, {{"level", info->drlcLevel[0] - '0'}});
        return 1;
    };
    client.ask(watch(kLevelNotify));
    client.send(client.request(kPost, "house/ControlDRLC", R"({"level":2})"));
    // The answer and the notification come in either order.
    bool isAnswered = false;
    bool isNotified = false;
    while (!isAnswered || !isNotified) {
        const Packet packet = client.receive();
        if (packet.type == Type::Acknowledgement) {
            isAnswered = true;
        } else {
            isNotified = json::parse(packet.payload)["level"] == 2;
            client.acknowledge(packet);
        }
    }
    EXPECT_FALSE(client.hasMore());
}

// ---- full and over ----------------------------------------------------------------------------

TEST_F(LiveTest, RequestsThatDoNotFitTheQueueShallComeAgain) {
    Gate::close();
    client.send(overrideOn());
    Gate::waitForCall(1);
    for (int i = 0; i < 256; ++i) {
        client.send(overrideOn());
        passBarrier(); // in step, so that none is lost for want of room in the socket
    }
    const Packet turnedAway = client.ask(overrideOn());
    EXPECT_EQ(turnedAway.code, 503);
    EXPECT_EQ(turnedAway.number(option::kMaxAge), 5u);
    Gate::open();
    for (int i = 0; i < 257; ++i)
        EXPECT_EQ(client.receive().code, 204);
    EXPECT_EQ(Gate::calls(), 257);
    EXPECT_EQ(client.ask(overrideOn()).code, 204);
}

TEST_F(LiveTest, QuiescedProxyAnswersWhatRunsAndTurnsAwayTheRest) {
    Gate::close();
    const Packet running = overrideOn();
    client.send(running);
    Gate::waitForCall(1);
    client.send(overrideOn());
    passBarrier();
    auto quiesced = std::async(std::launch::async, [this] { proxy->quiesce(); });
    int dropped = 1;
    Packet answer;
    do { // until quiescing has begun; before that requests are taken, or the queue is full
        client.send(overrideOn());
        answer = client.ask(client.request(kGet, "no/such/resource"));
        if (answer.code == 404)
            ++dropped;
        else
            passBarrierAnswer();
    } while (answer.payload != "the service is stopping");
    EXPECT_NE(quiesced.wait_for(0s), std::future_status::ready);
    Gate::open();
    quiesced.get();
    EXPECT_EQ(Gate::calls(), 1);
    for (int i = 0; i < 1 + dropped; ++i) {
        answer = client.receive();
        EXPECT_EQ(answer.code, answer.token == running.token ? 204 : 503);
    }
    EXPECT_EQ(client.ask(overrideOn()).code, 503);
    EXPECT_EQ(Gate::calls(), 1);
}

TEST_F(LiveTest, NotificationsStillGoOutAfterQuiescing) {
    client.ask(watch(kLevelNotify));
    proxy->quiesce();
    notifyLevel(0);
    EXPECT_EQ(nextNotification()["level"], 0);
}

TEST_F(LiveTest, ClosingSendsWhatIsQueued) {
    client.ask(watch(kLevelNotify));
    notifyLevel(0);
    proxy->close();
    EXPECT_EQ(json::parse(client.receive().payload)["seq"], 1);
    notifyLevel(1);
}

TEST_F(LiveTest, ClosingTellsTheWatchers) {
    client.ask(watch(kLevelNotify));
    proxy->close();
    const Packet farewell = client.receive();
    EXPECT_EQ(farewell.type, Type::NonConfirmable);
    EXPECT_EQ(farewell.code, 404);
}
