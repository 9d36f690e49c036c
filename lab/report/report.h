/*
 * What a run leaves behind: the answer in words, a folder with report.html, events.csv, hours.csv
 * and figures.json, and the comparison of two such folders.
 */
#ifndef CORVANE_LAB_REPORT_H
#define CORVANE_LAB_REPORT_H

#include "figures.h"

#include <string>
#include <vector>

namespace corvane::lab {

/* How the runs were made, for the reader. */
struct Making {
    std::string file;      // of the scenario, as it was given
    std::string command;   // that makes the same again
    double realSec = 0;    // from begin to end
    double virtualSec = 0; // of all runs together
    int lives = 0;
    std::uint64_t judgedSteps = 0; // of all runs together
};

/* The same scenario with several seeds: one line each. */
struct SeedLine {
    std::uint64_t seed = 0;
    double savedKwh = 0, savedPercent = 0, reducedWatt = 0, cameBackKwh = 0;
    double fridgeFood = 0, freezerFood = 0;
};

/* How the saving comes about, in kWh rounded as they are shown: saved = less - cameBack - later. */
struct SavingSum {
    double less = 0;     // in event hours
    double cameBack = 0; // in the hours after
    double later = 0;    // more than without in all other hours
    double saved = 0;
    int digits = 2;
};
[[nodiscard]] SavingSum savingSum(const Figures &figures);

/* The answer, most important sentence first. Plain text. */
[[nodiscard]] std::vector<std::string> answer(const Runs &runs, const Figures &figures);

/* For the terminal: title, answer, what was run. Lines end with "\n". */
[[nodiscard]] std::string summary(const Runs &runs, const Figures &figures,
                                  const std::vector<SeedLine> &seeds, const Making &making);

[[nodiscard]] std::string html(const Runs &runs, const Figures &figures,
                               const std::vector<SeedLine> &seeds, const Making &making);

/* Comma-separated, a header line, times in local time and UTC, figures with a point. */
[[nodiscard]] std::string eventsCsv(const Runs &runs, const Figures &figures);
[[nodiscard]] std::string hoursCsv(const Runs &runs);

/* The figures as one JSON object, which compare() reads. */
[[nodiscard]] std::string figuresJson(const Runs &runs, const Figures &figures);

/* Two folders side by side, for the terminal. Throws std::runtime_error, with one line, for a
 * folder without a readable figures.json. */
[[nodiscard]] std::string compareText(const std::string &folderA, const std::string &folderB);
[[nodiscard]] std::string compareJson(const std::string &folderA, const std::string &folderB);

/* With those above it; one that is there is kept. Throws std::runtime_error. */
void makeFolder(const std::string &folder);
/* Makes the folder and writes all of the above into it. Throws std::runtime_error. */
void writeFolder(const std::string &folder, const Runs &runs, const Figures &figures,
                 const std::vector<SeedLine> &seeds, const Making &making);

} // namespace corvane::lab

#endif
