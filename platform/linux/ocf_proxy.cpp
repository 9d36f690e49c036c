// The functions of <ocf_proxy.h> and the three of proxy/lifecycle.h, on the one proxy that the
// program has between prepareProxy() and closeProxy(). Without one each function answers -1.
//
// The proxy is held by shared ownership: a call that another thread began before closeProxy() ends
// on a closed proxy, not on a deleted one.
#include "proxy/lifecycle.h"
#include "proxy/proxy.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ocf_proxy.h>
#include <utility>

namespace corvane::platform {

namespace {

using nlohmann::ordered_json;

constexpr const char *kDefaultListenAddress = "127.0.0.1:5683";
constexpr int kMaxNotifiedEntries = 4;

std::mutex currentMutex;
std::shared_ptr<Proxy> current; // guarded by currentMutex

std::shared_ptr<Proxy> currentProxy() {
    const std::lock_guard lock(currentMutex);
    return current;
}

template <typename Call>
int withProxy(Call call) {
    const auto proxy = currentProxy();
    return proxy == nullptr ? -1 : call(*proxy);
}

template <typename Handler>
int install(std::atomic<Handler> Handlers::*slot, Handler handler) {
    if (handler == nullptr)
        return -1;
    return withProxy([&](Proxy &proxy) {
        proxy.handlers().*slot = handler;
        return 0;
    });
}

int notify(CommandId id, const ordered_json &members) {
    return withProxy([&](Proxy &proxy) { return proxy.notify(id, members); });
}

std::string variable(const char *name, const char *otherwise) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment beside other threads
    const char *value = std::getenv(name);
    return value == nullptr || *value == '\0' ? otherwise : value;
}

} // namespace

std::string prepareProxy() {
    const std::lock_guard lock(currentMutex);
    if (current != nullptr)
        return "remote proxy: it is prepared already; close it first";
    auto proxy = std::make_shared<Proxy>();
    std::string problem = proxy->prepare(variable("CORVANE_COAP_LISTEN", kDefaultListenAddress),
                                         variable("CORVANE_COAP_PSK_FILE", ""));
    if (problem.empty())
        current = std::move(proxy);
    return problem;
}

void quiesceProxy() {
    if (const auto proxy = currentProxy())
        proxy->quiesce();
}

void closeProxy() {
    std::shared_ptr<Proxy> proxy;
    {
        const std::lock_guard lock(currentMutex);
        proxy.swap(current);
    }
    if (proxy != nullptr)
        proxy->close();
}

} // namespace corvane::platform

using namespace corvane::platform;

int KestAddProxyCommands(const char *name, int kind) {
    return withProxy([&](Proxy &proxy) { return proxy.declare(name, kind); });
}

int KestInitProxy(const char *name) {
    return withProxy([&](Proxy &proxy) { return proxy.init(name); });
}

int KestStart(void) {
    return withProxy([](Proxy &proxy) { return proxy.start(); });
}

int KestSendSetProxyCmds(void) {
    return withProxy([](Proxy &proxy) { return proxy.publish(); });
}

int KestRegisterGetDRLCOverrideFunc(KestGetDRLCOverrideFunc handler) {
    return install(&Handlers::getDrlcOverride, handler);
}

int KestRegisterControlOverrideFunc(KestControlOverrideFunc handler) {
    return install(&Handlers::controlOverride, handler);
}

int KestRegisterControlDRLCFunc(KestControlDRLCFunc handler) {
    return install(&Handlers::controlDrlc, handler);
}

int KestRegisterGetDefrostReservationsFunc(KestGetDefrostReservationsFunc handler) {
    return install(&Handlers::getDefrostReservations, handler);
}

int KestRegisterCreateDefrostReservationsFunc(KestCreateDefrostReservationsFunc handler) {
    return install(&Handlers::createDefrostReservations, handler);
}

int KestRegisterSetDefrostReservationsFunc(KestSetDefrostReservationsFunc handler) {
    return install(&Handlers::setDefrostReservations, handler);
}

int KestRegisterDelDefrostReservationsFunc(KestDelDefrostReservationsFunc handler) {
    return install(&Handlers::delDefrostReservations, handler);
}

int KestRegisterGetDelayDefrostFunc(KestGetDelayDefrostFunc handler) {
    return install(&Handlers::getDelayDefrost, handler);
}

int KestRegisterSetDelayDefrostFunc(KestSetDelayDefrostFunc handler) {
    return install(&Handlers::setDelayDefrost, handler);
}

int KestRegisterGetDefrostBlockFunc(KestGetDefrostBlockFunc handler) {
    return install(&Handlers::getDefrostBlock, handler);
}

int KestRegisterGetEnergyConsumptionFunc(KestGetEnergyConsumptionFunc handler) {
    return install(&Handlers::getEnergyConsumption, handler);
}

int KestSendOverrideNotify(int override_state) {
    return notify(CommandId::SendOverrideNotify, {{"override", override_state}});
}

int KestSendDRLCNotify(int level) { return notify(CommandId::SendDRLCNotify, {{"level", level}}); }

int KestSendDelayDefrostNotify(bool enabled) {
    return notify(CommandId::SendDelayDefrostNotify, {{"enabled", enabled}});
}

int KestSendDefrostBlockNotify(int block) {
    return notify(CommandId::SendDefrostBlockNotify, {{"block", block}});
}

int KestSendDefrostReservationsNotify(int action, KestDefrostReservation *entry, int count) {
    ordered_json entries = ordered_json::array();
    for (int i = 0; entry != nullptr && i < std::min(count, kMaxNotifiedEntries); ++i)
        entries.push_back(reservationMembers(entry[i]));
    return notify(CommandId::SendDefrostReservationsNotify,
                  {{"action", action}, {"entries", entries}});
}
