/*
 * corvane-clock: makes the file of a shared clock, for the programs that CORVANE_CLOCK leads to it.
 */
#include "virtual_clock.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr const char *kUsage =
    "usage: corvane-clock FILE --speed 1..600 [--at 2026-07-31T14:50] [--zone Europe/Berlin]\n"
    "Makes a clock that starts now, at the local time given (the present one without --at).\n";

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

struct Wish {
    std::string file;
    std::string at;
    std::string zone;
    int speed = 0;
};

bool readSpeed(const char *text, int &speed) {
    const char *end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, speed);
    return result.ec == std::errc() && result.ptr == end;
}

bool readArguments(int count, char **arguments, Wish &wish) {
    for (int at = 1; at < count; ++at) {
        const std::string argument = arguments[at];
        if (argument.rfind("--", 0) != 0) {
            if (!wish.file.empty())
                return false;
            wish.file = argument;
            continue;
        }
        if (++at == count)
            return false;
        if (argument == "--at")
            wish.at = arguments[at];
        else if (argument == "--zone")
            wish.zone = arguments[at];
        else if (argument != "--speed" || !readSpeed(arguments[at], wish.speed))
            return false;
    }
    return !wish.file.empty() && wish.speed != 0;
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
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Wish wish;
    if (!readArguments(argc, argv, wish)) {
        std::fputs(kUsage, stderr);
        return kWrongUsage;
    }
    const std::string error = makeClock(wish);
    if (!error.empty()) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return kFailed;
    }
    return 0;
}
