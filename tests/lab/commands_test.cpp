/*
 * The command lines of run and compare, from the words to the folder that they leave.
 */
#include "in_temp_folder.h"

#include <commands.h>
#include <scenario.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using namespace corvane::lab;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class LabCommand : public InTempFolder {
protected:
    std::string scenario(const std::string &more = "") {
        const std::string file = folder_ + "/day.toml";
        std::ofstream(file) << "from = 2026-06-17\nto = 2026-06-17\n[[programme]]\nlevel = 4\n"
                               "from = \"06:00\"\nto = \"08:00\"\n"
                            << more;
        return file;
    }

    std::string quietScenario() {
        const std::string file = folder_ + "/quiet.toml";
        std::ofstream(file) << "from = 2026-06-17\nto = 2026-06-17\n";
        return file;
    }

    /* The exit status; what was said is in output_. */
    int run(std::vector<std::string> words) {
        words.insert(words.begin(), "corvane-lab");
        std::vector<char *> arguments;
        for (std::string &word : words)
            arguments.push_back(word.data());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = runCommand(static_cast<int>(arguments.size()), arguments.data());
        output_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
        return status;
    }

    nlohmann::json figures(const std::string &name) {
        return nlohmann::json::parse(std::ifstream(folder_ + "/" + name + "/figures.json"));
    }

    std::string output_, errors_;
};

TEST_F(LabCommand, WrongUsageIsOneLineAndStatusTwo) {
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{},
                                               {"dance"},
                                               {"run"},
                                               {"explore"},
                                               {"explore", "--seeds", "0"},
                                               {"explore", "--seeds", "1", "--days", "-1"},
                                               {"explore", "--seeds", "1", "--jobs", "0"},
                                               {"replay"},
                                               {"replay", "--seed", "x"},
                                               {"replay", "--seed", "1", "--file", "some"},
                                               {"replay", "--file", "some", "--days", "3"},
                                               {"replay", "--file", "some", "--no-weather"},
                                               {"replay", "--file", "some", "--awake"},
                                               {"replay", "--seed", "1", "--jobs", "2"}}) {
        SCOPED_TRACE(words.empty() ? "" : words.back());
        EXPECT_EQ(run(words), 2);
        EXPECT_THAT(errors_, StartsWith("corvane-lab: "));
        EXPECT_EQ(errors_.find('\n'), errors_.size() - 1) << errors_;
        EXPECT_EQ(output_, "");
    }
}

TEST_F(LabCommand, WrongUsageNamesTheHelpThatTellsMore) {
    EXPECT_EQ(run({"dance"}), 2);
    EXPECT_EQ(errors_, "corvane-lab: \"dance\" is no command; expected run, compare, explore or "
                       "replay; see corvane-lab --help\n");
    EXPECT_EQ(run({"run", "a.toml", "--seed", "x"}), 2);
    EXPECT_THAT(errors_, HasSubstr("; see corvane-lab run --help\n"));
}

TEST_F(LabCommand, HelpOfEachCommandHasExamplesOfIt) {
    for (const std::string command : {"run", "compare", "explore", "replay"}) {
        EXPECT_EQ(run({command, "--help"}), 0);
        EXPECT_THAT(output_, HasSubstr("Examples:\n  corvane-lab " + command + " "));
        EXPECT_EQ(run({"--help"}), 0);
        EXPECT_THAT(output_, HasSubstr("\n  corvane-lab " + command + " "));
    }
}

TEST_F(LabCommand, ExploreTellsItsRunsAndReplayRepeatsOneToTheLastSwitch) {
    EXPECT_EQ(run({"explore", "--seeds", "2", "--days", "0.02", "--no-weather"}), 0);
    EXPECT_THAT(output_, HasSubstr("2 runs, "));
    EXPECT_THAT(output_, HasSubstr("; 0 broken\n"));
    const auto lineWithTheHash = [this] {
        return output_.substr(0, output_.find('\n', output_.find("trace hash")));
    };
    EXPECT_EQ(run({"replay", "--seed", "2", "--days", "0.02"}), 0);
    const std::string once = lineWithTheHash();
    EXPECT_THAT(once, HasSubstr("trace hash"));
    EXPECT_EQ(run({"replay", "--seed", "2", "--days", "0.02"}), 0);
    EXPECT_EQ(lineWithTheHash(), once);
}

TEST_F(LabCommand, ReplayOfAFileThatIsNoneOrHasAnotherLineFails) {
    EXPECT_EQ(run({"replay", "--file", folder_ + "/none"}), 2);
    EXPECT_THAT(errors_, HasSubstr("/none: cannot be read; give a file such as "));
    std::ofstream(folder_ + "/seeds") << "# comment\n\n5 much\n";
    EXPECT_EQ(run({"replay", "--file", folder_ + "/seeds"}), 2);
    EXPECT_THAT(errors_, HasSubstr("5 much"));
    std::ofstream(folder_ + "/seeds") << "# comment\n\n";
    EXPECT_EQ(run({"replay", "--file", folder_ + "/seeds"}), 2);
    EXPECT_THAT(errors_, HasSubstr("/seeds: names no world; give a file such as "));
}

TEST_F(LabCommand, RunAnswersAndLeavesAReport) {
    EXPECT_EQ(run({"run", scenario(), "--out", folder_ + "/out"}), 0);
    EXPECT_THAT(output_, HasSubstr("The 1 event saved "));
    EXPECT_THAT(output_, HasSubstr("Report: " + folder_ + "/out/report.html\n"));
    EXPECT_TRUE(std::filesystem::exists(folder_ + "/out/report.html"));
    EXPECT_EQ(figures("out")["eventsConfirmed"], 1);
    EXPECT_EQ(errors_, ""); // no progress bar where there is no terminal
}

TEST_F(LabCommand, RunIntoAFolderThatCannotBeMadeSaysWhatToDo) {
    std::ofstream(folder_ + "/file") << "in the way";
    EXPECT_EQ(run({"run", scenario(), "--out", folder_ + "/file/out"}), 1);
    EXPECT_THAT(errors_, HasSubstr("give another folder with --out"));
    EXPECT_EQ(output_, "");
}

TEST_F(LabCommand, RunWithAnotherSeedIsAnotherHousehold) {
    EXPECT_EQ(run({"run", scenario(), "--out", folder_ + "/a"}), 0);
    EXPECT_EQ(run({"run", scenario(), "--seed", "2", "--out", folder_ + "/b"}), 0);
    EXPECT_NE(figures("a")["energyWithoutKwh"], figures("b")["energyWithoutKwh"]);
    EXPECT_EQ(run({"compare", folder_ + "/a", folder_ + "/b"}), 0);
    EXPECT_THAT(output_, HasSubstr("Note: they differ in \"seed\""));
}

TEST_F(LabCommand, RunsOfSeveralSeedsHaveALineEach) {
    EXPECT_EQ(run({"run", scenario(), "--runs", "2", "--jobs", "2", "--out", folder_ + "/a"}), 0);
    EXPECT_THAT(output_, HasSubstr("\n   1  "));
    EXPECT_THAT(output_, HasSubstr("\n   2  "));
}

TEST_F(LabCommand, AFleetIsTheSumOfItsAppliances) {
    const std::string file = quietScenario();
    double kWh = 0;
    for (const char *seed : {"1", "2"}) {
        EXPECT_EQ(run({"run", file, "--seed", seed, "--out", folder_ + "/" + seed}), 0);
        kWh += figures(seed)["energyKwh"].get<double>();
    }
    EXPECT_EQ(run({"run", file, "--appliances", "2", "--out", folder_ + "/fleet"}), 0);
    EXPECT_NEAR(figures("fleet")["energyKwh"].get<double>(), kWh, 1e-4);
}

TEST_F(LabCommand, AFleetTellsTheReturnWithoutItsSpreadToo) {
    EXPECT_EQ(run({"run", scenario(), "--appliances", "2", "--out", folder_ + "/fleet"}), 0);
    const auto fleet = figures("fleet");
    EXPECT_EQ(fleet["appliances"], 2);
    EXPECT_EQ(fleet["events"], 2);
    EXPECT_EQ(fleet["eventsConfirmed"], 2);
    EXPECT_NE(fleet["returnPeakNoSpreadWatt"], fleet["returnPeakWatt"]);
    EXPECT_THAT(output_, HasSubstr("the 2 refrigerators"));
}

TEST_F(LabCommand, AnExpectationThatIsMissedIsAStatus) {
    const std::string file = scenario("[expect]\nenergy-below-kwh = 0.1\n");
    EXPECT_EQ(run({"run", file, "--out", folder_ + "/out"}), 1);
    EXPECT_THAT(output_, HasSubstr("Not as expected: the energy, in kWh, is "));
}

TEST_F(LabCommand, WithoutEventsThereIsNothingToCompareWith) {
    EXPECT_EQ(run({"run", quietScenario(), "--json", "--out", folder_ + "/out"}), 0);
    const auto json = nlohmann::json::parse(output_);
    EXPECT_EQ(json["savedKwh"], 0);
    EXPECT_EQ(json["events"], 0);
}

TEST_F(LabCommand, ScenarioThatIsWrongIsSaidInOneLineAndLeavesNothing) {
    EXPECT_EQ(run({"run", scenario("speed = 1\n"), "--out", folder_ + "/out"}), 2);
    EXPECT_THAT(errors_, StartsWith("corvane-lab: " + folder_ + "/day.toml:7: programme.speed: "));
    EXPECT_FALSE(std::filesystem::exists(folder_ + "/out"));
    EXPECT_EQ(run({"run", scenario(), "--runs", "0"}), 2);
    EXPECT_EQ(run({"run", scenario(), "--runs", "2", "--appliances", "2"}), 2);
    EXPECT_EQ(run({"compare", folder_, folder_}), 2);
    EXPECT_THAT(errors_, HasSubstr("not the figures of a run"));
}

} // namespace
