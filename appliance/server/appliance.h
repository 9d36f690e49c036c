/*
 * The engine: it owns the models and is the one place where they meet the settings store, the
 * service's answers, the page's wishes and the history.
 *
 * All of it lives on one thread, the one that calls run(). Other threads hand closures to the
 * mailbox, and read snapshots of the state. The engine itself waits for nobody: the database and
 * the service are on threads of their own.
 */
#ifndef CORVANE_APPLIANCE_SERVER_APPLIANCE_H
#define CORVANE_APPLIANCE_SERVER_APPLIANCE_H

#include "display_board.h"
#include "event_record.h"
#include "history.h"
#include "mailbox.h"
#include "metering.h"
#include "micom.h"
#include "minute_meter.h"
#include "override_claim.h"
#include "refrigerator.h"
#include "stream_hub.h"
#include "terminal.h"

#include "reservation_window.h"
#include "settings_store.h"
#include "settings_watcher.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane::appliance {

/* The appliance cannot go on; the text is one line. */
class ApplianceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* The whole state as the HTTP interface tells it, and when it was taken. */
struct Snapshot {
    nlohmann::ordered_json json;
    std::string text; // of json
    std::chrono::steady_clock::time_point takenAt;
};

class Appliance {
public:
    struct Options {
        std::uint64_t seed = 1;
        int speed = 1;
        std::string version;
        std::string serviceUrl;
        std::string zone;        // its name, for people
        bool hasMetering = true; // whether the metering service is this one's
    };

    /* The store is open; all outlive the appliance. Throws ApplianceError and HistoryError. */
    Appliance(Options options, platform::SettingsStore &store, History &history, StreamHub &hub,
              Terminal &terminal);
    ~Appliance();
    Appliance(const Appliance &) = delete;
    Appliance &operator=(const Appliance &) = delete;

    /* Lives until stopFd is readable, then saves. Throws ApplianceError. */
    void run(int stopFd);

    // ---- from any thread ----
    Mailbox &mailbox() { return mailbox_; }
    /* Never null. */
    std::shared_ptr<const Snapshot> snapshot() const;

    // ---- on the engine's thread: what the mailbox's closures call ----
    /* The state of this moment, with everything that was handed to the mailbox before. */
    std::string stateText() const;
    void serviceLink(bool reachable, const std::string &reason);
    /* A notification's present value, and a new one. */
    void servicePresents(const std::string &resource, const nlohmann::json &body);
    void serviceNotifies(const std::string &resource, const nlohmann::json &body);
    void serviceStores(const std::optional<PlannedEvent> &event, TimeMs atMs);
    void serviceTellsReservations(std::vector<client::Reservation> reservations);
    void serviceTellsConsumption(std::optional<double> thisMonthKwh,
                                 std::optional<double> previousMonthKwh);
    /* A request of the page's goes to the service; and what came of it. */
    void remoteOrders(const std::string &resource, const nlohmann::json &body);
    void remoteAnswered(const std::string &resource, bool isGood, const std::string &reason);
    void pressOverride(bool on);
    void setDoor(Compartment compartment, bool open);
    /* False when there is no such fault. */
    bool setFault(const std::string &name, bool on);
    MeteringAnswer meter(const std::string &method, const std::string &target);
    const MeteringFaults &meteringFaults() const { return metering_.faults(); }

    /* Called on the engine's thread when the service should be asked for what it does not notify.
     * To be set before run(). */
    std::function<void()> onAskService;
    /* Called on the engine's thread when a fault of the metering service has changed. */
    std::function<void()> onMeteringFault;

private:
    using Steady = std::chrono::steady_clock;

    struct Level {
        int level = 0;
        TimeMs atMs = 0;
    };

    void restore();
    void restoreRecords();
    void restoreOverride();
    void saveOverride();
    void save();
    void takeSettings();
    void hear(const platform::SettingChange &change);
    void hearOverride(int value);
    void hearCommand(const std::string &command);
    void advance(TimeMs nowMs);
    void step(TimeMs toMs);
    void answerFirstCommand();
    void sample(TimeMs atMs);
    void everyMinute(TimeMs nowMs);
    void tellHour(TimeMs nowMs, const std::tm &local);
    void write(const SettingsWrite &write);
    void trace(const char *source, const char *direction, const std::string &text,
               std::optional<double> value = {}, bool isRoutine = false);
    void settleRecords();
    void publishIfDue();
    int waitMs() const;
    nlohmann::ordered_json compose() const;
    nlohmann::ordered_json composeRefrigerator() const;
    nlohmann::ordered_json composeDemandResponse() const;
    nlohmann::ordered_json composeDefrostDelay() const;
    nlohmann::ordered_json composeMicom() const;
    nlohmann::ordered_json composeFaults() const;
    std::vector<int> visible() const;
    std::optional<int> setting(const char *key) const;

    const Options options_;
    platform::SettingsStore &store_;
    platform::SettingsWatcher watcher_;
    History &history_;
    StreamHub &hub_;
    Terminal &terminal_;
    Mailbox mailbox_;

    TimeMs nowMs_;     // the engine's time: of the step under way
    TimeMs reachedMs_; // the models have lived up to here
    Refrigerator refrigerator_;
    Micom micom_;
    DisplayBoard display_;
    MeteringService metering_;
    MinuteMeter minutes_;
    std::optional<EventLedger> ledger_; // made by restore()
    std::int64_t lastTraceId_ = 0;
    TimeMs savedMinute_ = 0;
    struct Told { // local time and counter when the terminal was last told of an hour
        int hour = 0;
        int minute = 0;
        double energyWh = 0;
    };
    std::optional<Told> told_;
    bool settingsFail_ = false;

    // What is known of the others.
    bool isReachable_ = false;
    std::string unreachableReason_ = "not asked yet";
    std::optional<TimeMs> linkSinceMs_;
    std::optional<Level> commanded_;
    std::optional<Level> confirmed_;
    std::optional<Level> reported_;
    bool hasReportedLevel_ = false; // since the start, see answerFirstCommand()
    std::optional<TimeMs> firstCommandMs_;
    std::map<std::string, std::string> lastHeard_; // of each kind of command
    std::optional<TimeMs> heardMs_;
    std::optional<TimeMs> reportMs_;
    std::optional<int> override_; // as the service keeps it
    OverrideClaim overrideClaim_;
    std::string overrideBy_;
    std::optional<TimeMs> overrideSinceMs_;
    std::optional<int> block_;
    std::optional<int> defrostEnabled_;
    std::optional<int> defrostActive_;
    std::vector<client::Reservation> reservations_;
    std::optional<double> thisMonthKwh_;
    std::optional<double> previousMonthKwh_;
    std::optional<TimeMs> consumptionMs_;
    bool wasDefrostHeld_ = false;
    bool lastMeteringWasRefused_ = false;

    // Publishing.
    std::vector<int> visible_; // of the last snapshot
    bool isChanged_ = true;
    Steady::time_point publishedAt_{};
    Steady::time_point askedAt_{};

    mutable std::mutex snapshotMutex_;
    std::shared_ptr<const Snapshot> snapshot_; // guarded by snapshotMutex_
};

} // namespace corvane::appliance

#endif
