/*
 * EnergyManager and its start-up gate. In this order: the settings keys watched for the whole
 * service, the remote commands, the manager's life, its task queue, its controllers, the gate.
 */
#include "EnergyManager.h"

#include <memory>

#include <ocf_proxy.h>
#include <vconf.h>

#include "DefrostDelay.h"
#include "EnergyDR.h"
#include "EnergyReport.h"
#include "Log.h"
#include "Pin.h"

namespace Corvane {

std::mutex EnergyManager::instanceMutex;
EnergyManager *EnergyManager::Instance = nullptr;

namespace {

constexpr const char *kCityKey = "db/setting/cityname_id";
constexpr const char *kDisplayOverrideKey = "db/corvane/dr/micom_override";
constexpr const char *kMicomOverrideKey = "memory/refrigerator/SmartGridOverrideState";

void onTimeZoneChanged(keynode_t *, void *) {
    LOG(DLOG_DEBUG, "change timezone");
    LOG(DLOG_DEBUG, "Current LocalTime : %s", toAsctime(toLocal(nowSec())).c_str());
}

/* The override was switched on the appliance's own display. */
void onDisplayOverride(keynode_t *, void *) {
    int value = 0;
    if (vconf_get_int(kDisplayOverrideKey, &value) != 0) {
        return;
    }
    LOG(DLOG_DEBUG, "Callback Set DR_Override From LCD : %d", value);
    if (value == 1) {
        vconf_set_str("memory/refrigerator/TxMessage", "SET_SMARTGRID_OVERRIDE_FOREVER");
    } else if (value == 0) {
        vconf_set_str("memory/refrigerator/TxMessage", "SET_SMARTGRID_OVERRIDE_OFF");
    }
}

/* The Micom reports the override that it has applied. */
void onMicomOverride(keynode_t *, void *) {
    int value = 0;
    if (vconf_get_int(kMicomOverrideKey, &value) != 0) {
        return;
    }
    LOG(DLOG_DEBUG, "Callback Set DR_Override From Micom : %d", value);
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (!dr) {
        vconf_set_int("db/corvane/dr/override", value); // the controller reads it when it is built
    } else if (dr->getOverride() != value) {
        dr->setOverride(value);
    }
}

} // namespace

void EnergyManager::KestAddProxy(const std::string &name, KestCmd kind) {
    LOG(DLOG_INFO, "EnergyManager::KestAddProxy()");
    if (kind == KEST_CMD_NOTIFY || kind == KEST_CMD_REQUEST) {
        KestAddProxyCommands(name.c_str(), kind);
    }
}

void EnergyManager::_declareCommands() {
    KestAddProxy("GetDRLCOverride", KEST_CMD_REQUEST);
    KestAddProxy("ControlOverride", KEST_CMD_REQUEST);
    KestAddProxy("ControlDRLC", KEST_CMD_REQUEST);
    KestAddProxy("GetDefrostReservations", KEST_CMD_REQUEST);
    KestAddProxy("CreateDefrostReservations", KEST_CMD_REQUEST);
    KestAddProxy("SetDefrostReservations", KEST_CMD_REQUEST);
    KestAddProxy("DelDefrostReservations", KEST_CMD_REQUEST);
    KestAddProxy("GetDelayDefrost", KEST_CMD_REQUEST);
    KestAddProxy("SetDelayDefrost", KEST_CMD_REQUEST);
    KestAddProxy("GetDefrostBlock", KEST_CMD_REQUEST);
    KestAddProxy("SendOverrideNotify", KEST_CMD_NOTIFY);
    KestAddProxy("SendDRLCNotify", KEST_CMD_NOTIFY);
    KestAddProxy("SendDelayDefrostNotify", KEST_CMD_NOTIFY);
    KestAddProxy("SendDefrostBlockNotify", KEST_CMD_NOTIFY);
    KestAddProxy("GetEnergyConsumption", KEST_CMD_REQUEST);
    KestInitProxy("KestProxyTest");
    KestStart();
    KestSendSetProxyCmds();
}

EnergyManager *EnergyManager::_instance() {
    std::lock_guard<std::mutex> lock(instanceMutex);
    if (Instance == nullptr) {
        Instance = new EnergyManager;
    }
    return Instance;
}

void EnergyManager::Initialize() {
    LOG(DLOG_INFO, "EnergyManager::Initialize()");
    EnergyManager *manager = _instance();
    vconf_notify_key_changed(kCityKey, onTimeZoneChanged, nullptr);
    LOG(DLOG_DEBUG, "register MainMicom");
    vconf_notify_key_changed(kDisplayOverrideKey, onDisplayOverride, nullptr);
    vconf_notify_key_changed(kMicomOverrideKey, onMicomOverride, nullptr);
    _declareCommands();
    LOG(DLOG_DEBUG, "Start Intro");
    if (manager->intro == nullptr) {
        manager->intro = new Intro;
        manager->intro->refresh();
    }
}

void EnergyManager::Finalize() {
    EnergyManager *manager = nullptr;
    {
        std::lock_guard<std::mutex> lock(instanceMutex);
        manager = Instance;
    }
    if (manager == nullptr) {
        return;
    }
    // Instance stays set meanwhile: what still runs must find this manager, not make another.
    delete manager;
    std::lock_guard<std::mutex> lock(instanceMutex);
    Instance = nullptr;
}

EnergyManager::EnergyManager() {
    Pin<EnergyManager>::enter(this);
    thread = new std::thread([this] { _runTasks(); });
}

EnergyManager::~EnergyManager() {
    delete intro;
    intro = nullptr;
    _deleteControllers();
    stop.store(true);
    thread->join();
    delete thread;
    thread = nullptr;
    // A task that was running may have built one more controller.
    _deleteControllers();
    Pin<EnergyManager>::leave(this);
    for (const std::function<void()> *task : tasks) {
        delete task;
    }
}

void EnergyManager::_runTasks() {
    while (!stop.load()) {
        std::unique_ptr<std::function<void()>> task;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!tasks.empty()) {
                task.reset(tasks.front());
                tasks.pop_front();
            }
        }
        if (task != nullptr) {
            (*task)();
            task.reset();
        }
        if (stop.load()) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void EnergyManager::_queueTask(const std::function<void()> &task) {
    std::lock_guard<std::mutex> lock(mutex);
    tasks.push_back(new std::function<void()>(task));
}

void EnergyManager::AsyncCall(const std::function<void()> &task) {
    Pin<EnergyManager> manager(_instance());
    if (manager) {
        manager->_queueTask(task);
    }
}

namespace {

/* Queues the construction of a controller whose slot is empty. */
template <class Controller>
void queueConstruction(std::atomic<Controller *> &slot) {
    if (slot.load() != nullptr) {
        return;
    }
    EnergyManager::AsyncCall([&slot] {
        sleepOneSecond();
        // Two launches in a row may both have found the slot empty; it takes one controller.
        if (slot.load() == nullptr) {
            slot.store(new Controller);
        }
    });
}

/*
 * Deletes a controller and then empties its slot. The gate's refresh and the end of the process may
 * both be at it: only who retires the controller deletes it.
 */
template <class Controller>
void deleteController(std::atomic<Controller *> &slot) {
    if (Controller *controller = Pin<Controller>::retire(slot)) {
        delete controller;
        slot.store(nullptr);
    }
}

} // namespace

void EnergyManager::LaunchApp() {
    Pin<EnergyManager> manager(_instance());
    if (manager) {
        queueConstruction(manager->defrostDelay);
        queueConstruction(manager->energyDR);
        queueConstruction(manager->energyReport);
    }
}

void EnergyManager::FinalThread() {
    Pin<EnergyManager> manager(_instance());
    if (manager) {
        manager->_deleteControllers();
    }
}

void EnergyManager::_deleteControllers() {
    deleteController(defrostDelay);
    deleteController(energyDR);
    deleteController(energyReport);
}

EnergyReport *EnergyManager::GetEnergyReport() {
    Pin<EnergyManager> manager(_instance());
    return manager ? manager->energyReport.load() : nullptr;
}

EnergyDR *EnergyManager::GetEnergyDR() {
    Pin<EnergyManager> manager(_instance());
    return manager ? manager->energyDR.load() : nullptr;
}

DefrostDelay *EnergyManager::GetDefrostDelay() {
    Pin<EnergyManager> manager(_instance());
    return manager ? manager->defrostDelay.load() : nullptr;
}

Intro::Intro() {
    Pin<Intro>::enter(this);
    wifi_initialize();
}

Intro::~Intro() {
    Pin<Intro>::leave(this);
    wifi_initialize();
    wifi_unset_connection_state_changed_cb();
}

void Intro::_queue(void (Intro::*step)()) {
    EnergyManager::AsyncCall([this, step] {
        sleepOneSecond();
        Pin<Intro> intro(this);
        if (intro) {
            (this->*step)();
        }
    });
}

void Intro::refresh() {
    EnergyManager::AsyncCall([this] {
        EnergyManager::FinalThread();
        sleepOneSecond();
        Pin<Intro> intro(this);
        if (intro) {
            _wifiCheck();
        }
    });
}

void Intro::_wifiCheck() {
    wifi_initialize();
    wifi_ap_h accessPoint = nullptr;
    if (wifi_get_connected_ap(&accessPoint) != 0) {
        LOG(DLOG_DEBUG, "wifi not connected");
        _queue(&Intro::_wifiCheck);
        return;
    }
    LOG(DLOG_DEBUG, "wifi connetion success");
    _queue(&Intro::_launchCheck);
}

void Intro::_launchCheck() {
    if (!_dateCheck()) {
        _queue(&Intro::_launchCheck);
        return;
    }
    LOG(DLOG_DEBUG, "Date & Time is alright");
    EnergyManager::LaunchApp();
}

bool Intro::_dateCheck() {
    constexpr int kYear2015 = 2015 - 1900;
    constexpr int kDecember = 11;
    const tm now = toUtc(nowSec());
    if (now.tm_year > kYear2015 || (now.tm_year == kYear2015 && now.tm_mon >= kDecember)) {
        return true;
    }
    LOG(DLOG_DEBUG, "DATE is not right");
    return false;
}

void Intro::_wifiActivate() {
    wifi_initialize();
    bool activated = false;
    wifi_is_activated(&activated);
    if (activated) {
        _queue(&Intro::_wifiCheck);
        return;
    }
    LOG(DLOG_DEBUG, "WiFi activate...");
    if (wifi_activate(_activated, this) != 0) {
        LOG(DLOG_DEBUG, "wifi activate FAILED");
    }
    _queue(&Intro::_wifiActivate);
}

void Intro::_activated(wifi_error_e result, void *userData) {
    Pin<Intro> intro(static_cast<Intro *>(userData));
    if (!intro) {
        return;
    }
    if (result != WIFI_ERROR_NONE) {
        intro->_queue(&Intro::_wifiActivate);
        return;
    }
    LOG(DLOG_DEBUG, "wifi activate success");
    intro->_queue(&Intro::_wifiCheck);
}

} // namespace Corvane
