/*
 * Remote proxy in memory. Requests of the test wait in one queue, in which one thread of the proxy
 * calls handler after handler with no lock held; notifications are only recorded.
 *
 * Divisions: the queue and its thread; the functions of the header; the remote side.
 */
#include "fakes.h"
#include "internal.h"
#include "virtual_time.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace {

using namespace fakes::proxy;
using fakes::Kind;
using fakes::internal::record;

// ---- The queue and its thread ----

// A request on its way. It lives on the stack of whoever asks and waits.
struct Request {
    std::function<int()> call; // answers kRefused when there is no handler
    int answer = kRefused;
    bool done = false;
};

std::mutex mutex;
std::condition_variable changed;
std::deque<Request *> queue; // guarded by mutex, as is the rest
std::thread worker;
bool silenced = false;
bool isNamed = false;
bool isStarted = false;
Handlers installed{};
std::vector<Command> declared;
std::vector<std::string> sent;
std::vector<ReservationNotification> sentReservations;
int notificationAnswer = 0;
bool failureIsAnswered = false;

void workOnRequests() {
    virtualtime::nameThread("proxy");
    std::unique_lock lock(mutex);
    while (!silenced) {
        if (queue.empty()) {
            changed.wait(lock);
            continue;
        }
        Request *request = queue.front();
        queue.pop_front();
        lock.unlock();
        const int answer = request->call();
        lock.lock();
        request->answer = answer;
        request->done = true;
        changed.notify_all();
    }
    for (Request *request : queue) {
        request->done = true;
    }
    queue.clear();
    changed.notify_all();
}

int waitForAnswer(std::function<int()> call) {
    Request request{std::move(call)};
    std::unique_lock lock(mutex);
    if (silenced) {
        return kRefused;
    }
    if (!worker.joinable()) {
        worker = std::thread(workOnRequests);
    }
    queue.push_back(&request);
    changed.notify_all();
    changed.wait(lock, [&request] { return request.done; });
    return request.answer;
}

// Asks for the handler that is installed when its turn has come and calls it. The text is what the
// trace shows: the command and its arguments.
template <typename Handler, typename... Arguments>
int request(const std::string &text, Handler Handlers::*which, Arguments... arguments) {
    return waitForAnswer([&text, which, arguments...] {
        Handler handler = nullptr;
        {
            const std::lock_guard lock(mutex);
            handler = installed.*which;
        }
        if (handler == nullptr) {
            return kRefused;
        }
        record(Kind::Request, text);
        const int answer = handler(arguments...);
        record(Kind::Request, text.substr(0, text.find('(')) + " -> " + std::to_string(answer));
        return answer;
    });
}

template <typename Handler>
int install(const char *function, Handler Handlers::*which, Handler handler) {
    record(Kind::Proxy, function);
    if (handler == nullptr) {
        return -1;
    }
    const std::lock_guard lock(mutex);
    installed.*which = handler;
    return failureIsAnswered ? -1 : 0;
}

int notify(const std::string &text) {
    record(Kind::Notification, text);
    const std::lock_guard lock(mutex);
    if (fakes::internal::keepsRecords()) {
        sent.push_back(text);
    }
    return notificationAnswer;
}

} // namespace

// ---- The functions of the header ----

extern "C" {

int KestAddProxyCommands(const char *name, int kind) {
    record(Kind::Proxy,
           "KestAddProxyCommands(" + std::string(name) + ", " + std::to_string(kind) + ")");
    const std::lock_guard lock(mutex);
    declared.push_back({name, kind});
    return failureIsAnswered ? -1 : 0;
}

int KestInitProxy(const char *name) {
    record(Kind::Proxy, "KestInitProxy(" + std::string(name) + ")");
    const std::lock_guard lock(mutex);
    return std::exchange(isNamed, true) || failureIsAnswered ? -1 : 0;
}

int KestStart() {
    record(Kind::Proxy, "KestStart");
    const std::lock_guard lock(mutex);
    return !isNamed || std::exchange(isStarted, true) || failureIsAnswered ? -1 : 0;
}

int KestSendSetProxyCmds() {
    record(Kind::Proxy, "KestSendSetProxyCmds");
    const std::lock_guard lock(mutex);
    return isStarted && !failureIsAnswered ? 0 : -1;
}

int KestRegisterGetDRLCOverrideFunc(KestGetDRLCOverrideFunc handler) {
    return install(__func__, &Handlers::getDrlcOverride, handler);
}

int KestRegisterControlOverrideFunc(KestControlOverrideFunc handler) {
    return install(__func__, &Handlers::controlOverride, handler);
}

int KestRegisterControlDRLCFunc(KestControlDRLCFunc handler) {
    return install(__func__, &Handlers::controlDrlc, handler);
}

int KestRegisterGetDefrostReservationsFunc(KestGetDefrostReservationsFunc handler) {
    return install(__func__, &Handlers::getDefrostReservations, handler);
}

int KestRegisterCreateDefrostReservationsFunc(KestCreateDefrostReservationsFunc handler) {
    return install(__func__, &Handlers::createDefrostReservations, handler);
}

int KestRegisterSetDefrostReservationsFunc(KestSetDefrostReservationsFunc handler) {
    return install(__func__, &Handlers::setDefrostReservations, handler);
}

int KestRegisterDelDefrostReservationsFunc(KestDelDefrostReservationsFunc handler) {
    return install(__func__, &Handlers::delDefrostReservations, handler);
}

int KestRegisterGetDelayDefrostFunc(KestGetDelayDefrostFunc handler) {
    return install(__func__, &Handlers::getDelayDefrost, handler);
}

int KestRegisterSetDelayDefrostFunc(KestSetDelayDefrostFunc handler) {
    return install(__func__, &Handlers::setDelayDefrost, handler);
}

int KestRegisterGetDefrostBlockFunc(KestGetDefrostBlockFunc handler) {
    return install(__func__, &Handlers::getDefrostBlock, handler);
}

int KestRegisterGetEnergyConsumptionFunc(KestGetEnergyConsumptionFunc handler) {
    return install(__func__, &Handlers::getEnergyConsumption, handler);
}

int KestSendOverrideNotify(int override_state) {
    return notify("SendOverrideNotify(" + std::to_string(override_state) + ")");
}

int KestSendDRLCNotify(int level) {
    return notify("SendDRLCNotify(" + std::to_string(level) + ")");
}

int KestSendDelayDefrostNotify(bool enabled) {
    return notify(enabled ? "SendDelayDefrostNotify(true)" : "SendDelayDefrostNotify(false)");
}

int KestSendDefrostBlockNotify(int block) {
    return notify("SendDefrostBlockNotify(" + std::to_string(block) + ")");
}

int KestSendDefrostReservationsNotify(int action, KestDefrostReservation *entry, int count) {
    std::string text = "SendDefrostReservationsNotify(" + std::to_string(action);
    ReservationNotification notification{action, {entry, entry + count}};
    for (const KestDefrostReservation &one : notification.entries) {
        text += ", " + FAKES_TEXT(one.id);
    }
    if (fakes::internal::keepsRecords()) {
        const std::lock_guard lock(mutex);
        sentReservations.push_back(std::move(notification));
    }
    return notify(text + ")");
}

} // extern "C"

// ---- The remote side ----

namespace fakes {
namespace proxy {

namespace {

constexpr int kUntouched = -99;

void copyInto(char *member, std::size_t size, const std::string &text) {
    std::fill_n(member, size, '\0');
    std::copy_n(text.data(), std::min(size, text.size()), member);
}

std::string joined(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ", ") + part;
    }
    return text;
}

std::string describe(const KestDefrostReservation &entry) {
    return joined({FAKES_TEXT(entry.startTime), FAKES_TEXT(entry.endTime), FAKES_TEXT(entry.period),
                   FAKES_TEXT(entry.description)});
}

} // namespace

Handlers handlers() {
    const std::lock_guard lock(mutex);
    return installed;
}

int controlDrlc(const std::string &level, const std::string &duration, const std::string &start) {
    KestDrlcInfo info{};
    copyInto(info.drlcLevel, sizeof info.drlcLevel - 1, level);
    copyInto(info.duration, sizeof info.duration - 1, duration);
    copyInto(info.drlcStartTime, sizeof info.drlcStartTime - 1, start);
    return controlDrlc(&info);
}

int controlDrlc(KestDrlcInfo *info) {
    const std::string text = "ControlDRLC(" +
                             joined({FAKES_TEXT(info->drlcLevel), FAKES_TEXT(info->duration),
                                     FAKES_TEXT(info->drlcStartTime)}) +
                             ")";
    return request(text, &Handlers::controlDrlc, info);
}

int controlOverride(int value) {
    return request("ControlOverride(" + std::to_string(value) + ")", &Handlers::controlOverride,
                   value);
}

DrlcOverride getDrlcOverride() {
    DrlcOverride result{kRefused, kUntouched, kUntouched};
    result.answer = request("GetDRLCOverride()", &Handlers::getDrlcOverride, &result.level,
                            &result.override_state);
    return result;
}

Value getDefrostBlock() {
    Value result{kRefused, kUntouched};
    result.answer = request("GetDefrostBlock()", &Handlers::getDefrostBlock, &result.value);
    return result;
}

Value getDelayDefrost() {
    Value result{kRefused, kUntouched};
    result.answer = request("GetDelayDefrost()", &Handlers::getDelayDefrost, &result.value);
    return result;
}

int setDelayDefrost(int enabled) {
    return request("SetDelayDefrost(" + std::to_string(enabled) + ")", &Handlers::setDelayDefrost,
                   enabled);
}

Reservations getDefrostReservations() {
    Reservations result{kRefused, kUntouched, {}};
    // Exactly the room that is promised, on the heap, so that a sanitizer sees a fifth entry.
    std::vector<KestDefrostReservation> room(4);
    result.answer = request("GetDefrostReservations()", &Handlers::getDefrostReservations,
                            room.data(), &result.count);
    room.resize(static_cast<std::size_t>(std::clamp(result.count, 0, 4)));
    result.entries = std::move(room);
    return result;
}

Created createDefrostReservation(const KestDefrostReservation &entry, const std::string &text) {
    Created result{kRefused, 0, entry, ""};
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    result.answer =
        request("CreateDefrostReservations(" + describe(entry) + ")",
                &Handlers::createDefrostReservations, &result.entry, buffer.data(), &result.error);
    result.text = buffer.data();
    return result;
}

int setDefrostReservation(const KestDefrostReservation &entry) {
    KestDefrostReservation copy = entry;
    return request("SetDefrostReservations(" + describe(entry) + ")",
                   &Handlers::setDefrostReservations, &copy);
}

int delDefrostReservation(const char *id) {
    const std::string text = id == nullptr ? "null" : id;
    return request("DelDefrostReservations(" + text + ")", &Handlers::delDefrostReservations,
                   static_cast<void *>(nullptr), id);
}

Consumption getEnergyConsumption() {
    // Exactly the room that is promised, on the heap, as above.
    std::vector<char> cumulative(512);
    copyInto(cumulative.data(), cumulative.size(), "untouched");
    std::vector<char> monthly = cumulative;
    const int answer = request("GetEnergyConsumption()", &Handlers::getEnergyConsumption,
                               cumulative.data(), monthly.data());
    return {answer, cumulative.data(), monthly.data()};
}

KestDefrostReservation reservation(const std::string &startTime, const std::string &endTime,
                                   const std::string &period, const std::string &description) {
    KestDefrostReservation entry{};
    copyInto(entry.startTime, sizeof entry.startTime, startTime);
    copyInto(entry.endTime, sizeof entry.endTime, endTime);
    copyInto(entry.period, sizeof entry.period, period);
    copyInto(entry.description, sizeof entry.description, description);
    return entry;
}

std::string memberText(const char *member, std::size_t size) {
    return {member, strnlen(member, size)};
}

std::vector<Command> commands() {
    const std::lock_guard lock(mutex);
    return declared;
}

std::vector<std::string> notifications() {
    const std::lock_guard lock(mutex);
    return sent;
}

std::vector<ReservationNotification> reservationNotifications() {
    const std::lock_guard lock(mutex);
    return sentReservations;
}

void answerNotifications(int result) {
    const std::lock_guard lock(mutex);
    notificationAnswer = result;
}

void answerFailure() {
    const std::lock_guard lock(mutex);
    failureIsAnswered = true;
}

void quiesce() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex);
        silenced = true;
        ending.swap(worker);
        changed.notify_all();
    }
    if (ending.joinable()) {
        ending.join();
    }
}

} // namespace proxy

namespace internal {

void forgetHandlers() {
    const std::lock_guard lock(mutex);
    installed = {};
    declared.clear();
    silenced = false;
    isNamed = false;
    isStarted = false;
}

void clearProxy() {
    const std::lock_guard lock(mutex);
    sent.clear();
    sentReservations.clear();
}

void resetProxy() {
    forgetHandlers();
    proxy::answerNotifications(0);
    const std::lock_guard lock(mutex);
    failureIsAnswered = false;
}

} // namespace internal
} // namespace fakes
