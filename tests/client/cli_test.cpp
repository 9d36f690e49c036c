/*
 * The command line: wrong usage ends with 2 and one line that leads to --help, before anything is
 * sent; and the settings commands, which need no service.
 */
#include "cli.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace corvane::client {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

struct Result {
    int status;
    std::string out;
    std::string err;
};

Result corvanectl(const std::vector<std::string> &arguments) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = run(arguments, out, err, false);
    return {status, out.str(), err.str()};
}

void expectOneLine(const std::string &text) {
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_THAT(text, StartsWith("corvanectl: "));
}

TEST(CommandLine, WrongUsageEndsWithTwoAndALineThatLeadsToHelp) {
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"frob"},
        {"--frob"},
        {"status", "more"},
        {"dr"},
        {"dr", "start"},
        {"dr", "start", "--level"},
        {"dr", "start", "--level", "0"},
        {"dr", "start", "--level", "5"},
        {"dr", "start", "--level", "two"},
        {"dr", "start", "--level", "2", "--duration", "00:00:00"},
        {"dr", "start", "--level", "2", "--duration", "1:00:00"},
        {"dr", "start", "--level", "2", "--start", "24:00:00"},
        {"dr", "cancel", "--level", "2"},
        {"override"},
        {"override", "maybe"},
        {"defrost"},
        {"defrost", "add"},
        {"defrost", "add", "--start-date", "06-31", "--end-date", "07-01", "--at", "10:00", "--for",
         "01:00:00"},
        {"defrost", "add", "--start-date", "06-01", "--end-date", "07-01", "--at", "10", "--for",
         "01:00:00"},
        {"defrost", "add", "--start-date", "06-01", "--end-date", "07-01", "--at", "10:00", "--for",
         "24:00:00"},
        {"defrost", "add", "--start-date", "06-01", "--end-date", "07-01", "--at", "10:00", "--for",
         "01:00:00", "--description", "it's"},
        {"defrost", "add", "--start-date", "06-01", "--end-date", "07-01", "--at", "10:00", "--for",
         "01:00:00", "--description", "1234567890123456789012345678901"},
        {"defrost", "remove"},
        {"defrost", "remove", "0"},
        {"settings", "get"},
        {"settings", "set", "db/x"},
        {"--timeout", "0", "status"},
        {"--timeout", "soon", "status"},
        {"--url", "http://x", "status"},
        {"--url", "coaps://x", "status"},
        {"--url", "coap://x", "--psk-file", "keys", "status"},
        {"--url", "coap://x", "--identity", "me", "status"},
    };
    for (const auto &arguments : wrong) {
        const Result result = corvanectl(arguments);
        const std::string line = testing::PrintToString(arguments);
        EXPECT_EQ(result.status, 2) << line;
        EXPECT_EQ(result.out, "") << line;
        expectOneLine(result.err);
        EXPECT_THAT(result.err, EndsWith("--help\n")) << line;
    }
}

TEST(CommandLine, HintNamesTheCommandThatWasMeant) {
    EXPECT_THAT(corvanectl({"dr", "start", "--level", "9"}).err,
                EndsWith("; see: corvanectl dr start --help\n"));
    EXPECT_THAT(corvanectl({"frob"}).err, EndsWith("; see: corvanectl --help\n"));
}

TEST(CommandLine, CommandThatIsMissingOrUnknownIsAnsweredWithWhatIsAllowed) {
    EXPECT_EQ(corvanectl({"override", "maybe"}).err,
              "corvanectl: \"maybe\" is none of on or off; see: corvanectl override --help\n");
    EXPECT_EQ(corvanectl({"dr"}).err,
              "corvanectl: a command is missing, expected start or cancel; see: corvanectl dr "
              "--help\n");
    EXPECT_EQ(corvanectl({"frob"}).err,
              "corvanectl: \"frob\" is none of status, dr, override, defrost, energy, watch or "
              "settings; see: corvanectl --help\n");
    EXPECT_THAT(corvanectl({}).err, HasSubstr("a command is missing, expected status, dr, "));
    EXPECT_THAT(corvanectl({"--timeout", "x"}).err, HasSubstr("--timeout"));
    EXPECT_THAT(corvanectl({"defrost", "add"}).err, HasSubstr("--start-date is required"));
    EXPECT_THAT(corvanectl({"override", "on", "off"}).err, HasSubstr("not expected: off"));
}

TEST(CommandLine, EveryCommandHasHelpWithExamples) {
    const std::vector<std::vector<std::string>> commands{
        {},
        {"status"},
        {"dr"},
        {"dr", "start"},
        {"dr", "cancel"},
        {"override"},
        {"override", "on"},
        {"override", "off"},
        {"defrost"},
        {"defrost", "on"},
        {"defrost", "off"},
        {"defrost", "list"},
        {"defrost", "add"},
        {"defrost", "remove"},
        {"energy"},
        {"watch"},
        {"settings"},
        {"settings", "get"},
        {"settings", "set"},
        {"settings", "list"},
        {"settings", "watch"},
    };
    for (std::vector<std::string> arguments : commands) {
        std::string name = "corvanectl";
        for (const std::string &argument : arguments)
            name += " " + argument;
        arguments.push_back("--help");
        const Result result = corvanectl(arguments);
        EXPECT_EQ(result.status, 0) << name;
        EXPECT_THAT(result.out, HasSubstr("Examples:\n  " + name)) << name;
        EXPECT_THAT(result.out, testing::Not(HasSubstr("\n\n\n"))) << name;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 80u) << line;
    }
}

TEST(CommandLine, VersionIsOneLine) {
    const Result result = corvanectl({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, testing::MatchesRegex("corvanectl [0-9.]+\n"));
}

TEST(CommandLine, AddressThatNobodyListensAtEndsWithOne) {
    const Result result = corvanectl({"--url", "coap://127.0.0.1:1", "energy"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    expectOneLine(result.err);
    EXPECT_THAT(result.err, HasSubstr("is the service running at 127.0.0.1:1?"));
}

TEST(CommandLine, AddressComesFromTheEnvironmentWhenNotGiven) {
    setenv("CORVANE_COAP_URL", "coap://127.0.0.1:2", 1);
    EXPECT_THAT(corvanectl({"energy"}).err, HasSubstr("127.0.0.1:2"));
    EXPECT_THAT(corvanectl({"energy", "--url", "coap://127.0.0.1:1"}).err,
                HasSubstr("127.0.0.1:1/"));
    unsetenv("CORVANE_COAP_URL");
}

class SettingsCommands : public testing::Test {
protected:
    SettingsCommands() {
        std::string name = testing::TempDir() + "corvanectl-XXXXXX";
        folder_ = mkdtemp(name.data());
        setenv("CORVANE_STATE_DIR", (folder_ + "/state").c_str(), 1);
        setenv("CORVANE_RUNTIME_DIR", (folder_ + "/runtime").c_str(), 1);
    }
    ~SettingsCommands() override {
        unsetenv("CORVANE_STATE_DIR");
        unsetenv("CORVANE_RUNTIME_DIR");
        std::filesystem::remove_all(folder_);
    }

    std::string folder_;
};

TEST_F(SettingsCommands, WrittenValueIsReadBack) {
    EXPECT_EQ(corvanectl({"settings", "set", "db/corvane/dr/level", "3"}).out,
              "db/corvane/dr/level = 3\n");
    EXPECT_EQ(corvanectl({"settings", "get", "db/corvane/dr/level"}).out, "3\n");
    EXPECT_EQ(corvanectl({"settings", "get", "db/corvane/dr/level", "--json"}).out,
              "{\n  \"key\": \"db/corvane/dr/level\",\n  \"type\": \"int\",\n  \"value\": 3\n}\n");
}

TEST_F(SettingsCommands, ValueThatReadsAsAnIntegerIsOneUnlessTextIsWanted) {
    const auto typeOf = [](const std::vector<std::string> &arguments) {
        return nlohmann::json::parse(corvanectl(arguments).out)["type"].get<std::string>();
    };
    EXPECT_EQ(typeOf({"--json", "settings", "set", "memory/a", "-7"}), "int");
    EXPECT_EQ(typeOf({"--json", "settings", "set", "memory/a", "7x"}), "text");
    EXPECT_EQ(typeOf({"--json", "settings", "set", "memory/a", "99999999999"}), "text");
    EXPECT_EQ(typeOf({"--json", "settings", "set", "--text", "memory/a", "7"}), "text");
    EXPECT_EQ(corvanectl({"settings", "get", "memory/a"}).out, "7\n");
}

TEST_F(SettingsCommands, ListShowsEveryKeySorted) {
    corvanectl({"settings", "set", "memory/longer/name", "SET_IT"});
    corvanectl({"settings", "set", "db/a", "1"});
    EXPECT_EQ(corvanectl({"settings", "list"}).out,
              "db/a                1\nmemory/longer/name  \"SET_IT\"\n");
    EXPECT_EQ(nlohmann::json::parse(corvanectl({"settings", "list", "--json"}).out).dump(),
              R"({"settings":[{"key":"db/a","type":"int","value":1},)"
              R"({"key":"memory/longer/name","type":"text","value":"SET_IT"}]})");
}

TEST_F(SettingsCommands, KeyThatWasNeverWrittenIsAFailure) {
    corvanectl({"settings", "set", "db/a", "1"});
    const Result result = corvanectl({"settings", "get", "db/b"});
    EXPECT_EQ(result.status, 1);
    expectOneLine(result.err);
    EXPECT_THAT(result.err, HasSubstr("db/b has never been written"));
}

TEST_F(SettingsCommands, KeyOutsideTheStoreIsRefused) {
    const Result result = corvanectl({"settings", "set", "db/../escape", "1"});
    EXPECT_EQ(result.status, 1);
    expectOneLine(result.err);
}

TEST_F(SettingsCommands, LookingMakesNoFolders) {
    for (const char *command : {"list", "watch"}) {
        const Result result = corvanectl({"settings", command});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("no settings are kept in " + folder_ + "/state"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(SettingsCommands, DamagedKeyIsShownAsUnreadable) {
    corvanectl({"settings", "set", "db/a", "1"});
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder_))
        if (entry.path().filename() == "a")
            std::filesystem::resize_file(entry.path(), 2);
    EXPECT_EQ(corvanectl({"settings", "get", "db/a"}).status, 1);
    EXPECT_EQ(corvanectl({"settings", "list"}).out, "db/a  cannot be read\n");
}

} // namespace
} // namespace corvane::client
