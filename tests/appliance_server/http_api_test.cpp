/* The HTTP interface without a socket: an engine in a folder of its own, no service anywhere. */
#include "http_api.h"
#include "http_server.h"

#include "temp_folder.h"

#include <gmock/gmock.h>
#include <httplib.h>

#include <algorithm>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

using nlohmann::json;

class HttpApiTest : public testing::Test {
protected:
    HttpApiTest() {
        EXPECT_TRUE(store_.open({folder_.file("state"), folder_.file("run"), false}).ok());
        std::filesystem::create_directories(folder_.file("state/appliance"));
        history_.emplace(folder_.file("state/appliance/history.db"), clockNowMs());
        begin();
    }
    ~HttpApiTest() override {
        end();
        close(stopFd_);
    }

    void begin() {
        appliance_.emplace(Appliance::Options{.seed = 1,
                                              .speed = 1,
                                              .version = "test",
                                              .serviceUrl = "coap://127.0.0.1:9",
                                              .zone = "UTC",
                                              .hasMetering = hasMetering_},
                           store_, *history_, hub_, terminal_);
        api_.emplace(*appliance_, *history_, remote_, hub_, files_);
        engine_ = std::thread([this] { appliance_->run(stopFd_); });
    }

    void end() {
        (void)eventfd_write(stopFd_, 1);
        engine_.join();
        eventfd_t ignored = 0;
        (void)eventfd_read(stopFd_, &ignored);
    }

    /* Ends the appliance and begins another one on the same history. */
    void restart() {
        end();
        begin();
    }

    json records() { return json::parse(ask("GET", "/api/v1/records").body)["records"]; }

    /* The service tells a change of the override. */
    std::string whoHasSetOverride(int value) {
        EXPECT_TRUE(store_.write("db/corvane/dr/override", value).ok());
        json override;
        do
            override = json::parse(ask("GET", "/api/v1/state").body)["demandResponse"]["override"];
        while (override["on"] != (value == 1));
        return override["by"];
    }

    ApiAnswer ask(const std::string &method, const std::string &path, const std::string &body = "",
                  std::multimap<std::string, std::string> query = {}) {
        return api_->answer({.method = method,
                             .path = path,
                             .query = std::move(query),
                             .contentType = "application/json",
                             .body = body});
    }

    TempFolder folder_;
    bool hasMetering_ = true;
    int stopFd_ = eventfd(0, EFD_CLOEXEC);
    platform::SettingsStore store_;
    Terminal terminal_;
    StreamHub hub_;
    std::optional<History> history_;
    std::optional<Appliance> appliance_;
    RemoteSide remote_{client::parseUrl("coap://127.0.0.1:9"), std::nullopt};
    PageFiles files_{""};
    std::optional<HttpApi> api_;
    std::thread engine_;
};

TEST_F(HttpApiTest, EveryRouteIsDescribedAndEveryDescriptionServed) {
    const json openApi = json::parse(kEmbeddedOpenApi.begin, kEmbeddedOpenApi.end);
    std::vector<std::pair<std::string, std::string>> described;
    for (const auto &[path, methods] : openApi.at("paths").items())
        for (const auto &[method, what] : methods.items()) {
            std::string name = method;
            std::transform(name.begin(), name.end(), name.begin(),
                           [](char c) { return static_cast<char>(std::toupper(c)); });
            described.emplace_back(name, path);
        }
    EXPECT_THAT(api_->routes(), testing::UnorderedElementsAreArray(described));
}

TEST_F(HttpApiTest, UnknownPathsAndMethodsAreRefused) {
    for (const char *path : {"/none", "/api/v1/event/", "/page", "/api//v1/state", "/page/"})
        EXPECT_EQ(ask("GET", path).status, 404) << path;
    const ApiAnswer wrong = ask("GET", "/api/v1/event");
    EXPECT_EQ(wrong.status, 405);
    EXPECT_THAT(wrong.headers,
                testing::Contains(std::pair<std::string, std::string>("Allow", "POST, DELETE")));
}

TEST_F(HttpApiTest, DoorIsOpenInTheNextState) {
    EXPECT_EQ(ask("PUT", "/api/v1/door", R"({"compartment":"fridge","open":true})").status, 200);
    const json state = json::parse(ask("GET", "/api/v1/state").body);
    EXPECT_TRUE(state["refrigerator"]["doors"]["fridgeOpen"].get<bool>());
    const json trace = json::parse(ask("GET", "/api/v1/trace", "", {{"source", "page"}}).body);
    EXPECT_EQ(trace["entries"].back()["text"], "opened the fridge door");
}

TEST_F(HttpApiTest, FaultIsOnInTheNextStateAndAnUnknownOneIsRefused) {
    EXPECT_EQ(ask("PUT", "/api/v1/faults/micomSilent", R"({"on":true})").status, 200);
    const json state = json::parse(ask("GET", "/api/v1/state").body);
    EXPECT_FALSE(state["micom"]["alive"].get<bool>());
    EXPECT_TRUE(state["faults"][0]["on"].get<bool>());
    EXPECT_EQ(ask("PUT", "/api/v1/faults/none", R"({"on":true})").status, 404);
}

TEST_F(HttpApiTest, FaultsOfAMeteringServiceThatIsNotThereAreNotOffered) {
    const auto groups = [this] {
        std::set<std::string> found;
        const json state = json::parse(ask("GET", "/api/v1/state").body);
        for (const json &fault : state["faults"])
            found.insert(fault["group"]);
        return found;
    };
    EXPECT_THAT(groups(), testing::ElementsAre("Metering service", "Micom"));
    hasMetering_ = false;
    restart();
    EXPECT_THAT(groups(), testing::ElementsAre("Micom"));
    EXPECT_FALSE(json::parse(ask("GET", "/api/v1/state").body)["metering"]["present"].get<bool>());
    EXPECT_EQ(ask("PUT", "/api/v1/faults/meteringSlow", R"({"on":true})").status, 404);
    EXPECT_EQ(ask("PUT", "/api/v1/faults/micomSlow", R"({"on":true})").status, 200);
}

TEST_F(HttpApiTest, DisplayButtonWritesItsKey) {
    EXPECT_EQ(ask("PUT", "/api/v1/display/override", R"({"override":1})").status, 200);
    platform::SettingValue value;
    ASSERT_TRUE(store_.read(kDisplayOverrideKey, value).ok());
    EXPECT_EQ(value, platform::SettingValue(1));
}

TEST_F(HttpApiTest, OverrideIsTheDisplaysOnlyWhenItHasAskedForIt) {
    ask("PUT", "/api/v1/display/override", R"({"override":1})");
    EXPECT_EQ(whoHasSetOverride(1), "display");
    ask("PUT", "/api/v1/display/override", R"({"override":1})"); // it is on already
    EXPECT_EQ(whoHasSetOverride(0), "remote");
}

TEST_F(HttpApiTest, OverrideIsToldWithWhoAndSinceWhenAfterARestartUnlessItHasChanged) {
    const auto told = [this] {
        return json::parse(ask("GET", "/api/v1/state").body)["demandResponse"]["override"];
    };
    ask("PUT", "/api/v1/display/override", R"({"override":1})");
    whoHasSetOverride(1);
    const json before = told();
    restart();
    EXPECT_EQ(told(), before);
    end();
    EXPECT_TRUE(store_.write("db/corvane/dr/override", 0).ok());
    begin();
    EXPECT_TRUE(told()["by"].is_null());
    EXPECT_TRUE(told()["sinceAt"].is_null());
}

TEST_F(HttpApiTest, RecordThatTheClockHasGoneBackOverIsEndedAndMarked) {
    EventRecord record;
    record.id = 3;
    record.storedAtMs = clockNowMs() + 3'600'000;
    record.plan = {2, record.storedAtMs, record.storedAtMs + 600'000};
    record.reportedAtMs = record.storedAtMs + 2000;
    history_->saveRecord(record);
    restart();
    const json kept = records();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_FALSE(kept[0]["open"].get<bool>());
    EXPECT_EQ(kept[0]["endedBy"], "restart");
    EXPECT_EQ(kept[0]["endedAt"], kept[0]["reportedAt"]);
    EXPECT_TRUE(kept[0]["clockSetBack"].get<bool>());
}

TEST_F(HttpApiTest, RecordOfATimeThatIsLivedAnewIsKeptAsItWasButNotShadedInTheCurves) {
    const TimeMs now = clockNowMs();
    EventRecord past;
    past.id = 3;
    past.storedAtMs = now - 1'200'000;
    past.plan = {2, past.storedAtMs, past.storedAtMs + 600'000};
    past.endedAtMs = past.plan.endMs;
    past.endedBy = "schedule";
    EventRecord left = past; // began before the time that the clock shows now, and ended after it
    left.id = 4;
    left.plan = {3, now - 60'000, now + 60'000};
    left.endedAtMs = left.plan.endMs;
    history_->saveRecord(past);
    history_->saveRecord(left);
    restart();
    const json kept = records();
    ASSERT_EQ(kept.size(), 2U);
    left.clockSetBack = true;
    EXPECT_EQ(kept[0], json(recordJson(left)));
    EXPECT_EQ(kept[1], json(recordJson(past)));
    const json history = json::parse(ask("GET", "/api/v1/history", "", {{"range", "hour"}}).body);
    ASSERT_EQ(history["events"].size(), 1U);
    EXPECT_EQ(history["events"][0]["level"], 2);
}

TEST_F(HttpApiTest, EnergyAfterAnEventIsFoundAlsoAfterARestart) {
    // It ended before the present minute began; what followed is in the history.
    const TimeMs now = clockNowMs();
    const TimeMs endMs = now - now % 60'000 - 180'000;
    EventRecord record;
    record.id = 3;
    record.storedAtMs = endMs - 60'000;
    record.plan = {2, record.storedAtMs, endMs};
    record.endedAtMs = endMs;
    record.endedBy = "schedule";
    record.energyDuringWh = 1;
    history_->saveRecord(record);
    for (int minute = 0; minute < 3; ++minute) {
        HistoryRow row;
        row.atSec = endMs / 1000 + 60 * (minute - 1);
        row.counterWh = -10.0 + minute; // below all that the new appliance will count
        history_->addMinute(row);
    }
    restart();
    json found;
    do
        found = records()[0];
    while (found["energyAfterWh"].is_null());
    EXPECT_NEAR(found["energyAfterWh"].get<double>(), 1, 0.001);
}

TEST_F(HttpApiTest, QueryThatIsNotUnderstoodIsRefused) {
    using Query = std::multimap<std::string, std::string>;
    for (const Query &query : {Query{{"rnage", "hour"}}, Query{{"range", "hour"}, {"range", "day"}},
                               Query{{"from", ""}}, Query{{"limit", "5"}}})
        for (const char *path : {"/api/v1/history", "/api/v1/energy"})
            EXPECT_EQ(ask("GET", path, "", query).status, 400) << path;
    for (const Query &query : {Query{{"limit", ""}}, Query{{"range", "day"}},
                               Query{{"source", "micom"}, {"source", "page"}}})
        for (const char *path : {"/api/v1/trace", "/api/v1/trace.csv", "/api/v1/trace.json"})
            EXPECT_EQ(ask("GET", path, "", query).status, 400) << path;
}

TEST_F(HttpApiTest, ServiceThatIsNotThereIsABadGateway) {
    const ApiAnswer answer = ask("POST", "/api/v1/event", R"({"level":2})");
    EXPECT_EQ(answer.status, 502);
    const json body = json::parse(answer.body);
    EXPECT_THAT(body["error"].get<std::string>(), testing::HasSubstr("nothing listens"));
    EXPECT_TRUE(body["service"]["code"].is_null());
    EXPECT_EQ(ask("GET", "/health").status, 503);
}

TEST_F(HttpApiTest, HistoryHasAStepForEachMinuteAndNullsForGaps) {
    const std::int64_t now = clockNowMs() / 1000;
    const std::int64_t hourAgo = now - now % 60 - 1800;
    HistoryRow row;
    row.atSec = hourAgo;
    row.powerWatt = 61.23456;
    row.windowActive = true;
    history_->addMinute(row);
    row.atSec += 60;
    history_->addMinute(row);
    const json history = json::parse(ask("GET", "/api/v1/history", "", {{"range", "hour"}}).body);
    ASSERT_GE(history["at"].size(), 60U);
    EXPECT_EQ(history["stepSec"], 60);
    const auto found = std::find(history["at"].begin(), history["at"].end(), hourAgo);
    const auto place = static_cast<std::size_t>(found - history["at"].begin());
    EXPECT_EQ(history["powerWatt"][place], 61.235);
    EXPECT_TRUE(history["powerWatt"][0].is_null());
    ASSERT_EQ(history["windows"].size(), 1U);
    EXPECT_EQ(history["windows"][0]["to"], hourAgo + 120);
}

TEST_F(HttpApiTest, IdleConnectionHardlyDelaysTheStop) {
    HttpServer server({"127.0.0.1", 0});
    const HttpGuard guard(server.place(), std::nullopt);
    server.start(*api_, guard, hub_);
    httplib::Client page("127.0.0.1", server.place().port);
    page.set_keep_alive(true);
    const auto answer = page.Get("/openapi.json");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200);
    const auto began = std::chrono::steady_clock::now();
    server.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
}

TEST_F(HttpApiTest, HeadOfTheStreamIsThatOfAGetAndKeepsNoStream) {
    HttpServer server({"127.0.0.1", 0});
    const HttpGuard guard(server.place(), std::nullopt);
    server.start(*api_, guard, hub_);
    httplib::Client page("127.0.0.1", server.place().port);
    const auto answer = page.Head(HttpApi::kStreamPath);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200);
    EXPECT_EQ(answer->get_header_value("Content-Type"), "text/event-stream");
    while (hub_.count() > 0)
        std::this_thread::yield();
    std::vector<std::shared_ptr<StreamHub::Stream>> streams(StreamHub::kMostStreams);
    for (auto &stream : streams)
        stream = hub_.open();
    EXPECT_EQ(page.Head(HttpApi::kStreamPath)->status, 503);
}

TEST_F(HttpApiTest, BodyOfAnotherTypeIsRefused) {
    ApiRequest request{.method = "POST",
                       .path = "/api/v1/event",
                       .contentType = "text/plain",
                       .body = R"({"level":2})"};
    EXPECT_EQ(api_->answer(request).status, 415);
}

} // namespace
} // namespace corvane::appliance
