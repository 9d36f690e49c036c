/*
 * The platform in memory, as a test sees it: the other end of the six platform headers and of
 * libcurl. Everything behaves as the headers promise, records what it was asked, and can be told to
 * fail. storage.h does the same for SQLite's files.
 *
 * What happens anywhere is also written into one common trace, in order and with its virtual time,
 * so that a test can assert orders across the fakes, or that an observer can follow it.
 *
 * All functions may be called from any thread. reset() between tests brings everything back to
 * "nothing written, nothing recorded, nothing fails, Wi-Fi connected".
 */
#ifndef CORVANE_TESTS_FAKES_H
#define CORVANE_TESTS_FAKES_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include <ocf_proxy.h>
#include <wifi.h>

namespace fakes {

// ---- The common trace ----

enum class Kind {
    Log,          // message of a log line
    Setting,      // key=value, for every write that succeeded
    Watch,        // key of a registration, also of one that was there already
    Loop,         // create, terminate, app_control: before the callback runs
    Wifi,         // name of the function called
    Proxy,        // KestInitProxy(KestProxyTest), KestRegisterControlDRLCFunc, ...
    Notification, // SendDRLCNotify(2), SendDelayDefrostNotify(true), ...
    Request,      // ControlDRLC(2, 01:00:00, 14:00:00) before its handler, ControlDRLC -> 1 after
    Post,         // POST http://...: method and URL, when the transfer begins
    Sql,          // text of a statement handed to SQLite, each attempt
};

struct Entry {
    Kind kind;
    std::string text;
    std::int64_t utcNs; // system clock
    [[nodiscard]] std::string utc() const;
};

// Everything so far, or what is of one of the kinds; texts() leaves the times away.
[[nodiscard]] std::vector<Entry> trace(std::initializer_list<Kind> kinds = {});
[[nodiscard]] std::vector<std::string> texts(std::initializer_list<Kind> kinds = {});
// Forgets the trace and every other record (writes, log lines, posts, calls), keeps all state.
void clearRecords();

// Hands each entry to the observer as it happens, on the thread that it happens on, and keeps no
// record of any kind from then on, for runs that last for years. Null ends it.
void observe(std::function<void(const Entry &)> observer);

// Whatever is recorded with this text takes so long from now on, to whoever does it and with all
// that it holds. One text at a time; 0 for none.
void pauseAt(const std::string &text, double sec);

void reset();

// The service's process ends and another begins: registrations, handlers and callbacks under way
// are gone, settings and files stay.
void newProcess();

[[nodiscard]] std::string formatUtc(std::int64_t utcNs); // %FT%T

// ---- Settings store ----

namespace settings {

// A write by another process: notifies whoever has registered, and cannot be told to fail.
void set(const std::string &key, int value);
void set(const std::string &key, const std::string &text);
void remove(const std::string &key);

[[nodiscard]] std::optional<int> getInt(const std::string &key);
[[nodiscard]] std::optional<std::string> getText(const std::string &key);

// Every value written to the key by anyone, oldest first; integers as decimal text.
[[nodiscard]] std::vector<std::string> history(const std::string &key);

[[nodiscard]] int registrations(const std::string &key);

// Lets the next calls for the key answer -1, as many as said.
constexpr int kAlways = -1;
void failReads(const std::string &key, int times = kAlways);
void failWrites(const std::string &key, int times = kAlways);

} // namespace settings

// ---- Log ----

namespace log {

struct Line {
    int buffer;   // log_id_t
    int priority; // DLOG_...
    std::string tag;
    std::string text; // as handed to the log: "EnergyDR.cpp: setLevel(120) > message"
    std::string file; // the four parts of text; all empty but message when it has another form
    std::string function;
    int line;
    std::string message;
    std::int64_t utcNs;
};

[[nodiscard]] std::vector<Line> lines();
[[nodiscard]] std::vector<std::string> messages();
[[nodiscard]] int count(const std::string &message); // lines with exactly this message
[[nodiscard]] bool has(const std::string &message);
// The last line with this message; one with priority -1 when there is none.
[[nodiscard]] Line find(const std::string &message);

} // namespace log

// ---- Service loop ----

namespace loop {

// service_app_main() is the loop: it runs on whichever thread calls it and delivers the settings
// and Wi-Fi callbacks between create and terminate. Callbacks that fall due while no loop runs are
// delivered when one does.
void requestStop();
void sendAppControl();
[[nodiscard]] bool running(); // create has returned true, terminate has not begun

} // namespace loop

// ---- Wi-Fi ----

namespace wifi {

struct State {
    bool connected = true;
    bool activated = true;
    int initializeResult = 0;
    int isActivatedResult = 0;
    int activateResult = 0;                           // not 0: no callback comes
    wifi_error_e activationOutcome = WIFI_ERROR_NONE; // what the callback hears; 0 also activates
    double activationSec = 0.5;                       // from the call to its callback
    double hangSec = 0;                               // how long every call takes
};
void set(const State &state);
[[nodiscard]] State get();
[[nodiscard]] int calls(const std::string &function);

} // namespace wifi

// ---- Display board's power ----

namespace power {

void set(int value); // every reading from now on; 0 after reset()
[[nodiscard]] int readings();
[[nodiscard]] std::int64_t sum(); // of what was read

} // namespace power

// ---- Remote proxy ----

namespace proxy {

// What the service has installed; null while it has not. Calling one directly is for what a proxy
// would never let through; requests go through the functions below.
struct Handlers {
    KestGetDRLCOverrideFunc getDrlcOverride;
    KestControlOverrideFunc controlOverride;
    KestControlDRLCFunc controlDrlc;
    KestGetDefrostReservationsFunc getDefrostReservations;
    KestCreateDefrostReservationsFunc createDefrostReservations;
    KestSetDefrostReservationsFunc setDefrostReservations;
    KestDelDefrostReservationsFunc delDefrostReservations;
    KestGetDelayDefrostFunc getDelayDefrost;
    KestSetDelayDefrostFunc setDelayDefrost;
    KestGetDefrostBlockFunc getDefrostBlock;
    KestGetEnergyConsumptionFunc getEnergyConsumption;
};
[[nodiscard]] Handlers handlers();

// Requests of the remote side. Each waits its turn, has its handler called on the proxy's own
// thread and comes back with the handler's answer, or kRefused when there is no handler or the
// service is stopping: then no handler was called. Not from a handler. Requests that shall meet are
// made from threads of their own.
constexpr int kRefused = -1;

struct DrlcOverride {
    int answer;
    int level; // both -99 before the handler
    int override_state;
};
struct Value {
    int answer;
    int value; // -99 before the handler
};
struct Reservations {
    int answer;
    int count; // -99 before the handler
    std::vector<KestDefrostReservation> entries;
};
struct Created {
    int answer;
    int error; // 0 before the handler
    KestDefrostReservation entry;
    std::string text; // after the handler
};
struct Consumption {
    int answer;
    std::string cumulative; // both "untouched" before the handler
    std::string monthly;
};

int controlDrlc(const std::string &level, const std::string &duration = "",
                const std::string &start = "");
int controlDrlc(KestDrlcInfo *info); // keeps what the handler wrote into it
int controlOverride(int value);
DrlcOverride getDrlcOverride();
Value getDefrostBlock();
Value getDelayDefrost();
int setDelayDefrost(int enabled);
Reservations getDefrostReservations();
Created createDefrostReservation(const KestDefrostReservation &entry,
                                 const std::string &text = "--------");
int setDefrostReservation(const KestDefrostReservation &entry);
int delDefrostReservation(const char *id);
Consumption getEnergyConsumption();

// Fills the members; a text longer than its member is cut without a terminator.
[[nodiscard]] KestDefrostReservation reservation(const std::string &startTime,
                                                 const std::string &endTime,
                                                 const std::string &period,
                                                 const std::string &description = "");
// A member as text, whether it is terminated or not.
[[nodiscard]] std::string memberText(const char *member, std::size_t size);
#define FAKES_TEXT(member) ::fakes::proxy::memberText(member, sizeof(member))

struct Command {
    std::string name;
    int kind;
    bool operator==(const Command &) const = default;
};
[[nodiscard]] std::vector<Command> commands(); // declared so far, in order

// Texts of all notifications so far, as in the trace.
[[nodiscard]] std::vector<std::string> notifications();

struct ReservationNotification {
    int action;
    std::vector<KestDefrostReservation> entries;
};
[[nodiscard]] std::vector<ReservationNotification> reservationNotifications();

void answerNotifications(int result); // of every one from now on; 0 after reset()

// Lets every declaration, installation and start from now on answer -1, though it is done; not any
// more after reset().
void answerFailure();

// The platform's promise before terminate: waits for the running handler, refuses from then on.
// The loop calls it; tests without a loop may.
void quiesce();

} // namespace proxy

// ---- Metering service behind libcurl ----

namespace metering {

struct Post {
    std::string url;
    std::string method;               // CURLOPT_CUSTOMREQUEST; empty when it was not set
    std::vector<std::string> options; // every option set, in order: "URL=...", "CUSTOMREQUEST=POST"
    std::int64_t utcNs;               // when the transfer began
};
[[nodiscard]] std::vector<Post> posts();
[[nodiscard]] int openHandles();

void failCreation(int times);   // curl_easy_init answers null
void failTransfers(int times);  // curl_easy_perform answers CURLE_COULDNT_CONNECT
void hangTransfers(double sec); // every transfer takes that long

} // namespace metering

} // namespace fakes

#endif
