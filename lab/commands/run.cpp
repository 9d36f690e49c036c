/*
 * corvane-lab run: one seed, several, or a fleet of them, each with the programme and without.
 */
#include "batch.h"
#include "commands.h"

#include <report.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

namespace corvane::lab {
namespace {

constexpr int kMostRuns = 1'000;
constexpr int kMostAppliances = 100'000;

struct Wish {
    std::string file;
    std::optional<std::uint64_t> seed;
    int runs = 1;
    int jobs = 0; // 0: as many as there are cores
    int appliances = 1;
    std::string out;
    bool json = false;
};

/* The same line again, for the report. */
std::string commandLine(const Wish &wish, std::uint64_t seed) {
    std::string line = "corvane-lab run " + wish.file + " --seed " + std::to_string(seed);
    if (wish.runs > 1)
        line += " --runs " + std::to_string(wish.runs);
    if (wish.appliances > 1)
        line += " --appliances " + std::to_string(wish.appliances);
    return line;
}

/* Adds an appliance to the sum of those before. */
void add(RunResult &sum, const RunResult &one) {
    for (std::size_t i = 0; i < sum.minutes.size(); ++i) {
        sum.minutes[i].watt += one.minutes[i].watt;
        sum.minutes[i].fridgeFood = std::max(sum.minutes[i].fridgeFood, one.minutes[i].fridgeFood);
        sum.minutes[i].freezerFood =
            std::max(sum.minutes[i].freezerFood, one.minutes[i].freezerFood);
        sum.minutes[i].level = std::max(sum.minutes[i].level, one.minutes[i].level);
    }
    sum.postedCounts += one.postedCounts;
}

SeedLine seedLine(const Runs &runs) {
    const Figures figures = figuresOf(runs);
    return {runs.with.seed,      figures.savedKwh(), figures.savedPercent(), figures.reducedWatt(),
            figures.cameBackKwh, figures.fridgeWith, figures.freezerWith};
}

/* Collects the results of all tasks into what the report tells. */
class Collector {
public:
    Collector(const Scenario &scenario, std::uint64_t firstSeed, int appliances)
        : firstSeed_(firstSeed), isFleet_(appliances > 1) {
        runs_.scenario = scenario;
        runs_.events = planEvents(scenario);
        runs_.appliances = appliances;
    }

    void take(const Task &task, RunResult result) {
        making_.virtualSec += static_cast<double>(result.minutes.size()) * 60;
        making_.lives += result.lives;
        making_.judgedSteps += result.judgedSteps;
        if (task.withProgramme && task.spreadReturn && (isFleet_ || task.seed == firstSeed_))
            count(result);
        if (runs_.events.empty())
            place({task.seed, false, true}, result);
        place(task, std::move(result));
    }

    Runs runs_;
    std::vector<SeedLine> seeds_;
    Making making_;

private:
    void count(const RunResult &result) {
        runs_.plannedEvents += static_cast<std::int64_t>(result.fates.size());
        for (const EventFate &fate : result.fates) {
            runs_.confirmedEvents += fate.confirmedMs != 0 ? 1 : 0;
            runs_.refusedEvents += fate.acceptedMs == 0 ? 1 : 0;
        }
    }

    void place(const Task &task, RunResult result) {
        if (isFleet_)
            addToFleet(task, std::move(result));
        else
            pair(task, std::move(result));
    }

    void addToFleet(const Task &task, RunResult result) {
        if (!task.spreadReturn && !runs_.noSpread)
            runs_.noSpread.emplace();
        RunResult &sum = !task.spreadReturn   ? *runs_.noSpread
                         : task.withProgramme ? runs_.with
                                              : runs_.without;
        if (sum.minutes.empty()) {
            sum = std::move(result);
            return;
        }
        if (task.seed == firstSeed_)
            std::swap(sum, result); // what it said is told, so the others are added to it
        add(sum, result);
    }

    /* A seed's line needs both of its runs. */
    void pair(const Task &task, RunResult result) {
        Runs &runs = waiting_[task.seed];
        (task.withProgramme ? runs.with : runs.without) = std::move(result);
        if (runs.with.minutes.empty() || runs.without.minutes.empty())
            return;
        runs.scenario = runs_.scenario;
        runs.events = runs_.events;
        seeds_.push_back(seedLine(runs));
        std::sort(seeds_.begin(), seeds_.end(),
                  [](const SeedLine &a, const SeedLine &b) { return a.seed < b.seed; });
        if (task.seed == firstSeed_) {
            runs_.with = std::move(runs.with);
            runs_.without = std::move(runs.without);
        }
        waiting_.erase(task.seed);
    }

    std::uint64_t firstSeed_;
    bool isFleet_;
    std::map<std::uint64_t, Runs> waiting_;
};

/* Without events both runs would be the same one. */
std::vector<Task> tasksOf(const Wish &wish, std::uint64_t firstSeed, bool hasEvents) {
    std::vector<Task> tasks;
    const int count = std::max(wish.runs, wish.appliances);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t seed = firstSeed + static_cast<std::uint64_t>(i);
        tasks.push_back({seed, true, true});
        if (!hasEvents)
            continue;
        tasks.push_back({seed, false, true});
        if (wish.appliances > 1)
            tasks.push_back({seed, true, false});
    }
    return tasks;
}

Scenario scenarioOf(const Wish &wish) {
    try {
        return readScenario(wish.file);
    } catch (const ScenarioError &error) {
        throw UsageError(error.what());
    }
}

int run(const Wish &wish) {
    const auto begin = std::chrono::steady_clock::now();
    const Scenario scenario = scenarioOf(wish);
    const std::uint64_t seed = wish.seed.value_or(scenario.seed);
    const int cores = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    const std::string folder =
        wish.out.empty() ? "lab-results/" + std::filesystem::path(wish.file).stem().string()
                         : wish.out;
    makeFolder(folder); // rather than find out after minutes
    Collector collector(scenario, seed, wish.appliances);
    runBatch(scenario, tasksOf(wish, seed, !collector.runs_.events.empty()),
             wish.jobs > 0 ? wish.jobs : cores,
             [&](const Task &task, RunResult result) { collector.take(task, std::move(result)); });
    collector.making_.file = wish.file;
    collector.making_.command = commandLine(wish, seed);
    collector.making_.realSec =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const Figures figures = figuresOf(collector.runs_);
    writeFolder(folder, collector.runs_, figures, collector.seeds_, collector.making_);
    if (wish.json) {
        std::fputs(figuresJson(collector.runs_, figures).c_str(), stdout);
    } else {
        std::fputs(summary(collector.runs_, figures, collector.seeds_, collector.making_).c_str(),
                   stdout);
        std::printf("Report: %s/report.html\n", folder.c_str());
    }
    return unmet(collector.runs_, figures).empty() ? 0 : 1;
}

} // namespace

void addRun(CLI::App &program, Action &action) {
    auto wish = std::make_shared<Wish>();
    CLI::App *command = program.add_subcommand(
        "run", "Run a scenario with its programme and without it, and write a report");
    command
        ->add_option("FILE", wish->file, "A scenario, such as lab/scenarios/august-evenings.toml")
        ->required()
        ->type_name("");
    command->add_option("--seed", wish->seed, "Another household (default: the scenario's)")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{INT64_MAX}))
        ->type_name("N");
    auto *runs =
        command->add_option("--runs", wish->runs, "So many seeds from this one on, 1 to 1000")
            ->check(CLI::Range(1, kMostRuns))
            ->type_name("N");
    command
        ->add_option("--appliances", wish->appliances,
                     "A fleet instead, 2 to 100000: the sum of so many seeds,\n"
                     "also without the spread return")
        ->check(CLI::Range(2, kMostAppliances))
        ->excludes(runs)
        ->type_name("N");
    command->add_option("--jobs", wish->jobs, "Runs at the same time (default: one a core)")
        ->check(CLI::Range(1, 256))
        ->type_name("N");
    command->add_option("--out", wish->out, "Folder of the report (default: lab-results/NAME)")
        ->type_name("DIR");
    command->add_flag("--json", wish->json, "Print the figures as JSON instead of the summary");
    command->callback([wish, &action] { action = [wish] { return run(*wish); }; });
}

} // namespace corvane::lab
