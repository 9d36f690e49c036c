/*
 * corvane-lab: the laboratory's command line.
 */
#include "commands.h"
#include "runs.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace corvane::lab;

constexpr const char *kUsage =
    "usage: corvane-lab explore --seeds N [--from N] [--days D] [--jobs N] [--no-weather]\n"
    "       corvane-lab replay --seed N [--days D] [--trace] [--no-weather]\n"
    "       corvane-lab replay --file FILE [--jobs N]\n"
    "       corvane-lab run FILE [--help for its options]\n"
    "       corvane-lab compare A B\n"
    "\n"
    "explore  lets the service live in N worlds, each drawn from a seed, and judges it\n"
    "replay   repeats one of them, or all that a file names, one \"SEED DAYS what it showed\" a "
    "line\n"
    "run      what a scenario's programme would have done to a refrigerator, or to a fleet of "
    "them\n"
    "compare  sets two reports of runs side by side\n"
    "\n"
    "Status 0: no rule was broken; 1: one was; 2: wrong usage.\n";
constexpr int kBrokenStatus = 1;
constexpr int kWrongUsage = 2;
constexpr int kMaxJobs = 64;

struct Wish {
    std::string command;
    std::uint64_t seeds = 0;
    std::string file;
    int jobs = 1;
    Setup setup;
};

template <class Number>
bool readNumber(const char *text, Number &number) {
    const char *end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end;
}

bool readOption(const std::string &option, const char *value, Wish &wish) {
    if (option == "--seeds")
        return readNumber(value, wish.seeds);
    if (option == "--from" || option == "--seed")
        return readNumber(value, wish.setup.seed);
    if (option == "--days")
        return readNumber(value, wish.setup.days) && wish.setup.days > 0;
    if (option == "--jobs")
        return readNumber(value, wish.jobs) && wish.jobs >= 1 && wish.jobs <= kMaxJobs;
    if (option == "--file") {
        wish.file = value;
        return true;
    }
    return false;
}

bool readArguments(int count, char **arguments, Wish &wish) {
    if (count < 2)
        return false;
    wish.command = arguments[1];
    for (int at = 2; at < count; ++at) {
        const std::string argument = arguments[at];
        if (argument == "--trace")
            wish.setup.printsTrace = true;
        else if (argument == "--no-weather")
            wish.setup.hasWeather = false;
        else if (at + 1 == count || !readOption(argument, arguments[++at], wish))
            return false;
    }
    return (wish.command == "explore" && wish.seeds > 0) || wish.command == "replay";
}

/* "SEED DAYS what it showed"; # begins a comment. */
std::vector<Setup> readFile(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::vector<Setup> setups;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        Setup setup;
        std::istringstream fields(line);
        if (!(fields >> setup.seed >> setup.days) || setup.days <= 0)
            throw std::runtime_error(path +
                                     ": a line is not \"SEED DAYS what it showed\": " + line);
        setups.push_back(setup);
    }
    return setups;
}

std::vector<Setup> setupsOf(const Wish &wish) {
    if (!wish.file.empty())
        return readFile(wish.file);
    std::vector<Setup> setups(wish.command == "replay" ? 1 : wish.seeds, wish.setup);
    for (std::size_t i = 0; i < setups.size(); ++i)
        setups[i].seed += i;
    return setups;
}

/* What the jobs add up, in memory that they share. */
struct Totals {
    std::uint64_t broken;
    std::uint64_t lives;
    double virtualSec;
    double realSec; // of all jobs together
};

void tell(const Setup &setup, const Result &result, bool tellsAll) {
    if (!result.isBroken && !tellsAll)
        return;
    const Weather weather = setup.hasWeather ? drawWeather(setup.seed) : calmWeather(setup.seed);
    std::ostringstream text;
    text << "seed " << setup.seed << ": " << describe(weather) << "\n" << result.report;
    if (result.isBroken)
        text << "  repeat with: corvane-lab replay --seed " << setup.seed << " --days "
             << setup.days << " --trace" << (setup.hasWeather ? "" : " --no-weather") << "\n";
    else
        text << result.lives << " lives, " << result.steps << " steps, trace hash " << std::hex
             << result.hash << "\n";
    std::fputs(text.str().c_str(), stdout);
    std::fflush(stdout);
}

void work(const std::vector<Setup> &setups, std::size_t first, std::size_t step, bool tellsAll,
          Totals &totals) {
    for (std::size_t i = first; i < setups.size(); i += step) {
        if (tellsAll && setups[i].printsTrace)
            std::printf("seed %llu: %s\n", static_cast<unsigned long long>(setups[i].seed),
                        describe(drawWeather(setups[i].seed)).c_str());
        const Result result = runOnce(setups[i]);
        tell(setups[i], result, tellsAll);
        totals.broken += result.isBroken ? 1 : 0;
        totals.lives += static_cast<std::uint64_t>(result.lives);
        totals.virtualSec += result.virtualSec;
        totals.realSec += result.realSec;
    }
}

int runAll(const Wish &wish) {
    const std::vector<Setup> setups = setupsOf(wish);
    const auto jobs = static_cast<std::size_t>(wish.jobs);
    void *memory = mmap(nullptr, sizeof(Totals) * kMaxJobs, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("cannot map memory for the jobs");
    auto *totals = static_cast<Totals *>(memory);
    const bool tellsAll = wish.command == "replay" && wish.file.empty();
    bool failed = false;
    if (jobs == 1) {
        work(setups, 0, 1, tellsAll, totals[0]);
    } else {
        for (std::size_t job = 0; job < jobs; ++job) {
            if (fork() == 0) {
                work(setups, job, jobs, tellsAll, totals[job]);
                _exit(0);
            }
        }
        int status = 0;
        while (wait(&status) > 0)
            failed = failed || status != 0;
    }
    Totals all{};
    for (std::size_t job = 0; job < jobs; ++job) {
        all.broken += totals[job].broken;
        all.lives += totals[job].lives;
        all.virtualSec += totals[job].virtualSec;
        all.realSec += totals[job].realSec;
    }
    std::printf("%zu runs, %llu lives, %.2f years of virtual time, %.0f times as fast as real time "
                "on each core; %llu broken%s\n",
                setups.size(), static_cast<unsigned long long>(all.lives),
                all.virtualSec / 86'400 / 365.25, all.virtualSec / std::max(all.realSec, 1e-9),
                static_cast<unsigned long long>(all.broken), failed ? "; a job has failed" : "");
    return all.broken > 0 || failed ? kBrokenStatus : 0;
}

} // namespace

int main(int argc, char **argv) {
    if (const auto status = runScenarioCommand(argc, argv))
        return *status;
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Wish wish;
    if (!readArguments(argc, argv, wish)) {
        std::fputs(kUsage, stderr);
        return kWrongUsage;
    }
    try {
        return runAll(wish);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "corvane-lab: %s\n", error.what());
        return kBrokenStatus;
    }
}
