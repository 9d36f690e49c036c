/* The commands against a service that answers as it is told to. */
#include "cli.h"

#include "stub_service.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <sqlite3.h>

namespace corvane::client {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr const char *kDone = R"({"result":1})";

class Commands : public testing::Test {
protected:
    Commands() {
        std::string name = testing::TempDir() + "corvanectl-XXXXXX";
        folder_ = mkdtemp(name.data());
        setenv("CORVANE_STATE_DIR", (folder_ + "/state").c_str(), 1);
        setenv("CORVANE_RUNTIME_DIR", (folder_ + "/runtime").c_str(), 1);
    }
    ~Commands() override {
        unsetenv("CORVANE_STATE_DIR");
        unsetenv("CORVANE_RUNTIME_DIR");
        std::filesystem::remove_all(folder_);
    }

    int corvanectl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--url", service_.url()});
        out_.str("");
        err_.str("");
        return run(arguments, out_, err_, false);
    }
    json printed() const { return json::parse(out_.str()); }
    json sent() const { return json::parse(service_.requests().back().payload); }
    std::string askedLast() const { return service_.requests().back().path; }

    void answerAll() {
        service_.answer("GetDRLCOverride", {205, R"({"result":1,"level":2,"override":0})"});
        service_.answer("GetDefrostBlock", {205, R"({"result":1,"block":1})"});
        service_.answer("GetDelayDefrost", {205, R"({"result":1,"enabled":0})"});
        service_.answer("GetDefrostReservations", {205, R"({"result":1,"reservations":[
            {"id":"0","description":"Summer Season","startTime":"0000-05-01T15:00:00",
             "endTime":"0000-10-31T00:00:00","period":"04:00:00"}]})"});
        service_.answer("GetEnergyConsumption",
                        {205, R"({"result":1,"cumulative":"220.45","monthly":"100.00"})"});
    }

    StubService service_;
    std::string folder_;
    std::ostringstream out_;
    std::ostringstream err_;
};

TEST_F(Commands, EventIsOrderedWithWhatWasGivenOnly) {
    service_.answer("ControlDRLC", {204, kDone});
    ASSERT_EQ(corvanectl({"dr", "start", "--level", "2"}), 0) << err_.str();
    EXPECT_EQ(askedLast(), "KestProxyTest/ControlDRLC");
    EXPECT_EQ(sent().dump(), R"({"level":2})");
    EXPECT_THAT(out_.str(), HasSubstr("Ordered level 2 for 4 h 30 min; running"));
    ASSERT_EQ(corvanectl({"dr", "start", "--level", "4", "--duration", "01:00:00", "--start",
                          "14:00", "--json"}),
              0);
    EXPECT_EQ(sent().dump(), R"({"duration":"01:00:00","level":4,"start":"14:00:00"})");
    EXPECT_EQ(printed()["level"], 4);
    EXPECT_THAT(printed()["start"].get<std::string>(), HasSubstr("T14:00:00Z"));
}

TEST_F(Commands, CancelIsAnEventOfLevelZero) {
    service_.answer("ControlDRLC", {204, kDone});
    ASSERT_EQ(corvanectl({"dr", "cancel", "--json"}), 0);
    EXPECT_EQ(sent().dump(), R"({"level":0})");
    EXPECT_EQ(printed().dump(), R"({"cancelled":true})");
}

TEST_F(Commands, OverrideIsRequested) {
    service_.answer("ControlOverride", {204, kDone});
    ASSERT_EQ(corvanectl({"override", "on", "--json"}), 0);
    EXPECT_EQ(sent().dump(), R"({"override":1})");
    EXPECT_EQ(printed().dump(), R"({"requested":1})");
    ASSERT_EQ(corvanectl({"override", "off"}), 0);
    EXPECT_EQ(sent().dump(), R"({"override":0})");
}

TEST_F(Commands, DefrostDelayThatStaysOffIsARefusal) {
    service_.answer("SetDelayDefrost", {204, kDone});
    service_.answer("GetDelayDefrost", {205, R"({"result":1,"enabled":0})"});
    EXPECT_EQ(corvanectl({"defrost", "on"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("a demand-response event is stored"));
    EXPECT_EQ(corvanectl({"defrost", "off", "--json"}), 0);
    EXPECT_EQ(printed().dump(), R"({"enabled":0})");
    service_.answer("GetDelayDefrost", {205, R"({"result":1,"enabled":1})"});
    EXPECT_EQ(corvanectl({"defrost", "on"}), 0);
    EXPECT_EQ(out_.str(), "Defrost delay is on.\n");
}

TEST_F(Commands, ReservationIsSentWithoutAYear) {
    service_.answer("CreateDefrostReservations", {204, R"({"result":1,"id":"2"})"});
    ASSERT_EQ(corvanectl({"defrost", "add", "--start-date", "06-01", "--end-date", "08-31", "--at",
                          "17:00", "--for", "02:00:00", "--description", "Evening peak"}),
              0)
        << err_.str();
    EXPECT_EQ(sent().dump(), R"({"description":"Evening peak","endTime":"0000-08-31T00:00:00",)"
                             R"("period":"02:00:00","startTime":"0000-06-01T17:00:00"})");
    EXPECT_EQ(out_.str(), "Added as reservation 2.\n");
}

TEST_F(Commands, FullPlacesAreASentence) {
    service_.answer("CreateDefrostReservations", {409, R"({"result":0,"error":507})"});
    EXPECT_EQ(corvanectl({"defrost", "add", "--start-date", "06-01", "--end-date", "08-31", "--at",
                          "17:00", "--for", "02:00:00"}),
              1);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "corvanectl: all reservation places are taken; remove one with: "
                          "corvanectl defrost remove ID\n");
}

TEST_F(Commands, OnlyAReservationThatIsThereIsRemoved) {
    answerAll();
    service_.answer("DelDefrostReservations", {204, kDone});
    EXPECT_EQ(corvanectl({"defrost", "remove", "2"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("there is no reservation 2"));
    service_.answer("GetDefrostReservations", {205, R"({"result":1,"reservations":[
        {"id":"2","description":"","startTime":"0000-05-01T15:00:00",
         "endTime":"0000-10-31T00:00:00","period":"04:00:00"}]})"});
    EXPECT_EQ(corvanectl({"defrost", "remove", "2", "--json"}), 0) << err_.str();
    EXPECT_EQ(sent().dump(), R"({"id":"2"})");
    EXPECT_EQ(printed().dump(), R"({"removed":"2"})");
}

TEST_F(Commands, ListedReservationsHaveTheDocumentedShape) {
    answerAll();
    ASSERT_EQ(corvanectl({"defrost", "list", "--json"}), 0);
    json list = printed()["reservations"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(list[0]["current"].is_boolean());
    list[0].erase("current");
    EXPECT_EQ(list[0].dump(), R"({"at":"15:00:00","description":"Summer Season",)"
                              R"("firstDay":"05-01","for":"04:00:00","id":"0","lastDay":"10-31"})");
}

TEST_F(Commands, ConsumptionIsShownAsTheServiceWritesIt) {
    answerAll();
    ASSERT_EQ(corvanectl({"energy"}), 0);
    EXPECT_EQ(out_.str(), "  this month so far  22.045 kWh\n  last month         10.000 kWh\n");
    ASSERT_EQ(corvanectl({"energy", "--json"}), 0);
    EXPECT_EQ(printed().dump(), R"({"cumulative":"220.45","monthly":"100.00"})");
}

TEST_F(Commands, StatusAsksForEverythingAndKnowsTheEventByTheBlock) {
    answerAll();
    ASSERT_EQ(corvanectl({"status", "--json"}), 0) << err_.str();
    EXPECT_EQ(printed()["level"], 2);
    EXPECT_EQ(printed()["override"], 0);
    EXPECT_EQ(printed()["event"].dump(), R"({"stored":true})");
    EXPECT_TRUE(printed()["defrost"]["active"].is_null());
    EXPECT_THAT(printed()["missing"]["defrost.active"].get<std::string>(),
                HasSubstr("no service keeps its files in " + folder_ + "/state"));
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Commands, StatusReadsWhatOnlyTheFilesTell) {
    answerAll();
    service_.answer("GetDRLCOverride", {409, R"({"result":0})"});
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/defrost/activate", "1"}), 0);
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/dr/level", "3"}), 0);
    ASSERT_EQ(corvanectl({"status", "--json"}), 0) << err_.str();
    EXPECT_EQ(printed()["defrost"]["active"], 1);
    EXPECT_EQ(printed()["level"], 3);
    EXPECT_THAT(printed()["notes"]["level"].get<std::string>(), HasSubstr("as last stored"));
    EXPECT_TRUE(printed()["override"].is_null());
}

TEST_F(Commands, LevelThatDiffersFromTheStoredOneIsShownAsNotConfirmed) {
    answerAll();
    service_.answer("GetDRLCOverride", {205, R"({"result":1,"level":0,"override":0})"});
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/dr/level", "3"}), 0);
    ASSERT_EQ(corvanectl({"status", "--json"}), 0) << err_.str();
    EXPECT_EQ(printed()["level"], 0);
    EXPECT_EQ(printed()["notes"]["level"],
              "last stored: 3; not confirmed since the service started");
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/dr/level", "0"}), 0);
    ASSERT_EQ(corvanectl({"status", "--json"}), 0) << err_.str();
    EXPECT_FALSE(printed()["notes"].contains("level"));
}

TEST_F(Commands, SettingsThatAreOnlyReadMakeNoFolder) {
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/dr/level", "3"}), 0);
    std::filesystem::remove_all(folder_ + "/runtime");
    EXPECT_EQ(corvanectl({"settings", "get", "db/corvane/dr/level"}), 0);
    EXPECT_EQ(out_.str(), "3\n");
    EXPECT_EQ(corvanectl({"settings", "list"}), 0);
    EXPECT_EQ(out_.str(), "db/corvane/dr/level  3\n");
    EXPECT_EQ(corvanectl({"settings", "watch"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("runtime/settings/memory\" cannot be watched: No such file"));
    EXPECT_FALSE(std::filesystem::exists(folder_ + "/runtime"));
}

TEST_F(Commands, EventOfAnotherServicesFilesIsNotShown) {
    answerAll();
    ASSERT_EQ(corvanectl({"settings", "set", "db/corvane/defrost/activate", "0"}), 0);
    std::filesystem::create_directories(folder_ + "/state/db");
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open((folder_ + "/state/db/corvane.db").c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database,
                           "CREATE TABLE dr_usage_table(rowid INTEGER PRIMARY KEY, drlcLevel,"
                           " duration, drlcStartTime);"
                           "INSERT INTO dr_usage_table VALUES(0, 3, '01:00:00',"
                           " '2026-03-15T14:00:00')",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    ASSERT_EQ(corvanectl({"status", "--json"}), 0);
    EXPECT_EQ(printed()["event"]["level"], 3);
    service_.answer("GetDefrostBlock", {205, R"({"result":1,"block":0})"});
    ASSERT_EQ(corvanectl({"status", "--json"}), 0);
    EXPECT_EQ(printed()["event"].dump(), R"({"stored":false})");
    EXPECT_THAT(printed()["notes"]["event"].get<std::string>(), HasSubstr("CORVANE_STATE_DIR"));
}

TEST_F(Commands, StatusShowsWhatIsThereWhileTheServiceStarts) {
    answerAll();
    service_.answer("GetEnergyConsumption", {503, "not ready", 5});
    ASSERT_EQ(corvanectl({"status"}), 0);
    EXPECT_THAT(
        out_.str(),
        HasSubstr(
            "this month    unknown (the service cannot answer now: not ready; retry in 5 s)"));
}

TEST_F(Commands, StatusOfAServiceThatHasNothingYetIsOneLine) {
    for (const char *resource : {"GetDRLCOverride", "GetDefrostBlock", "GetDelayDefrost",
                                 "GetDefrostReservations", "GetEnergyConsumption"})
        service_.answer(resource, {503, "not ready", 7});
    EXPECT_EQ(corvanectl({"status"}), 1);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "corvanectl: the service cannot answer now: not ready; retry in 7 s\n");
}

TEST_F(Commands, SilenceEndsWithTheTimeOut) {
    service_.answer("GetEnergyConsumption", {0, ""});
    EXPECT_EQ(corvanectl({"--timeout", "0.1", "energy"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("no answer to GetEnergyConsumption"));
    EXPECT_THAT(err_.str(), HasSubstr("within 0.1 s"));
}

TEST_F(Commands, ResetIsNoAnswerOfThisService) {
    service_.answer("GetEnergyConsumption", {7, ""});
    EXPECT_EQ(corvanectl({"energy"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("rejects the request"));
}

TEST_F(Commands, AnswerWithoutTheMembersIsAFailureNotAGuess) {
    service_.answer("GetEnergyConsumption", {205, R"({"result":1,"cumulative":7})"});
    EXPECT_EQ(corvanectl({"energy"}), 1);
    EXPECT_THAT(err_.str(), HasSubstr("has no usable \"cumulative\""));
}

} // namespace
} // namespace corvane::client
