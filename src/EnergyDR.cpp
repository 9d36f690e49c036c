/*
 * EnergyDR, in this order: state and commands, the Micom's echo, start-up, the worker, the remote
 * handlers.
 */
#include "EnergyDR.h"

#include <cstdlib>
#include <cstring>

#include <ocf_proxy.h>
#include <vconf.h>

#include "DefrostDelay.h"
#include "EnergyManager.h"
#include "Log.h"

namespace Corvane {

namespace {

constexpr const char *kLevelKey = "db/corvane/dr/level";
constexpr const char *kOverrideKey = "db/corvane/dr/override";
constexpr const char *kLevelEchoKey = "memory/refrigerator/SmartGridDrLevel";

/* Where the time of day stands in a "%FT%T" text. */
constexpr size_t kTimeOfDayAt = 11;
constexpr size_t kTimeOfDayLength = 8;

std::string toUtcText(TimePoint time) {
    return toAsctime(toUtc(std::chrono::system_clock::to_time_t(time)));
}

bool isEvent(const drRecord &record) {
    return !record.drlcLevel.empty() && record.drlcLevel != "0";
}

/* A demand-response event stops a running defrost delay. */
void disableDefrostDelay() {
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (defrost) {
        defrost->isActiveDisable();
    }
}

} // namespace

int EnergyDR::getOverride() {
    std::lock_guard<std::mutex> lock(mutex);
    return override;
}

int EnergyDR::getLevel() {
    std::lock_guard<std::mutex> lock(mutex);
    return level;
}

int EnergyDR::getSendLevel() {
    std::lock_guard<std::mutex> lock(mutex);
    return sendLevel;
}

int EnergyDR::getBlock() {
    std::lock_guard<std::mutex> lock(mutex);
    return block;
}

drRecord EnergyDR::getSchedule() {
    std::lock_guard<std::mutex> lock(mutex);
    return schedule;
}

int EnergyDR::setOverride(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    override = value;
    vconf_set_int(kOverrideKey, override);
    LOG(DLOG_DEBUG, "DR] Info that is changed Override send KestD : %d", override);
    if (override == 1 || override == 0) {
        return KestSendOverrideNotify(override);
    }
    return 0;
}

void EnergyDR::setLevel(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    level = value;
    vconf_set_int(kLevelKey, level);
    LOG(DLOG_DEBUG, "DR] Info that is changed Level send KestD : %d", level);
    KestSendDRLCNotify(level);
}

void EnergyDR::setBlock(int value) {
    LOG(DLOG_INFO, "EnergyDR::setBlock()");
    std::lock_guard<std::mutex> lock(mutex);
    block = value;
    LOG(DLOG_DEBUG, "DR] Info that is changed Block send KestD : %d", block);
    KestSendDefrostBlockNotify(block);
    LOG(DLOG_INFO, "EnergyDR::setBlock() End");
}

void EnergyDR::setSendLevel(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    sendLevel = value;
    _sendToMicomInfoByLevel();
}

void EnergyDR::_sendToMicomInfoByLevel() {
    switch (sendLevel) {
    case 0:
        _sendToMicom("SET_SMARTGRID_LEVEL_NORMAL");
        break;
    case 1:
        _sendToMicom("SET_SMARTGRID_LEVEL1");
        break;
    case 2:
        _sendToMicom("SET_SMARTGRID_LEVEL2");
        break;
    case 3:
        _sendToMicom("SET_SMARTGRID_LEVEL3");
        break;
    case 4:
        _sendToMicom("SET_SMARTGRID_LEVEL4");
        break;
    default:
        break;
    }
}

void EnergyDR::_sendToMicomInfoByOverride(int value) {
    if (value == 1) {
        _sendToMicom("SET_SMARTGRID_OVERRIDE_FOREVER");
    } else if (value == 0) {
        _sendToMicom("SET_SMARTGRID_OVERRIDE_OFF");
    }
}

void EnergyDR::isActiveInit() {
    std::lock_guard<std::mutex> lock(mutex);
    DrDB table;
    table.deleteRecord();
    table.selectRecord(schedule);
    table.close();
    level = 0;
    sendLevel = 0;
    vconf_set_int(kLevelKey, level);
    _sendToMicomInfoByLevel();
    if (block != 0) {
        block = 0;
        KestSendDefrostBlockNotify(block);
    }
    LOG(DLOG_DEBUG, "DR] Info that is changed Level send KestD : %d", level);
    KestSendDRLCNotify(level);
}

namespace {

/*
 * What the echo calls for, a second later: a level that was just commanded has settled by then. An
 * appliance that drops to level 0 on its own ends the event.
 */
void followEcho(EnergyDR *controller, int value) {
    sleepOneSecond();
    Pin<EnergyDR> dr(controller);
    if (!dr) {
        return;
    }
    if (value == 0) {
        dr->isActiveInit();
    } else if (dr->getLevel() != value) {
        dr->setLevel(value);
    }
}

void onLevelEcho(keynode_t *, void *userData) {
    auto *controller = static_cast<EnergyDR *>(userData);
    Pin<EnergyDR> dr(controller);
    int value = 0;
    if (!dr || vconf_get_int(kLevelEchoKey, &value) != 0) {
        return;
    }
    LOG(DLOG_DEBUG, "Callback DR_Level Resp From Micom : %d", value);
    if (value != dr->getLevel()) {
        EnergyManager::AsyncCall([controller, value] { followEcho(controller, value); });
    }
}

int onControlOverride(int value);
int onControlDRLC(KestDrlcInfo *info);
int onGetDRLCOverride(int *level, int *overrideState);
int onGetDefrostBlock(int *block);

} // namespace

EnergyDR::EnergyDR() {
    Pin<EnergyDR>::enter(this);
    EnergyDR::_initialize();
    thread = new std::thread([this] { _run(); });
}

EnergyDR::~EnergyDR() {
    Pin<EnergyDR>::leave(this);
    EnergyDR::_finalize();
}

void EnergyDR::_initialize() {
    int value = 0;
    vconf_get_int(kLevelKey, &value);
    setSendLevel(value);
    vconf_get_int(kOverrideKey, &value); // deliberate: a failed read leaves the level in value
    setOverride(value);
    {
        std::lock_guard<std::mutex> lock(mutex);
        DrDB table;
        table.create();
        table.close();
    }
    loadSchedule();
    setBlock(haveSchedule() ? 1 : 0);
    vconf_notify_key_changed(kLevelEchoKey, onLevelEcho, this);
    KestRegisterControlOverrideFunc(onControlOverride);
    KestRegisterControlDRLCFunc(onControlDRLC);
    KestRegisterGetDRLCOverrideFunc(onGetDRLCOverride);
    KestRegisterGetDefrostBlockFunc(onGetDefrostBlock);
}

void EnergyDR::_finalize() { _stopThread(); }

void EnergyDR::loadSchedule() {
    std::lock_guard<std::mutex> lock(mutex);
    DrDB table;
    table.selectRecord(schedule);
    table.close();
    LOG(DLOG_DEBUG, "drlcStartTime : %s", schedule.drlcStartTime.c_str());
    LOG(DLOG_DEBUG, "drlcLevel : %s", schedule.drlcLevel.c_str());
    LOG(DLOG_DEBUG, "duration : %s", schedule.duration.c_str());
}

bool EnergyDR::haveSchedule() {
    drRecord stored;
    {
        std::lock_guard<std::mutex> lock(mutex);
        DrDB table;
        table.selectRecord(stored);
        table.close();
    }
    return isEvent(stored);
}

void EnergyDR::_run() {
    LOG(DLOG_INFO, "start EnergyDR Thread!!");
    while (!stop.load()) {
        _pass();
        sleepOneSecond();
    }
    LOG(DLOG_INFO, "stop EnergyDR Thread!!");
}

void EnergyDR::_pass() {
    const TimePoint now = std::chrono::system_clock::now();
    const int minute = toUtc(std::chrono::system_clock::to_time_t(now)).tm_min;
    const bool minuteChanged = minute != lastTick;
    // Deliberate: keyed to the minute that has ended. These lines therefore come at minutes 01,
    // 11, 21 and so on.
    const bool periodicLog = minuteChanged && lastTick % 10 == 0;

    const drRecord event = getSchedule();
    if (!isEvent(event)) {
        if (periodicLog) {
            LOG(DLOG_DEBUG, "No have DR Schedule");
        }
    } else {
        const TimePoint start = _strToTp(event.drlcStartTime);
        const TimePoint end = start + _strToDuration(event.duration);
        const std::string endText = toUtcText(end);
        if (periodicLog) {
            LOG(DLOG_DEBUG, " [UTC]current : %s", toUtcText(now).c_str());
            LOG(DLOG_DEBUG, " [UTC]start : %s", toUtcText(start).c_str());
            LOG(DLOG_DEBUG, " [UTC]end : %s", endText.c_str());
        }
        if (start <= now && now < end) {
            _activate(std::stoi(event.drlcLevel), endText);
            if (periodicLog) {
                LOG(DLOG_DEBUG, "DR] Current : %s", toUtcText(now).c_str());
                LOG(DLOG_DEBUG, "DR] Active Time Until %s", endText.c_str());
                LOG(DLOG_DEBUG, "DR] SendLevel %d", getSendLevel());
            }
        } else if (now > end) { // deliberate: at the very end the event is neither active nor over
            LOG(DLOG_DEBUG, "DR] Complete Active Time");
            isActiveInit();
        }
    }

    if (minuteChanged) {
        lastTick = minute;
        if (minute % 10 == 0) {
            std::lock_guard<std::mutex> lock(mutex);
            _sendToMicomInfoByLevel();
        }
    }
}

void EnergyDR::_activate(int eventLevel, const std::string &endText) {
    if (eventLevel == getSendLevel()) {
        return;
    }
    disableDefrostDelay();
    setSendLevel(eventLevel);
    LOG(DLOG_DEBUG, "DR] Active Time Until %s", endText.c_str());
    LOG(DLOG_DEBUG, "DR] SendLevel %d", getSendLevel());
}

int EnergyDR::_sendToDB(std::string eventLevel, std::string duration, std::string start) {
    const TimePoint now = std::chrono::system_clock::now();
    std::string text = _tmToStr(toUtc(std::chrono::system_clock::to_time_t(now)));
    if (start == "null" || start.empty()) {
        LOG(DLOG_DEBUG, "drlcStartTime Empty() - setCurrentTime");
        start = text.substr(kTimeOfDayAt, kTimeOfDayLength);
    }
    text.replace(kTimeOfDayAt, kTimeOfDayLength, start);
    LOG(DLOG_DEBUG, "drlcLevel : %s", eventLevel.c_str());
    LOG(DLOG_DEBUG, "duration : %s", duration.c_str());
    LOG(DLOG_DEBUG, "drlcStartTime : %s", start.c_str());

    TimePoint startTp = _strToTp(text);
    if (startTp + _strToDuration(duration) < now) {
        startTp += std::chrono::hours(24); // today's interval has passed: tomorrow is meant
    }
    const drRecord record{"0", eventLevel, duration,
                          _tmToStr(toUtc(std::chrono::system_clock::to_time_t(startTp)))};
    LOG(DLOG_DEBUG, "drlcLevel : %s", record.drlcLevel.c_str());
    LOG(DLOG_DEBUG, "duration : %s", record.duration.c_str());
    LOG(DLOG_DEBUG, "drlcStartTime : %s", record.drlcStartTime.c_str());

    std::lock_guard<std::mutex> lock(mutex);
    DrDB table;
    const int result = table.insertRecord(record);
    table.close();
    return result;
}

void EnergyDR::_deleteStored() {
    std::lock_guard<std::mutex> lock(mutex);
    drRecord stored;
    DrDB table;
    table.selectRecord(stored);
    if (!stored.rowid.empty()) {
        table.deleteRecord();
    }
    table.close();
}

void EnergyDR::_controlOverride(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    LOG(DLOG_DEBUG, "Callback Set DR_Override From Kest : %d", value);
    if (value == 1) {
        vconf_set_str("memory/refrigerator/TxMessage", "SET_SMARTGRID_OVERRIDE_FOREVER");
    } else if (value == 0) {
        vconf_set_str("memory/refrigerator/TxMessage", "SET_SMARTGRID_OVERRIDE_OFF");
    }
}

namespace {

/* The remote side's word for a member that it does not give. */
bool isAbsent(const std::string &text) { return text.empty() || text.compare(0, 4, "null") == 0; }

int onControlOverride(int value) {
    LOG(DLOG_DEBUG, "KestRegisterControlOverrideFunc");
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (!dr) {
        return 0;
    }
    dr->_controlOverride(value);
    return 1;
}

int onControlDRLC(KestDrlcInfo *info) {
    LOG(DLOG_DEBUG, "KestRegisterControlDRLCFunc");
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (!dr) {
        return 0;
    }
    const std::string level = textOf(info->drlcLevel);
    if (isAbsent(level)) {
        LOG(DLOG_DEBUG, "Not Have Drlc Level Data");
        LOG(DLOG_DEBUG, "return 0");
        return 0;
    }
    const int number = static_cast<int>(std::strtol(level.c_str(), nullptr, 10));
    LOG(DLOG_DEBUG, "Drlc Level : %d", number);
    if (number == 0) {
        dr->isActiveInit();
        return 1;
    }
    const std::string duration = textOf(info->duration);
    LOG(DLOG_DEBUG, "_infos->duration : %s, size : %d", duration.c_str(),
        static_cast<int>(duration.size()));
    if (isAbsent(duration)) {
        LOG(DLOG_DEBUG, "No Have Duration Data - set 04:30:00");
        std::strncpy(info->duration, "04:30:00", sizeof info->duration);
    }
    dr->_deleteStored(); // a new event always takes the place of the old one
    if (dr->_sendToDB(level, textOf(info->duration), textOf(info->drlcStartTime)) != 0) {
        LOG(DLOG_DEBUG, "return 0");
        return 0;
    }
    LOG(DLOG_DEBUG, "Sucess Send To DB");
    disableDefrostDelay();
    if (dr->getBlock() != 1) {
        dr->setBlock(1);
    }
    dr->loadSchedule();
    return 1;
}

int onGetDRLCOverride(int *level, int *overrideState) {
    LOG(DLOG_DEBUG, "KestRegisterGetDRLCOverrideFunc");
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (!dr) {
        return 0;
    }
    *overrideState = dr->getOverride();
    if (*overrideState == -1) {
        dr->_initialize();
        *overrideState = dr->getOverride();
    }
    *level = dr->getLevel();
    if (*level == -1) {
        dr->_initialize();
        *level = dr->getLevel();
        if (*level == -1) {
            *level = 0; // the appliance has confirmed none yet
        }
    }
    return 1;
}

int onGetDefrostBlock(int *block) {
    LOG(DLOG_DEBUG, "KestRegisterGetDefrostBlockFunc");
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (!dr) {
        return 0;
    }
    *block = dr->getBlock();
    if (*block == -1) {
        *block = dr->haveSchedule() ? 1 : 0;
        dr->setBlock(*block);
    }
    return 1;
}

} // namespace

} // namespace Corvane
