/*
 * The rules of energy reports: the figure that is posted is the Micom's and the display's energy,
 * the hours' table counts each unit of it once, whatever happens, and keeps six months.
 *
 * A counter is unsure while its commit may be taken back by a power cut, and doubtful while the
 * database failed within the very operation: then what is in the table counts.
 */
#ifndef CORVANE_LAB_ENERGY_RULES_H
#define CORVANE_LAB_ENERGY_RULES_H

#include "scene.h"

#include <cstdint>
#include <memory_resource>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::lab {

class EnergyRules {
public:
    explicit EnergyRules(const Scene &scene) : scene_(scene) {}

    void lifeBegins();
    void powerIsCut();

    // What is seen.
    void seeLog(std::string_view text); // that begins with "REPORT] "
    void micomWrites(const std::string &key, int value);
    void posted(const std::string &text);
    /* Of a statement about the table: whether commits before it are unsure, whether the database
     * has failed since the statement before. */
    void seeSql(const std::string &sql, bool isUnsure, bool hasFailed);
    void queried(bool canTell); // for the consumption
    void told(const std::string &value) const;

    /* The service may not have been able to read or to change the table. */
    void doubt() { isCounterDoubtful_ = true; }
    bool isDirty() const { return isDirty_; }
    void read(); // the table

    // What must hold while time passes.
    void check();
    void checkPruning() const;

    bool isBehind() const { return cyclesDue_ > 1; } // publications wait for their cycles
    bool isQuiet() const;

private:
    void beginCycle();
    void collectDisplay(std::string_view text);
    void store(int grown);
    void beginPruning(std::string_view limit);
    void seeChange(const std::string &sql);
    std::string hourIn(const std::string &sql) const; // the first text in it
    bool hasTwoRows(const std::string &hour) const;
    void setCounterSure();
    void compareHours(std::string_view hours);
    bool isGone(std::string_view hour, std::string_view hours) const;
    std::string prunedBefore() const;
    void compareCounter(std::int64_t counter);
    std::string consumption() const; // as a query of it is to be answered now

    const Scene &scene_;

    // The figure.
    std::int64_t lastCycleMs_ = -1;
    int cyclesDue_ = 0;
    bool isPosting_ = false; // its figure
    int postedCounts_ = 0;
    int watts_[4] = {};           // keys, as last written by the Micom
    int micomCounts_ = 0;         // of the present cycle
    std::int64_t displaySum_ = 0; // of the display's readings that have been collected
    std::int64_t displayRaw_ = 0; // readings not yet posted; below 0: not known
    int displayRest_ = 0;         // of these, as the service tells

    // The counter.
    int storesDue_ = 0;         // updates of the last row that must come
    int remainder_ = 0;         // posted counts that are not yet a unit of the counter
    std::int64_t counter_ = 0;  // confirmed in the table
    std::int64_t expected_ = 0; // in the table once all is stored
    bool isCounterKnown_ = false;
    bool isCounterOfLastLife_ = false;
    bool isCounterDoubtful_ = false;
    bool isCounterUnsure_ = false;         // a power cut may take its last commits back
    std::int64_t energyWrongSinceMs_ = -1; // without a break; -1: it is right

    // The hours.
    bool isDirty_ = true;                          // the table is due to be read
    std::pmr::string hours_;                       // the keys, ascending, with commas
    std::pmr::set<std::pmr::string> doubledHours_; // whose look for a row failed
    std::pmr::set<std::pmr::string> unsureHours_;  // that a power cut may take back
    std::uint64_t failuresAtLook_ = 0;
    bool isLookUnsure_ = false;                    // the connection that looked for the hour's row
    bool isUpdateUnsure_ = false;                  // the one that looked for the last row
    std::pmr::vector<std::pmr::string> deletions_; // since the last reading
    bool isPruneDue_ = false;
    std::int64_t pruningToldMs_ = 0;         // by the service
    std::pmr::set<std::pmr::string> limits_; // of pruning, that were told in this life

    std::pmr::string consumptionAtAnswer_; // empty: not known
};

} // namespace corvane::lab

#endif
