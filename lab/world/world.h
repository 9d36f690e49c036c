/*
 * The world around the service: appliance, household, remote side, disk, network and clock, with
 * the weather that befalls them, in virtual time.
 *
 * A World lies in shared memory and lives through one life of the service after another, each in a
 * forked process of its own, which liveOnce() is called in. Within a life its body thread does
 * everything that happens outside the service but the remote side's requests, which have threads of
 * their own. In virtual time one thread runs at a time, and hands over only where it sleeps or
 * waits; so nothing here needs a lock.
 */
#ifndef CORVANE_LAB_WORLD_H
#define CORVANE_LAB_WORLD_H

#include "appliance.h"
#include "disk.h"
#include "draws.h"
#include "judge.h"
#include "weather.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace corvane::lab {

struct Setup {
    std::uint64_t seed = 1;
    double days = 14; // the last half day of which is calm
    bool hasWeather = true;
    bool staysAwake = false; // is not suspended, even if that is its weather
    bool printsTrace = false;
};

class World : private Judge::Eyes {
public:
    explicit World(const Setup &setup);

    /* In a process of its own, which it may end itself. True: the run is over. */
    bool liveOnce();

    double virtualSec() const { return static_cast<double>(pastMs_) / 1000; }
    /* Of these, asleep. */
    double suspendedSec() const { return static_cast<double>(suspendedMs_) / 1000; }
    int lives() const { return lives_; }
    std::uint64_t hash() const { return hash_; }
    std::uint64_t steps() const { return judge_.steps(); }
    bool isBroken() const { return !brokenRule_.empty(); }
    /* What happened last, and the rule that was broken; many lines. */
    std::string report() const;
    /* For a life that ended by itself. */
    void crashed(const std::string &how);

private:
    enum Actor {
        kAppliance,
        kJudgeTick,
        kWifi,
        kClockMends,
        kClockJumps,
        kZoneChanges,
        kMicomTrouble,
        kMicomRestarts,
        kDisplay,
        kDatabaseTrouble,
        kMeteringTrouble,
        kLifeEnds,
        kCalmBegins,
        kCalmChecked,
        kRunEnds,
        kActors
    };

    // Eyes
    std::int64_t nowMs() const override;
    std::int64_t utcMs() const override;
    std::int64_t trueMs() const { return weather_.startSec * 1000 + nowMs(); }
    std::uint64_t storeFailures() const override;
    std::uint64_t unsureCommits() const override { return disk_.unsureConnections(); }
    bool isStoreTroubled() const override;
    bool isMeteringTroubled() const override { return meteringTroubledUntilMs_ > nowMs(); }
    bool canLookInto(const std::string &file) const override;
    bool isWifiConnected() const override { return wifiConnected_; }
    [[noreturn]] void broken(const std::string &rule, const std::string &what) override;

    void plan();
    void planNext(Actor actor, double meanHours);
    void beginLife();
    void writeHistory();
    void act(Actor actor);
    void waitUntil(std::int64_t timeMs);
    void suspend();
    void observe(const fakes::Entry &entry);
    /* isKept: among the last lines, which a broken run prints. */
    void trace(std::string_view line, bool isKept = true);
    void planAppliance();
    void advanceAppliance();
    void changeClock();
    void changeZone();
    void troubleMicom();
    void troubleDatabase();
    void troubleMetering();
    void beginCalm();
    bool endLife();
    void watchForStandstill(const fakes::Entry &entry);
    EndOfLife drawEnd();
    void terminate();
    void keepSettings();
    void setZone();

    void runRemote(int number);
    /* False: the remote side is to end. */
    bool waitAsRemote(int number, std::int64_t untilMs);
    /* Seconds until an edge of what was ordered, or 0. */
    std::int64_t request(Draws &draws);

    struct InLife; // what a life takes with it
    struct Line {  // of the trace
        std::int64_t nowMs = 0;
        std::int64_t utcMs = 0;
        std::pmr::string text;
    };

    Setup setup_;
    Weather weather_;
    Draws draws_;
    Draws remoteDraws_[2];
    Disk disk_;
    ApplianceMemory applianceMemory_;
    std::uint64_t applianceSeed_;
    Judge judge_;
    std::pmr::map<std::pmr::string, std::variant<int, std::pmr::string>> settings_;
    const char *zone_;
    std::int64_t clockErrorMs_ = 0; // system clock minus true time
    std::int64_t pastMs_ = 0;       // of all lives before, between them, and suspended
    std::int64_t suspendedMs_ = 0;
    std::int64_t remoteDueMs_[2] = {}; // the next request of each
    std::int64_t nextMs_[kActors] = {};
    std::int64_t endMs_ = 0;
    std::int64_t calmMs_ = 0;
    bool isCalm_ = false;
    std::int64_t micomWroteMs_ = -1; // last; the service hears of it within the same moment
    bool wifiConnected_ = true;
    bool isPowerCut_ = false; // the last life ended with one
    std::int64_t storeTroubledUntilMs_ = 0;
    std::int64_t meteringTroubledUntilMs_ = 0;
    EndOfLife nextEnd_ = EndOfLife::Terminate;
    int storm_ = 0; // lives that still end within seconds
    bool isRunOver_ = false;
    int statementsNow_ = 0; // SQL statements since time has last moved
    std::int64_t statementsMs_ = 0;
    int lives_ = 0;
    std::uint64_t hash_ = 0xcbf29ce484222325U;
    std::pmr::deque<Line> lastLines_;
    std::pmr::string brokenRule_;
    std::pmr::string brokenWhat_;
    InLife *life_ = nullptr;
};

} // namespace corvane::lab

#endif
