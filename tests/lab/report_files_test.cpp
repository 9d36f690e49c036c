/*
 * The folder that a run leaves: tables, figures, page, and the comparison of two of them.
 */
#include "in_temp_folder.h"
#include "made_up_runs.h"

#include <report.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using namespace corvane::lab;
using ::testing::HasSubstr;
using ::testing::Not;

class ReportFolder : public InTempFolder {
protected:
    std::string write(const std::string &name, const Runs &runs) {
        writeFolder(folder_ + "/" + name, runs, figuresOf(runs), {}, {});
        return folder_ + "/" + name;
    }
};

std::string content(const std::string &file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        all.push_back(line);
    return all;
}

TEST(EventsCsv, HasALineForEachEvent) {
    const Runs runs = madeUpRuns();
    const auto rows = lines(eventsCsv(runs, figuresOf(runs)));
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[1], "evening,3,2026-06-01 18:00:00,2026-06-01 20:00:00,2026-06-01T18:00:00Z,"
                       "2026-06-01 17:30:00,1,2026-06-01 18:00:00,2026-06-01 18:00:02,"
                       "2026-06-01 20:00:01,confirmed,40.0,100.0,60.0,0.0600,3.00,-18.00");
}

TEST(EventsCsv, QuotesWhatHoldsACommaOrAQuote) {
    Runs runs = madeUpRuns();
    runs.events[0].programme = "a, \"b\"";
    EXPECT_THAT(lines(eventsCsv(runs, figuresOf(runs)))[1], HasSubstr("\"a, \"\"b\"\"\",3,"));
}

TEST(EventsCsv, LeavesTheTimesOfWhatDidNotHappenEmpty) {
    Runs runs = madeUpRuns();
    runs.with.fates[0] = {.attempts = 4};
    EXPECT_THAT(lines(eventsCsv(runs, figuresOf(runs)))[1], HasSubstr("Z,,4,,,,refused,"));
}

TEST(HoursCsv, HasALineForEachHour) {
    const auto rows = lines(hoursCsv(madeUpRuns()));
    ASSERT_EQ(rows.size(), 49U);
    EXPECT_EQ(rows[19], "2026-06-01 18:00:00,2026-06-01T18:00:00Z,40.00,100.00,3,3.00,-18.00,3.00,"
                        "-18.00,0,0");
}

TEST(FiguresJson, HoldsTheAnswer) {
    const Runs runs = madeUpRuns();
    const auto json = nlohmann::json::parse(figuresJson(runs, figuresOf(runs)));
    EXPECT_EQ(json["title"], "Made up");
    EXPECT_NEAR(json["savedKwh"].get<double>(), 0.12, 1e-9);
    EXPECT_NEAR(json["reducedWatt"].get<double>(), 60, 1e-6);
    EXPECT_EQ(json["eventsConfirmed"], 2);
}

TEST(ReportPage, BeginsWithTheAnswerAndNeedsNothingElse) {
    const Runs runs = madeUpRuns();
    const std::string page = html(runs, figuresOf(runs), {}, {});
    const std::size_t answerAt = page.find("The 2 events saved 0.12 kWh");
    ASSERT_NE(answerAt, std::string::npos);
    EXPECT_LT(answerAt, page.find("<svg"));
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_THAT(page, Not(HasSubstr("http")));
    EXPECT_THAT(page, Not(HasSubstr("nan")));
    EXPECT_THAT(page, Not(HasSubstr(">inf")));
}

std::size_t countIn(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

TEST(ReportPage, ShowsHowTheSavingAddsUp) {
    const Runs runs = madeUpRuns();
    const std::string page = html(runs, figuresOf(runs), {}, {});
    const std::size_t sumAt = page.find("How the saving adds up");
    ASSERT_NE(sumAt, std::string::npos);
    std::size_t at = sumAt;
    for (const char *figure : {">+0.24 kWh<", ">-0.12 kWh<", ">0.00 kWh<", ">0.12 kWh<"}) {
        at = page.find(figure, at);
        ASSERT_NE(at, std::string::npos) << figure;
    }
    EXPECT_LT(at, page.find("</section>", sumAt));
}

TEST(ReportPage, TellsLargePowersInKilowatts) {
    Runs runs = madeUpRuns();
    for (RunResult *run : {&runs.with, &runs.without})
        for (Minute &minute : run->minutes)
            minute.watt *= 1000;
    const std::string page = html(runs, figuresOf(runs), {}, {});
    EXPECT_THAT(page, HasSubstr("Mean power in event hours (4.0 h), kW</th><td>40.0</td><td>100.0"
                                "</td><td>-60.0</td>"));
}

TEST(ReportPage, DrawsEveryChartForAPhoneToo) {
    const Runs runs = madeUpRuns();
    const std::string page = html(runs, figuresOf(runs), {}, {});
    EXPECT_EQ(countIn(page, "class=\"wide\""), 3U);
    EXPECT_EQ(countIn(page, "class=\"narrow\""), 3U);
}

/* Wider than a phone is only what scrolls in a box of its own, also with the keys. */
TEST(ReportPage, LetsWideTablesScrollInTheirOwnBox) {
    const Runs runs = madeUpRuns();
    const std::string page = html(runs, figuresOf(runs), {{.seed = 1}, {.seed = 2}}, {});
    std::size_t tables = 0;
    for (std::size_t at = page.find("<table"); at != page.npos; at = page.find("<table", at + 1)) {
        ++tables;
        const std::size_t box = page.rfind("<div class=\"scroll", at);
        const bool isInBox = box != page.npos && page.find('>', box) + 1 == at;
        const bool isFolding = page.compare(at, 13, "<table class=") == 0;
        EXPECT_NE(isInBox, isFolding) << page.substr(at, 80);
        if (isInBox) {
            EXPECT_THAT(page.substr(box, at - box), HasSubstr("tabindex=\"0\" aria-label=\""));
        }
    }
    EXPECT_EQ(tables, 5U);
}

TEST(ReportPage, WithoutEventsHasNothingToCompare) {
    Runs runs = madeUpRuns();
    runs.events.clear();
    runs.with = runs.without;
    const std::string page = html(runs, figuresOf(runs), {}, {});
    EXPECT_THAT(page, Not(HasSubstr("How the saving adds up")));
    EXPECT_THAT(page, Not(HasSubstr("difference")));
    EXPECT_THAT(page, HasSubstr("Defrosts"));
}

TEST(ReportPage, TellsARepeatedRefusalOnce) {
    Runs runs = madeUpRuns();
    for (const std::int64_t minute : {0, 1, 2})
        runs.with.notes.push_back(
            {runs.with.beginMs + minute * kMinuteMs, NoteKind::Request, true,
             "ControlDRLC(2, 01:5" + std::to_string(minute) + ":00) refused"});
    runs.with.notes.push_back({runs.with.beginMs, NoteKind::Fault, false, "kill"});
    const std::string page = html(runs, figuresOf(runs), {}, {});
    const std::string trouble = page.substr(page.find("Faults and refusals"));
    const std::string table = trouble.substr(0, trouble.find("</table>"));
    EXPECT_THAT(table, HasSubstr("ControlDRLC(2, 01:50:00) refused, 3 times until 00:02:00<"));
    EXPECT_EQ(countIn(table, "ControlDRLC"), 1U);
    EXPECT_THAT(table, HasSubstr(">kill<"));
}

TEST(ReportPage, TellsRefusalsOfTwoLevelsApart) {
    Runs runs = madeUpRuns();
    for (const char *level : {"2", "3"})
        runs.with.notes.push_back({runs.with.beginMs, NoteKind::Request, true,
                                   "ControlDRLC(" + std::string(level) + ", 01:50:00) refused"});
    const std::string page = html(runs, figuresOf(runs), {}, {});
    const std::string trouble = page.substr(page.find("Faults and refusals"));
    EXPECT_EQ(countIn(trouble.substr(0, trouble.find("</table>")), "ControlDRLC"), 2U);
}

TEST(ReportPage, TellsTheDayToWhichARepeatedRefusalGoesOn) {
    Runs runs = madeUpRuns();
    for (const std::int64_t day : {0, 1})
        runs.with.notes.push_back({runs.with.beginMs + day * 1'440 * kMinuteMs, NoteKind::Request,
                                   true, "ControlDRLC(2, 01:50:00) refused"});
    EXPECT_THAT(html(runs, figuresOf(runs), {}, {}),
                HasSubstr("refused, 2 times until 2026-06-02 00:00:00<"));
}

TEST(ReportPage, MakesHarmlessWhatAScenarioSays) {
    Runs runs = madeUpRuns();
    runs.scenario.title = "<img src=x>";
    runs.events[0].programme = "<b>";
    const std::string page = html(runs, figuresOf(runs), {}, {});
    EXPECT_THAT(page, Not(HasSubstr("<img")));
    EXPECT_THAT(page, HasSubstr("&lt;img src=x&gt;"));
    EXPECT_THAT(page, Not(HasSubstr("<b>evening")));
}

TEST_F(ReportFolder, HoldsAllFourFiles) {
    const std::string folder = write("a", madeUpRuns());
    for (const char *name : {"report.html", "events.csv", "hours.csv", "figures.json"})
        EXPECT_FALSE(content(folder + "/" + name).empty()) << name;
}

TEST_F(ReportFolder, ThatCannotBeMadeIsRefusedWithWhatToDo) {
    const Runs runs = madeUpRuns();
    std::ofstream(folder_ + "/file") << "in the way";
    try {
        write("file/a", runs);
        FAIL() << "written";
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), HasSubstr("give another folder with --out"));
    }
}

TEST_F(ReportFolder, ComparesWithAnother) {
    Runs other = madeUpRuns();
    for (Minute &minute : other.with.minutes)
        minute.watt -= 10;
    const std::string a = write("a", madeUpRuns());
    const std::string b = write("b", other);
    const std::string text = compareText(a, b);
    EXPECT_THAT(text, HasSubstr("saved, kWh                                0.12        0.60        "
                                "0.48\n"));
    EXPECT_THAT(text, Not(HasSubstr("Note:")));
    const auto json = nlohmann::json::parse(compareJson(a, b));
    EXPECT_NEAR(json["difference"]["savedKwh"].get<double>(), 0.48, 1e-6);
}

TEST_F(ReportFolder, ComparedWithAnotherSeedSaysThatTheyDiffer) {
    Runs other = madeUpRuns();
    other.with.seed = 2;
    EXPECT_THAT(compareText(write("a", madeUpRuns()), write("b", other)),
                HasSubstr("Note: they differ in \"seed\""));
}

TEST_F(ReportFolder, WithoutFiguresIsNotCompared) {
    const std::string a = write("a", madeUpRuns());
    std::filesystem::create_directory(folder_ + "/empty");
    EXPECT_THROW((void)compareText(a, folder_ + "/empty"), std::runtime_error);
    std::ofstream(folder_ + "/empty/figures.json") << "{\"energyKwh\"";
    EXPECT_THROW((void)compareText(a, folder_ + "/empty"), std::runtime_error);
}

TEST(RunBytes, GiveTheSameRunBack) {
    RunResult run = madeUpRuns().with;
    run.notes.push_back({12, NoteKind::Fault, true, "kill"});
    run.lives = 3;
    const RunResult back = resultFromBytes(toBytes(run));
    EXPECT_EQ(back.minutes.size(), run.minutes.size());
    EXPECT_EQ(back.minutes[18 * 60].watt, 40);
    EXPECT_EQ(back.fates, run.fates);
    EXPECT_EQ(back.notes.at(0).text, "kill");
    EXPECT_EQ(back.lives, 3);
}

TEST(RunBytes, ThatAreCutAreRefused) {
    const std::string bytes = toBytes(madeUpRuns().with);
    EXPECT_THROW((void)resultFromBytes(bytes.substr(0, bytes.size() - 1)), std::runtime_error);
    EXPECT_THROW((void)resultFromBytes("not a run at all"), std::runtime_error);
    EXPECT_THROW((void)resultFromBytes(bytes + "x"), std::runtime_error);
}

} // namespace
