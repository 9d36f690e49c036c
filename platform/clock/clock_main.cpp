/*
 * corvane-clock: makes the file of a shared clock, for the programs that CORVANE_CLOCK leads to it.
 */
#include "virtual_clock.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

struct Wish {
    std::string file;
    std::string at;
    std::string zone;
    int speed = 0;
};

void describe(CLI::App &program, Wish &wish) {
    program.add_option("FILE", wish.file, "Where the clock is kept")->required();
    program.add_option("--speed", wish.speed, "How many times as fast, 1 to 600")
        ->required()
        ->type_name("N");
    program.add_option("--at", wish.at, "The local time it begins at (default: the present one)")
        ->type_name("YYYY-MM-DDThh:mm");
    program.add_option("--zone", wish.zone, "The zone of that time (default: TZ)")
        ->type_name("ZONE");
    program.footer("Example:\n"
                   "  corvane-clock /tmp/corvane.clock --speed 60 --at 2026-07-31T14:50 "
                   "--zone Europe/Berlin\n\n"
                   "Exit status: 0 made, 1 failed, 2 wrong usage.");
}

std::string makeClock(const Wish &wish) {
    std::string error = wish.zone.empty() ? "" : corvane::clock::useZone(wish.zone);
    std::int64_t startNs = corvane::clock::VirtualClock().nowNs();
    if (error.empty() && !wish.at.empty()) {
        std::time_t start = 0;
        error = corvane::clock::parseLocalTime(wish.at, start);
        startNs = std::int64_t{start} * 1'000'000'000;
    }
    return error.empty() ? corvane::clock::createClock(wish.file, wish.speed, startNs) : error;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App program("Makes a clock that runs faster, for programs that share it", "corvane-clock");
    Wish wish;
    describe(program, wish);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted);
    } catch (const CLI::ParseError &error) {
        (void)std::fprintf(stderr, "corvane-clock: %s; see corvane-clock --help\n", error.what());
        return kWrongUsage;
    }
    const std::string error = makeClock(wish);
    if (!error.empty()) {
        (void)std::fprintf(stderr, "%s\n", error.c_str());
        return kFailed;
    }
    return 0;
}
