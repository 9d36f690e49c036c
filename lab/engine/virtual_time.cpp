/*
 * The public interface: starting and ending a run, and what its threads may ask and do.
 */
#include "virtual_time.h"

#include "calendar.h"
#include "scheduler.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <utility>

namespace virtualtime {
namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;

} // namespace

void start(const Options &options) {
    if (theRun != nullptr) {
        std::fprintf(stderr, "virtual time: a run is active already\n");
        std::abort();
    }
    calendar::forget();
    theRun = new Run;
    theRun->options = options;
    theRun->generator = options.seed;
    theRun->systemOffsetNs = parseUtc(options.startUtc);
    theRun->summary.hash = 0xcbf29ce484222325U;
    auto body = std::make_unique<Thread>();
    body->name = "body";
    self = body.get();
    theRun->threads.push_back(std::move(body));
}

Summary finish() {
    if (self == nullptr || self->number != 0) {
        std::fprintf(stderr, "virtual time: finish() belongs to the body of a run\n");
        std::abort();
    }
    Summary summary = theRun->summary;
    summary.elapsedMs = elapsedMs();
    for (const auto &thread : theRun->threads) {
        const bool gone = thread->state == State::Ended && thread->isDetached;
        if (thread->number != 0 && !gone) {
            summary.leakedThreads.push_back(describe(*thread));
        }
    }
    self = nullptr;
    if (summary.leakedThreads.empty()) {
        delete theRun;
    } else {
        abandonedRuns().push_back(theRun);
    }
    theRun = nullptr;
    return summary;
}

Summary run(const Options &options, const std::function<void()> &body) {
    start(options);
    body();
    return finish();
}

bool active() { return self != nullptr; }

void sleepSec(double sec) { sleepNs(std::llround(sec * 1e9)); }

void sleepMs(std::int64_t ms) { sleepNs(ms * kNsPerMs); }

void sleepUntil(const std::string &utc) { sleepUntilNs(parseUtc(utc), true); }

void settle() { sleepNs(0); }

std::int64_t elapsedMs() { return theRun->monotonicNs / kNsPerMs; }

std::string nowUtc() { return formatUtc(nowUtcNs()); }

std::int64_t nowUtcNs() { return theRun->systemNs(); }

void setClock(const std::string &utc) {
    theRun->systemOffsetNs = parseUtc(utc) - theRun->monotonicNs;
    theRun->othersWakeNs.reset(); // somebody may wait in the system clock
}

void jumpClock(double sec) {
    theRun->systemOffsetNs += std::llround(sec * 1e9);
    theRun->othersWakeNs.reset();
}

void failLocks(int times) { self->locksToFail = times; }

void nameThread(const std::string &name) {
    if (self != nullptr) {
        self->name = name;
    }
}

int threadNumber() { return self == nullptr ? 0 : self->number; }

std::uint64_t draw(std::uint64_t bound) { // splitmix64
    std::uint64_t z = theRun->generator += 0x9e3779b97f4a7c15U;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
    return (z ^ (z >> 31)) % bound;
}

std::int64_t parseUtc(const std::string &utc) {
    std::tm fields{};
    const char *rest = strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    char *end = const_cast<char *>(rest);
    const double fraction = rest != nullptr && *rest == '.' ? std::strtod(rest, &end) : 0;
    if (rest == nullptr || *end != '\0') {
        std::fprintf(stderr, "virtual time: \"%s\" is not YYYY-MM-DDThh:mm:ss\n", utc.c_str());
        std::abort();
    }
    return timegm(&fields) * kNsPerSec + std::llround(fraction * 1e9);
}

std::string formatUtc(std::int64_t utcNs) {
    const time_t sec = toTimespec(utcNs).tv_sec;
    std::tm fields{};
    gmtime_r(&sec, &fields);
    char text[40];
    return {text, std::strftime(text, sizeof text, "%FT%T", &fields)};
}

} // namespace virtualtime
