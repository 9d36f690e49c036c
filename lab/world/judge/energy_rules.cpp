/*
 * In this order: the figure, the hours' table as it is changed and as it is read, the consumption,
 * what must hold while time passes.
 */
#include "energy_rules.h"

#include "fakes.h"
#include "seen_texts.h"
#include "storage.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace corvane::lab {
namespace {

constexpr std::string_view kWattKey = "memory/refrigerator/SmartGridWatt"; // and 1 to 4
constexpr std::size_t kKeyLength = 10;                                     // of an hour
constexpr int kCounterWrap = 1'000'000;
constexpr int kCountsPerUnit = 10'000;

/* The first of the month six months back. */
std::string oldestKey(const std::tm &fields) {
    const int months = (fields.tm_year + 1900) * 12 + fields.tm_mon - 6;
    char text[40];
    std::snprintf(text, sizeof text, "%d%02d0000", months / 12, months % 12 + 1);
    return text;
}

} // namespace

void EnergyRules::lifeBegins() {
    lastCycleMs_ = -1;
    isPosting_ = false;
    storesDue_ = cyclesDue_ = 0;
    remainder_ = 0;
    postedCounts_ = 0;
    displaySum_ = fakes::power::sum();
    displayRaw_ = displayRest_ = 0;
    isPruneDue_ = false;
    limits_.clear();
    isDirty_ = true;
    isCounterOfLastLife_ = true;
    energyWrongSinceMs_ = -1;
}

void EnergyRules::powerIsCut() {
    if (!isCounterUnsure_)
        return;
    for (const std::pmr::string &hour : unsureHours_) {
        if (const std::size_t at = hours_.find(hour); at != hours_.npos)
            hours_.erase(at == 0 ? 0 : at - 1, kKeyLength + 1); // with its comma
    }
    isCounterKnown_ = false;
    setCounterSure();
}

// ---- The figure ----

void EnergyRules::seeLog(std::string_view text) {
    if (text == "REPORT] callback Energy from Micom")
        ++cyclesDue_;
    else if (startsWith(text, "REPORT] [UTC]currentTime"))
        beginCycle();
    else if (startsWith(text, "REPORT] Remain LCD energy RAW: "))
        collectDisplay(text);
    else if (startsWith(text, "REPORT] saveValue : "))
        store(numberIn(text));
    else if (startsWith(text, "REPORT] delete date : "))
        beginPruning(text.substr(text.rfind(' ') + 1));
}

void EnergyRules::beginCycle() {
    scene_.checkTaskPause(lastCycleMs_);
    lastCycleMs_ = scene_.nowMs();
    isPosting_ = true;
    micomCounts_ = ((watts_[0] * 256 + watts_[1]) * 256 + watts_[2]) * 256 + watts_[3];
    if (--cyclesDue_ < 0)
        scene_.broken("a metering cycle follows each publication", "there was none for this cycle");
}

void EnergyRules::micomWrites(const std::string &key, int value) {
    if (startsWith(key, kWattKey))
        watts_[key.back() - '1'] = value;
}

void EnergyRules::collectDisplay(std::string_view text) {
    constexpr std::int64_t kMostRaw = 4'000'000; // begins anew beyond it
    displayRest_ = numberIn(text);
    displayRaw_ += fakes::power::sum() - displaySum_;
    displaySum_ = fakes::power::sum();
    if (displayRaw_ > kMostRaw)
        displayRaw_ = -1;
}

void EnergyRules::posted(const std::string &text) {
    int whole = 0, hundredths = 0, duration = 0, end = 0;
    const int found = std::sscanf(text.c_str(),
                                  "POST http://127.0.0.1:7777/external/metering?cumulativepower="
                                  "%d.%2d&duration=%d%n",
                                  &whole, &hundredths, &duration, &end);
    if (found != 3 || static_cast<std::size_t>(end) != text.size() || duration != 60)
        scene_.broken("the figure is posted to the metering service on this device", text);
    postedCounts_ = whole * 100 + hundredths;
    if (displayRaw_ < 0) {
        displayRaw_ = displayRest_;
        return;
    }
    constexpr int kRawPerCount = 3'600;
    constexpr int kLargestReading = 2'000; // of a display as a scenario may have it
    displayRaw_ -= (postedCounts_ - micomCounts_) * std::int64_t{kRawPerCount};
    // The last reading may wait for the lock that is held while readings are collected.
    const std::int64_t missing = displayRaw_ - displayRest_;
    if (displayRest_ >= kRawPerCount || missing < 0 || missing > kLargestReading)
        scene_.broken("the figure is the Micom's and the display's energy",
                      text + " beside " + std::to_string(micomCounts_) + " of the Micom, and " +
                          std::to_string(missing) + " of the display's readings are missing");
}

void EnergyRules::store(int grown) {
    isPosting_ = false;
    const int total = remainder_ + postedCounts_;
    remainder_ = total % kCountsPerUnit;
    expected_ += total / kCountsPerUnit;
    storesDue_ += grown >= 1 ? 1 : 0;
}

void EnergyRules::beginPruning(std::string_view limit) {
    limits_.emplace(limit);
    pruningToldMs_ = scene_.nowMs();
    isPruneDue_ = true;
    if (limit != oldestKey(utcFields(scene_.utcMs())))
        scene_.broken("rows older than six months are removed",
                      "the limit is given as " + std::string(limit));
}

// ---- The hours' table, as it is changed ----

void EnergyRules::seeSql(const std::string &sql, bool isUnsure, bool hasFailed) {
    // A connection's first statement; after a failure perhaps once more.
    const auto isOfUnsure = [&](bool before) { return isUnsure || (hasFailed && before); };
    if (startsWith(sql, "SELECT * FROM power_usage_table WHERE date = '")) {
        failuresAtLook_ = scene_.eyes->storeFailures();
        isLookUnsure_ = isOfUnsure(isLookUnsure_);
    } else if (startsWith(sql, "SELECT * FROM power_usage_table ORDER BY date DESC")) {
        isUpdateUnsure_ = isOfUnsure(isUpdateUnsure_);
    }
    if (!startsWith(sql, "SELECT"))
        seeChange(sql);
}

void EnergyRules::seeChange(const std::string &sql) {
    isDirty_ = true;
    const bool isInsert = startsWith(sql, "INSERT");
    const bool isUpdate = startsWith(sql, "UPDATE");
    if (isUpdate)
        storesDue_ = std::max(0, storesDue_ - 1);
    if (isInsert && scene_.eyes->storeFailures() != failuresAtLook_)
        doubledHours_.emplace(hourIn(sql)); // it may be there already
    // An hour that has two rows is opened once more whenever it is looked for; any of them may then
    // be the last row that the counter goes on from.
    isCounterDoubtful_ = isCounterDoubtful_ || (isInsert && hasTwoRows(hourIn(sql)));
    if (isInsert && isLookUnsure_)
        unsureHours_.emplace(hourIn(sql));
    if ((isInsert && isLookUnsure_) || (isUpdate && isUpdateUnsure_))
        isCounterUnsure_ = true;
    else if (isInsert || isUpdate)
        setCounterSure(); // this commit makes those before it sure too
    if (startsWith(sql, "DELETE"))
        deletions_.emplace_back(sql.substr(sql.find("date ") + 5));
    if (sql.find("date < ") != sql.npos) {
        if (limits_.count(std::pmr::string(hourIn(sql))) == 0)
            scene_.broken("only rows older than six months go", sql);
        isPruneDue_ = false;
    }
}

std::string EnergyRules::hourIn(const std::string &sql) const {
    const auto values = valuesOf(sql);
    if (values.empty())
        scene_.broken("the key of an hour is a text", sql);
    return values[0];
}

bool EnergyRules::hasTwoRows(const std::string &hour) const {
    return hours_.find(hour + "," + hour) != hours_.npos;
}

void EnergyRules::setCounterSure() {
    isCounterUnsure_ = false;
    unsureHours_.clear();
}

// ---- The hours' table, as it is read ----

void EnergyRules::read() {
    const auto rows = fakes::storage::query(
        "usage.db",
        "SELECT ifnull(group_concat(date), ''), ifnull((SELECT power_usage FROM power_usage_table "
        "ORDER BY date DESC LIMIT 1), 0) FROM (SELECT date FROM power_usage_table ORDER BY date)");
    const std::string &hours = rows[0][0];
    isDirty_ = false;
    compareHours(hours);
    const std::string pruned = prunedBefore();
    deletions_.clear();
    const std::string oldest = hours.substr(0, kKeyLength);
    const std::string newestBefore(
        hours_.substr(hours_.size() - std::min(hours_.size(), kKeyLength)));
    hours_ = hours;
    // Rows of a clock that was set may be older than six months; they stay until the next month.
    if (!hours.empty() && oldest < pruned && !isCounterDoubtful_ &&
        scene_.nowMs() - scene_.clockTouchedMs > kGateMs)
        scene_.broken("rows older than six months go",
                      "the row " + oldest + " is older than " + pruned);
    // A jump into the same hour of another half-year: no hour was left to go on from. What was
    // still to be stored then is added to nothing.
    const bool isEmptied = !newestBefore.empty() && newestBefore < pruned;
    isCounterDoubtful_ = isCounterDoubtful_ || isEmptied;
    compareCounter(std::atoll(rows[0][1].c_str()));
}

/* Mostly there are only new ones at the end. */
void EnergyRules::compareHours(std::string_view hours) {
    const bool isLonger = startsWith(hours, hours_);
    for (std::size_t at = 0; at < hours_.size() && !isLonger; at += kKeyLength + 1) {
        const std::string_view hour = std::string_view(hours_).substr(at, kKeyLength);
        if (isGone(hour, hours))
            scene_.broken("rows of the last six months stay",
                          "the row " + std::string(hour) + " is gone");
    }
    for (std::size_t at = isLonger ? hours_.size() : 0; at < hours.size(); ++at) {
        if (hours[at] != ',' || at < kKeyLength)
            continue;
        const std::string_view hour = hours.substr(at - kKeyLength, kKeyLength);
        if (hours.substr(at + 1, kKeyLength) == hour &&
            doubledHours_.count(std::pmr::string(hour)) == 0)
            scene_.broken("there is one row for an hour", "two have the key " + std::string(hour));
    }
}

bool EnergyRules::isGone(std::string_view hour, std::string_view hours) const {
    return hours.find(hour) == hours.npos &&
           std::none_of(deletions_.begin(), deletions_.end(), [&](const auto &deleted) {
               const std::string_view limit = std::string_view(deleted).substr(3, kKeyLength);
               return deleted[0] == '<' ? hour < limit : hour > limit;
           });
}

/* By the last pruning since the table was read; empty: none. */
std::string EnergyRules::prunedBefore() const {
    std::string limit;
    for (const std::pmr::string &condition : deletions_) {
        if (condition[0] == '<')
            limit = std::string_view(condition).substr(3, kKeyLength);
    }
    return limit;
}

void EnergyRules::compareCounter(std::int64_t counter) {
    if (isCounterOfLastLife_ && isCounterKnown_ && !isCounterDoubtful_ && counter != counter_ &&
        (counter < counter_ || counter > expected_) && expected_ <= kCounterWrap)
        scene_.broken("a stored counter neither loses nor doubles energy over a restart",
                      "it was " + std::to_string(counter_) + " to " + std::to_string(expected_) +
                          " and is " + std::to_string(counter));
    if (!isCounterKnown_ || isCounterDoubtful_ || isCounterOfLastLife_)
        expected_ = counter;
    isCounterKnown_ = true;
    isCounterOfLastLife_ = false;
    counter_ = counter;
}

// ---- The consumption ----

void EnergyRules::queried(bool canTell) { consumptionAtAnswer_ = canTell ? consumption() : ""; }

void EnergyRules::told(const std::string &value) const {
    const std::string right(consumptionAtAnswer_);
    if (!right.empty() && value != right)
        scene_.broken("the month's and the last month's consumption are what their hours tell",
                      "told was " + value + " instead of " + right);
}

std::string EnergyRules::consumption() const {
    const std::tm now = utcFields(scene_.utcMs());
    // Of two rows for an hour the service's query and this one find the same.
    const auto growth = [](int year, int month) { // months from 0
        char rows[120];
        std::snprintf(rows, sizeof rows,
                      "(SELECT power_usage FROM power_usage_table WHERE date LIKE '%04d%02d%%' "
                      "ORDER BY date",
                      year, month + 1);
        const std::string ofMonth = rows;
        return fakes::storage::query("usage.db", "SELECT ifnull(" + ofMonth + " DESC LIMIT 1) - " +
                                                     ofMonth + " LIMIT 1), 0)")[0][0];
    };
    const int year = now.tm_year + 1900;
    const std::string last = now.tm_mon == 0 ? growth(year - 1, 11) : growth(year, now.tm_mon - 1);
    char remainder[20];
    std::snprintf(remainder, sizeof remainder, "%02d", remainder_ / 100);
    return growth(year, now.tm_mon) + "." + remainder + " and " + last + ".00";
}

// ---- What must hold while time passes ----

void EnergyRules::check() {
    const bool isStoring = storesDue_ > 0 || cyclesDue_ > 0;
    if (!isCounterKnown_ || scene_.reportSinceMs < 0 || isDirty_ || isCounterDoubtful_ ||
        isStoring) {
        energyWrongSinceMs_ = -1;
        if (isCounterDoubtful_ && !scene_.eyes->isStoreTroubled() && !isStoring && !isDirty_ &&
            scene_.nowMs() - scene_.storeFailedMs > 10 * kTaskMs) {
            isCounterDoubtful_ = false;
            expected_ = counter_;
        }
        return;
    }
    const std::int64_t wrapped = expected_ > kCounterWrap ? expected_ - kCounterWrap : expected_;
    if (scene_.lasts(counter_ != wrapped, energyWrongSinceMs_))
        scene_.broken("the counter grows by one for every 100.00 of the posted figure",
                      "it is " + std::to_string(counter_) + ", not " + std::to_string(wrapped));
    expected_ = wrapped;
}

void EnergyRules::checkPruning() const {
    if (isPruneDue_ && scene_.nowMs() - pruningToldMs_ > Scene::kMinuteMs && cyclesDue_ == 0 &&
        !scene_.eyes->isMeteringTroubled() && !scene_.eyes->isStoreTroubled())
        scene_.broken("rows older than six months go when the month changes", "none was deleted");
}

bool EnergyRules::isQuiet() const {
    return !isDirty_ && storesDue_ == 0 && cyclesDue_ == 0 && !isPosting_ && !isPruneDue_ &&
           energyWrongSinceMs_ < 0;
}

} // namespace corvane::lab
