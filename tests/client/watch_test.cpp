/* The watches: what they print until Ctrl-C, and that they then count as done. */
#include "commands.h"

#include "errors.h"
#include "local_state.h"
#include "stub_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include <unistd.h>

namespace corvane::client {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/* Collects lines and calls back after each flushed one, as a person would react to it. */
class Lines : public std::stringbuf {
public:
    explicit Lines(std::function<void(const std::string &line)> react) : react_(std::move(react)) {}

    const std::vector<std::string> &all() const { return all_; }

private:
    int sync() override {
        std::istringstream fresh(str());
        str("");
        for (std::string line; std::getline(fresh, line);) {
            all_.push_back(line);
            react_(line);
        }
        return 0;
    }

    std::function<void(const std::string &)> react_;
    std::vector<std::string> all_;
};

void pressControlC() { kill(getpid(), SIGINT); }

StubService::Answer levels(int seq, const std::string &minute = "00") {
    std::string recent;
    for (int n = std::max(1, seq - 7); n <= seq; ++n)
        recent += std::string(recent.empty() ? "" : ",") + R"({"level":)" + std::to_string(n % 5) +
                  R"(,"seq":)" + std::to_string(n) + R"(,"at":"2026-01-01T00:)" + minute + ":" +
                  std::to_string(10 + n) + R"(Z"})";
    const std::string newest =
        seq == 0 ? R"({"level":null,"seq":0,"at":null)"
                 : recent.substr(recent.rfind('{'), recent.size() - recent.rfind('{') - 1);
    return {205, newest + R"(,"recent":[)" + recent + "]}"};
}

class Watching : public testing::Test {
protected:
    Watching() {
        for (const char *resource : {"SendOverrideNotify", "SendDefrostBlockNotify",
                                     "SendDelayDefrostNotify", "SendDefrostReservationsNotify"})
            service_.answer(resource, {205, R"({"seq":0,"at":null,"recent":[]})"});
        service_.answer("SendDRLCNotify", levels(2));
    }

    /* Runs the watch; react sees each line and what it is about. */
    std::vector<std::string> watch(const std::function<void(const Json &line)> &react) {
        Lines lines([&](const std::string &line) { react(Json::parse(line)); });
        std::ostream out(&lines);
        watchNotifications({.endpoint = parseUrl(service_.url()),
                            .pskFile = "",
                            .identity = "",
                            .watchRefreshSec = 0.05,
                            .watchRetrySec = 0.01,
                            .json = true,
                            .out = out});
        std::vector<std::string> told;
        for (const std::string &line : lines.all()) {
            const Json object = Json::parse(line);
            told.push_back(object.contains("watch") ? object["watch"].get<std::string>()
                                                    : std::to_string(object["seq"].get<int>()));
        }
        return told;
    }

    StubService service_;
};

TEST_F(Watching, EachNotificationIsToldOnceThoughItIsMergedAndRepeated) {
    const auto told = watch([&](const Json &line) {
        if (line.value("watch", "") == "begun")
            service_.notify("SendDRLCNotify", levels(5));
        if (line.value("seq", 0) == 5)
            service_.answer("SendDRLCNotify", {levels(5), levels(5), levels(6)});
        if (line.value("seq", 0) == 6)
            pressControlC();
    });
    EXPECT_THAT(told, ElementsAre("begun", "3", "4", "5", "6"));
}

TEST_F(Watching, NotificationThatTheNetworkLostIsFoundByTheRefresh) {
    const auto told = watch([&](const Json &line) {
        if (line.value("watch", "") == "begun")
            service_.answer("SendDRLCNotify", levels(3));
        if (line.value("seq", 0) == 3)
            pressControlC();
    });
    EXPECT_THAT(told, ElementsAre("begun", "3"));
}

TEST_F(Watching, ServiceThatStopsAndIsStartedAnewIsTold) {
    const auto told = watch([&](const Json &line) {
        if (line.value("watch", "") == "begun")
            service_.notify("SendDRLCNotify", {404, ""});
        if (line.value("watch", "") == "lost")
            service_.answer("SendDRLCNotify", levels(1, "30"));
        if (line.value("seq", 0) == 1)
            pressControlC();
    });
    EXPECT_THAT(told, ElementsAre("begun", "lost", "back", "restarted", "1"));
}

TEST_F(Watching, RestartBetweenTwoRefreshesIsTold) {
    const auto told = watch([&](const Json &line) {
        if (line.value("watch", "") == "begun")
            service_.answer("SendDRLCNotify", levels(2, "30"));
        if (line.value("seq", 0) == 2)
            pressControlC();
    });
    EXPECT_THAT(told, ElementsAre("begun", "restarted", "1", "2"));
}

TEST_F(Watching, NotificationsThatCameTooFastAreCounted) {
    const auto told = watch([&](const Json &line) {
        if (line.value("watch", "") == "begun")
            service_.notify("SendDRLCNotify", levels(12));
        if (line.value("watch", "") == "missed") {
            EXPECT_THAT(line["text"].get<std::string>(), HasSubstr("2 more"));
        }
        if (line.value("seq", 0) == 12)
            pressControlC();
    });
    EXPECT_THAT(told, ElementsAre("begun", "missed", "5", "6", "7", "8", "9", "10", "11", "12"));
}

TEST_F(Watching, ServiceThatIsNotThereAtTheBeginningIsAFailure) {
    std::ostringstream out;
    EXPECT_THROW(watchNotifications({.endpoint = parseUrl("coap://127.0.0.1:1"),
                                     .pskFile = "",
                                     .identity = "",
                                     .out = out}),
                 Unreachable);
    EXPECT_EQ(out.str(), "");
}

TEST(WatchingSettings, EveryWrittenValueIsTold) {
    std::string folder = testing::TempDir() + "corvanectl-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    setenv("CORVANE_STATE_DIR", (folder + "/state").c_str(), 1);
    setenv("CORVANE_RUNTIME_DIR", (folder + "/runtime").c_str(), 1);
    platform::SettingsStore store;
    ASSERT_TRUE(store.open(environmentFolders()).ok());
    // The watch is ready for changes before it says anything, so a first line is made by a writer
    // that writes until it is seen.
    std::atomic<bool> seen = false;
    sigset_t signals;
    sigset_t before;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    std::thread writer([&] {
        while (!seen)
            EXPECT_TRUE(store.write("memory/begin", 1).ok());
        EXPECT_TRUE(store.write("memory/note", std::string("a")).ok());
        EXPECT_TRUE(store.write("memory/note", std::string("a")).ok());
        EXPECT_TRUE(store.write("memory/note", std::string("end")).ok());
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    Lines lines([&](const std::string &line) {
        seen = true;
        if (Json::parse(line)["value"] == "end")
            pressControlC();
    });
    std::ostream out(&lines);
    watchSettings({.endpoint = {}, .pskFile = "", .identity = "", .json = true, .out = out}, {});
    writer.join();

    std::vector<std::string> values;
    for (const std::string &line : lines.all())
        if (const Json change = Json::parse(line); change["key"] == "memory/note")
            values.push_back(change["value"]);
    EXPECT_THAT(values, ElementsAre("a", "a", "end"));
    unsetenv("CORVANE_STATE_DIR");
    unsetenv("CORVANE_RUNTIME_DIR");
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace corvane::client
