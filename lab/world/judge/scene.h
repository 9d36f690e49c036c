/*
 * What the rules look at: the present life, the request that is being handled, the keys and what
 * was notified of them, as anybody outside has seen it.
 *
 * Only the judge changes a scene; each set of rules reads it and keeps for itself what follows from
 * what it has seen. Times: nowMs is the world's steady time, utcMs the system clock.
 */
#ifndef CORVANE_LAB_SCENE_H
#define CORVANE_LAB_SCENE_H

#include <cstdint>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::lab {

/* A pass of a worker comes each second; what follows one has followed after two and a half. */
constexpr std::int64_t kPassMs = 1'000;
constexpr std::int64_t kPassesMs = 2'500;
/* Construction of all controllers from the moment that the gate may open. */
constexpr std::int64_t kGateMs = 12'000;
constexpr std::int64_t kTaskMs = 1'050; // deferred tasks sleep a second and are 50 ms apart
/* When something was that never was: longer ago than any rule looks back. */
constexpr std::int64_t kLongAgoMs = -1'000'000;

struct Scene {
    static constexpr std::int64_t kMinuteMs = 60'000;

    /* What the judge asks of the world; all of it answers at once. */
    class Eyes {
    public:
        virtual ~Eyes() = default;
        virtual std::int64_t nowMs() const = 0;
        virtual std::int64_t utcMs() const = 0;
        virtual std::uint64_t storeFailures() const = 0; // so far, in this life
        virtual std::uint64_t unsureCommits() const = 0; // so far
        virtual bool isStoreTroubled() const = 0;        // failing, locked or full at present
        virtual bool isMeteringTroubled() const = 0;
        virtual bool canLookInto(const std::string &file) const = 0; // it exists and is idle
        virtual bool isWifiConnected() const = 0;
        /* Ends the run. */
        [[noreturn]] virtual void broken(const std::string &rule, const std::string &what) = 0;
    };

    /* Of each key that the remote side hears of: what it holds, as last written by anybody, and
     * what was notified in this life. */
    struct Reported {
        std::optional<int> key, notified;
    };

    std::int64_t nowMs() const { return eyes->nowMs(); }
    std::int64_t utcMs() const { return eyes->utcMs(); }
    /* Whether the handler of a request runs that begins so. */
    bool isHandling(std::string_view start) const;
    bool hasStoreFailedInRequest() const { return eyes->storeFailures() != failuresAtRequest; }

    /* Whether a failing or locked database may have held a worker up since it looked at the clock.
     */
    bool mayBeHeldUp() const;
    /* Whether the condition has held without a break for longer than a pass may take, while neither
     * clock nor database was touched. sinceMs is the condition's own memory, -1: it does not hold.
     */
    bool lasts(bool condition, std::int64_t &sinceMs) const;
    /* How long the present minute has lasted, while its repeats are judged: from 2.5 to 5 s after
     * it began, when neither clock nor database was touched within a minute and no handler runs.
     * Nothing: they are not judged now. */
    std::optional<std::int64_t> judgedMinuteMs() const;
    /* Of two tasks that each sleep a second before they do what is seen. */
    void checkTaskPause(std::int64_t beforeMs) const;
    [[noreturn]] void broken(const std::string &rule, const std::string &what) const;

    Eyes *eyes = nullptr; // of the present life

    // Since when each worker runs; -1: it does not.
    std::int64_t drSinceMs = -1, defrostSinceMs = -1, reportSinceMs = -1;

    std::int64_t clockTouchedMs = 0;
    std::int64_t storeFailedMs = kLongAgoMs;
    // Of failures without a break of more than a few passes: the system clock at the first, and the
    // latest that it showed at any, which is not the last when it went back meanwhile.
    std::int64_t storeBusySinceUtcMs = 0, storeBusyLatestUtcMs = 0;

    std::pmr::string handling; // the request whose handler runs; empty: none
    std::uint64_t failuresAtRequest = 0;
    std::uint64_t unsureAtRequest = 0;

    Reported level, override, enable;
    std::optional<int> activeKey, notifiedBlock;
};

} // namespace corvane::lab

#endif
