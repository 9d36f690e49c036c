/*
 * The subcommands explore and replay: worlds drawn from seeds, each judged, in as many processes as
 * there are jobs.
 */
#include "commands.h"
#include "progress_bar.h"
#include "runs.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::lab {
namespace {

constexpr int kBrokenStatus = 1;
constexpr int kMaxJobs = 64;
constexpr auto kGlance = std::chrono::milliseconds(20);

struct Wish {
    bool isReplay = false;
    std::uint64_t seeds = 0; // how many, of explore
    std::string file;        // of replay; empty: the one seed
    int jobs = 1;
    bool isCalm = false;
    Setup setup;
};

/* "SEED DAYS [awake] what it showed"; # begins a comment. */
std::vector<Setup> readFile(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw UsageError(path + ": cannot be read; give a file such as lab/failed_seeds.txt");
    std::vector<Setup> setups;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        Setup setup;
        std::istringstream fields(line);
        if (!(fields >> setup.seed >> setup.days) || setup.days <= 0)
            throw UsageError(path + ": a line is not \"SEED DAYS what it showed\": \"" +
                             line.substr(0, 80) + "\"");
        std::string word;
        setup.staysAwake = fields >> word && word == "awake";
        setups.push_back(setup);
    }
    if (setups.empty())
        throw UsageError(path + ": names no world; give a file such as lab/failed_seeds.txt");
    return setups;
}

std::vector<Setup> setupsOf(const Wish &wish) {
    if (!wish.file.empty())
        return readFile(wish.file);
    std::vector<Setup> setups(wish.isReplay ? 1 : wish.seeds, wish.setup);
    for (std::size_t i = 0; i < setups.size(); ++i)
        setups[i].seed += i;
    return setups;
}

/* What the jobs share: which run is next, and what they add up. */
struct Totals {
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> done = 0;
    std::atomic<std::uint64_t> broken = 0;
    std::atomic<std::uint64_t> lives = 0;
    std::atomic<double> virtualSec = 0;
    std::atomic<double> suspendedSec = 0;
    std::atomic<double> realSec = 0; // of all jobs together
};

void tell(const Setup &setup, const Result &result) {
    const Weather weather = setup.hasWeather ? drawWeather(setup.seed) : calmWeather(setup.seed);
    std::ostringstream text;
    text << "seed " << setup.seed << ": " << describe(weather) << "\n" << result.report;
    if (result.isBroken)
        text << "  repeat with: corvane-lab replay --seed " << setup.seed << " --days "
             << setup.days << " --trace" << (setup.hasWeather ? "" : " --no-weather")
             << (setup.staysAwake ? " --awake" : "") << "\n";
    else
        text << result.lives << " lives, " << result.steps << " steps, trace hash " << std::hex
             << result.hash << "\n";
    std::fputs(text.str().c_str(), stdout);
    std::fflush(stdout);
}

/* One job: takes runs until none is left. */
void work(const std::vector<Setup> &setups, bool tellsAll, const ProgressBar &bar, Totals &totals) {
    for (std::size_t i = totals.next++; i < setups.size(); i = totals.next++) {
        if (tellsAll && setups[i].printsTrace)
            std::printf("seed %llu: %s\n", static_cast<unsigned long long>(setups[i].seed),
                        describe(drawWeather(setups[i].seed)).c_str());
        const Result result = runOnce(setups[i]);
        if (result.isBroken || tellsAll) {
            bar.clear();
            tell(setups[i], result);
        }
        totals.broken += result.isBroken ? 1 : 0;
        totals.lives += static_cast<std::uint64_t>(result.lives);
        totals.virtualSec += result.virtualSec;
        totals.suspendedSec += result.suspendedSec;
        totals.realSec += result.realSec;
        ++totals.done;
    }
}

/* True: one of the jobs has failed. */
bool workInJobs(const std::vector<Setup> &setups, int jobs, bool tellsAll, Totals &totals) {
    ProgressBar bar;
    std::fflush(nullptr);
    for (int job = 0; job < jobs; ++job) {
        const pid_t child = fork();
        if (child < 0)
            throw std::runtime_error("a process for a job cannot be made");
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            work(setups, tellsAll, bar, totals);
            std::fflush(stdout);
            _exit(0);
        }
    }
    bool failed = false;
    for (int left = jobs; left > 0;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended > 0) {
            failed = failed || status != 0;
            --left;
            continue;
        }
        const std::size_t done = totals.done;
        if (!tellsAll)
            bar.draw(static_cast<double>(done) / static_cast<double>(setups.size()), done,
                     setups.size());
        std::this_thread::sleep_for(kGlance);
    }
    return failed;
}

int runAll(const Wish &wish) {
    const std::vector<Setup> setups = setupsOf(wish);
    void *memory =
        mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("there is not enough memory for the jobs");
    Totals &totals = *new (memory) Totals;
    const bool tellsAll = wish.isReplay && wish.file.empty();
    const bool failed = workInJobs(setups, wish.jobs, tellsAll, totals);
    constexpr double kYearSec = 86'400 * 365.25;
    std::printf("%zu runs, %llu lives, %.2f years of virtual time, %.2f of them suspended, %.0f "
                "times as fast as real time on each core; %llu broken%s\n",
                setups.size(), static_cast<unsigned long long>(totals.lives),
                totals.virtualSec / kYearSec, totals.suspendedSec / kYearSec,
                totals.virtualSec / std::max(totals.realSec.load(), 1e-9),
                static_cast<unsigned long long>(totals.broken), failed ? "; a job has failed" : "");
    return totals.broken > 0 || failed ? kBrokenStatus : 0;
}

void addCommon(CLI::App &command, Wish &wish) {
    command.add_option("--days", wish.setup.days, "How long each world is judged, in virtual days")
        ->check(CLI::Range(0.001, 36'500.0))
        ->type_name("D");
    command.add_flag("--no-weather", wish.isCalm, "Without faults and other surprises");
    command.add_flag("--awake", wish.setup.staysAwake,
                     "Every second, also where the board would be suspended while nothing is due");
}

CLI::Option *addJobs(CLI::App &command, Wish &wish) {
    return command.add_option("--jobs", wish.jobs, "Worlds at the same time")
        ->check(CLI::Range(1, kMaxJobs))
        ->type_name("N");
}

void runAtEnd(CLI::App &command, const std::shared_ptr<Wish> &wish, Action &action) {
    command.callback([wish, &action] {
        wish->setup.hasWeather = !wish->isCalm;
        action = [wish] { return runAll(*wish); };
    });
}

} // namespace

void addExplore(CLI::App &program, Action &action) {
    auto wish = std::make_shared<Wish>();
    CLI::App *command = program.add_subcommand(
        "explore", "Let the service live in worlds drawn from seeds, and judge it");
    command->add_option("--seeds", wish->seeds, "How many worlds")
        ->required()
        ->check(CLI::Range(1, 1'000'000'000))
        ->type_name("N");
    command->add_option("--from", wish->setup.seed, "The first one's seed (default 1)")
        ->type_name("N");
    addJobs(*command, *wish);
    addCommon(*command, *wish);
    runAtEnd(*command, wish, action);
}

void addReplay(CLI::App &program, Action &action) {
    auto wish = std::make_shared<Wish>();
    wish->isReplay = true;
    CLI::App *command =
        program.add_subcommand("replay", "Repeat one world, or all that a file names");
    CLI::App *world = command->add_option_group("World", "Which one, or which ones");
    world->require_option(1);
    CLI::Option *seed = world->add_option("--seed", wish->setup.seed, "The world's seed");
    seed->type_name("N");
    CLI::Option *trace =
        command->add_flag("--trace", wish->setup.printsTrace, "Print all that happens");
    CLI::Option *file =
        world->add_option("--file", wish->file,
                          "A line a world: SEED DAYS [awake] what it showed; # begins a comment");
    file->type_name("FILE")->excludes(seed)->excludes(trace);
    addJobs(*command, *wish)->needs(file);
    addCommon(*command, *wish);
    for (const char *own : {"--days", "--no-weather", "--awake"})
        file->excludes(command->get_option(own)); // each line speaks for itself
    runAtEnd(*command, wish, action);
}

} // namespace corvane::lab
