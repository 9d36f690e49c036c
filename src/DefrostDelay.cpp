/*
 * DefrostDelay, in this order: state and commands, start-up, reservations, the worker, the remote
 * handlers.
 */
#include "DefrostDelay.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <ocf_proxy.h>
#include <vconf.h>

#include "EnergyDR.h"
#include "EnergyManager.h"
#include "Log.h"

namespace Corvane {

namespace {

constexpr const char *kEnableKey = "db/corvane/defrost/status";
constexpr const char *kActiveKey = "db/corvane/defrost/activate";

constexpr int kSlots = 4;         // ids 0 to 3
constexpr int kFirstRemoteId = 2; // 0 and 1 are the seasonal defaults
constexpr int kNoFreeId = 507;

/* Where month and day, and the time of day, stand in a "%FT%T" text. */
constexpr size_t kMonthDayAt = 5;
constexpr size_t kMonthDayLength = 5;
constexpr size_t kTimeOfDayAt = 11;
constexpr size_t kTimeOfDayLength = 8;

std::string monthDayOf(const std::string &text) {
    return text.substr(kMonthDayAt, kMonthDayLength);
}

std::string timeOfDayOf(const std::string &text) {
    return text.substr(kTimeOfDayAt, kTimeOfDayLength);
}

std::string withMonthDay(std::string text, const std::string &monthDay) {
    return text.replace(kMonthDayAt, kMonthDayLength, monthDay);
}

std::string withTimeOfDay(std::string text, const std::string &timeOfDay) {
    return text.replace(kTimeOfDayAt, kTimeOfDayLength, timeOfDay);
}

std::string toLocalText(TimePoint time) {
    return toAsctime(toLocal(std::chrono::system_clock::to_time_t(time)));
}

void logFields(const scheduleRecord &record) {
    LOG(DLOG_DEBUG, "Defrost] id : %s", record.id.c_str());
    LOG(DLOG_DEBUG, "Defrost] description : %s", record.description.c_str());
    LOG(DLOG_DEBUG, "Defrost] startTime : %s", record.startTime.c_str());
    LOG(DLOG_DEBUG, "Defrost] endTime : %s", record.endTime.c_str());
    LOG(DLOG_DEBUG, "Defrost] period : %s", record.period.c_str());
}

} // namespace

int DefrostDelay::getEnable() {
    std::lock_guard<std::mutex> lock(mutex);
    return enable;
}

int DefrostDelay::getActive() {
    std::lock_guard<std::mutex> lock(mutex);
    return active;
}

void DefrostDelay::setEnable(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    enable = value;
    vconf_set_int(kEnableKey, enable);
    LOG(DLOG_DEBUG, "Defrost] Info that is changed Enable send KestD : %d", enable);
    KestSendDelayDefrostNotify(enable != 0);
}

void DefrostDelay::setActive(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    active = value;
    vconf_set_int(kActiveKey, active);
    _sendToMicomInfoByStatus();
}

void DefrostDelay::_sendToMicomInfoByStatus() {
    if (enable == 0) {
        // Deliberate: only said, the state is sent all the same.
        LOG(DLOG_DEBUG, "Defrost] Disable");
    }
    if (active == 1) {
        _sendToMicom("SET_SMARTGRID_ENABLE");
    } else if (active == 0) {
        _sendToMicom("SET_SMARTGRID_DISABLE");
    }
}

void DefrostDelay::isActiveDisable() {
    std::lock_guard<std::mutex> lock(mutex);
    if (active != 0) {
        active = 0;
        vconf_set_int(kActiveKey, active);
        _sendToMicomInfoByStatus();
    }
    if (enable != 0) {
        enable = 0;
        vconf_set_int(kEnableKey, enable);
        LOG(DLOG_DEBUG, "Defrost] Info that is changed Enable send KestD : %d", enable);
        KestSendDelayDefrostNotify(false);
    }
}

void DefrostDelay::deleteSchedules() {
    std::lock_guard<std::mutex> lock(mutex);
    schedules.clear();
}

namespace {

int onCreateReservation(KestDefrostReservation *entry, char *text, int *error);
int onSetReservation(KestDefrostReservation *entry);
int onDelReservation(void *context, const char *id);
int onGetReservations(KestDefrostReservation *entries, int *count);
int onSetDelayDefrost(int value);
int onGetDelayDefrost(int *enabled);

} // namespace

DefrostDelay::DefrostDelay() {
    Pin<DefrostDelay>::enter(this);
    DefrostDelay::_initialize();
    thread = new std::thread([this] { _run(); });
}

DefrostDelay::~DefrostDelay() {
    Pin<DefrostDelay>::leave(this);
    DefrostDelay::_finalize();
}

void DefrostDelay::_initialize() {
    int value = 0;
    vconf_get_int(kEnableKey, &value);
    setEnable(value);
    vconf_get_int(kActiveKey, &value); // deliberate: a failed read leaves enable in value
    setActive(value);
    if (getEnable() == 0) {
        std::lock_guard<std::mutex> lock(mutex);
        _sendToMicom("SET_SMARTGRID_DISABLE");
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        DefrostDB table;
        table.create();
        // Where they are stored already the inserts fail on the primary key, and nothing changes.
        table.insertRecord(
            {"0", "Summer Season", "0000-05-01T15:00:00", "0000-10-31T00:00:00", "04:00:00"});
        table.insertRecord(
            {"1", "Winter Season", "0000-11-01T06:00:00", "0000-04-30T00:00:00", "04:00:00"});
        table.close();
    }
    initSchedules();
    KestRegisterCreateDefrostReservationsFunc(onCreateReservation);
    KestRegisterSetDefrostReservationsFunc(onSetReservation);
    KestRegisterDelDefrostReservationsFunc(onDelReservation);
    KestRegisterGetDefrostReservationsFunc(onGetReservations);
    KestRegisterSetDelayDefrostFunc(onSetDelayDefrost);
    KestRegisterGetDelayDefrostFunc(onGetDelayDefrost);
}

void DefrostDelay::_finalize() {
    deleteSchedules();
    _stopThread();
}

void DefrostDelay::initSchedules() {
    deleteSchedules();
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<scheduleRecord> records;
    DefrostDB table;
    table.selectOrderByDesc(records);
    table.close();
    schedules.clear(); // another load may have come between
    for (const scheduleRecord &record : records) {
        logFields(record);
        LOG(DLOG_DEBUG, "=================================================");
        schedules.push_back(std::make_unique<scheduleRecord>(record));
    }
}

std::vector<scheduleRecord> DefrostDelay::getSchedules() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<scheduleRecord> copies;
    copies.reserve(schedules.size());
    for (const auto &schedule : schedules) {
        copies.push_back(*schedule);
    }
    return copies;
}

int DefrostDelay::checkEmptyId() {
    std::vector<scheduleRecord> records;
    {
        std::lock_guard<std::mutex> lock(mutex);
        DefrostDB table;
        table.selectOrderByDesc(records);
        table.close();
    }
    if (records.empty()) {
        return -1; // deliberate: with the defaults in place the table is never empty
    }
    bool used[kSlots] = {};
    for (const scheduleRecord &record : records) {
        const int id = std::stoi(record.id);
        if (id >= 0 && id < kSlots) {
            used[id] = true;
        }
    }
    const bool *free = std::find(used, used + kSlots, false);
    return free != used + kSlots ? static_cast<int>(free - used) : -1;
}

bool DefrostDelay::_checkSchedule(const std::string &startTime, const std::string &endTime,
                                  const std::string &period) {
    const TimePoint now = std::chrono::system_clock::now();
    const std::string today = _tmToStr(toLocal(std::chrono::system_clock::to_time_t(now)));

    const TimePoint seasonStart =
        _strToTp_local(withTimeOfDay(withMonthDay(today, monthDayOf(startTime)), "00:00:00"));
    const std::string lastDay =
        withTimeOfDay(withMonthDay(today, monthDayOf(endTime)), timeOfDayOf(startTime));
    const TimePoint lastWindowEnd = _strToTp_local(lastDay) + _strToDuration(period);
    const TimePoint lastDayEnd = _strToTp_local(withTimeOfDay(lastDay, "23:59:59"));
    const TimePoint seasonEnd = std::max(lastWindowEnd, lastDayEnd);

    if (seasonEnd >= seasonStart) {
        return seasonStart <= now && now <= seasonEnd;
    }
    return now >= seasonStart || now <= seasonEnd; // the season wraps the year's end
}

void DefrostDelay::_run() {
    LOG(DLOG_INFO, "start DefrostDelay Thread!!");
    std::string lastId;
    for (; !stop.load(); sleepOneSecond()) {
        const TimePoint now = std::chrono::system_clock::now();
        const tm local = toLocal(std::chrono::system_clock::to_time_t(now));
        const std::vector<scheduleRecord> reservations = getSchedules();
        const auto current =
            std::find_if(reservations.begin(), reservations.end(), [this](const auto &reservation) {
                return _checkSchedule(reservation.startTime, reservation.endTime,
                                      reservation.period);
            });
        if (current != reservations.end()) {
            if (current->id != lastId) {
                lastId = current->id;
                _logMatch(*current, local);
            }
            // Deliberate: keyed to the minute that has ended. It therefore comes at minutes 01, 11,
            // 21 and so on.
            const bool periodicLog = lastTick != local.tm_min && lastTick % 10 == 0;
            _updateActive(*current, now, local, periodicLog);
        } else if (!reservations.empty()) {
            LOG(DLOG_DEBUG, "Nothing Maching!!");
            continue; // deliberate: the ten-minute repeat is left out as well
        }
        _resendEachTenMinutes(local.tm_min);
    }
    LOG(DLOG_INFO, "stop DefrostDelay Thread!!");
}

void DefrostDelay::_logMatch(const scheduleRecord &reservation, const tm &now) {
    LOG(DLOG_DEBUG, "Defrost] current Schedule ============");
    logFields(reservation);
    LOG(DLOG_DEBUG, "Defrost] Current LocalTime : %s", toAsctime(now).c_str());
}

namespace {

void logWindow(const tm &now, bool inside, TimePoint windowEnd) {
    LOG(DLOG_DEBUG, "Defrost] Current LocalTime : %s", toAsctime(now).c_str());
    if (inside) {
        LOG(DLOG_DEBUG, "Defrost] Active Time Until %s", toLocalText(windowEnd).c_str());
    } else {
        LOG(DLOG_DEBUG, "Defrost] Not Active Time");
    }
}

} // namespace

/*
 * Today's window decides. One that runs past midnight ends there: after midnight the new day's
 * window has not begun yet, which is meant.
 */
void DefrostDelay::_updateActive(const scheduleRecord &reservation, TimePoint now, const tm &local,
                                 bool periodicLog) {
    const TimePoint windowStart =
        _strToTp_local(withTimeOfDay(_tmToStr(local), timeOfDayOf(reservation.startTime)));
    const TimePoint windowEnd = windowStart + _strToDuration(reservation.period);
    if (periodicLog) {
        LOG(DLOG_DEBUG, " [Defrost] Start LocalTime : %s", toLocalText(windowStart).c_str());
        LOG(DLOG_DEBUG, " [Defrost] End LocalTime : %s", toLocalText(windowEnd).c_str());
    }
    const int isActive = getActive();
    if (getEnable() != 1) {
        return;
    }
    const bool inside = windowStart <= now && now < windowEnd;
    const int wanted = inside ? 1 : 0;
    if (isActive != wanted) {
        logWindow(local, inside, windowEnd);
        setActive(wanted);
    }
    if (periodicLog) {
        logWindow(local, inside, windowEnd);
    }
}

void DefrostDelay::_resendEachTenMinutes(int minute) {
    if (minute == lastTick) {
        return;
    }
    lastTick = minute;
    if (minute % 10 == 0) {
        std::lock_guard<std::mutex> lock(mutex);
        _sendToMicomInfoByStatus();
    }
}

int DefrostDelay::_insertReservation(const scheduleRecord &record) {
    std::lock_guard<std::mutex> lock(mutex);
    DefrostDB table;
    const int result = table.insertRecord(record);
    table.close();
    return result;
}

int DefrostDelay::_selectReservation(scheduleRecord &record) {
    std::lock_guard<std::mutex> lock(mutex);
    DefrostDB table;
    const int result = table.selectRecord(record);
    table.close();
    return result;
}

int DefrostDelay::_selectReservations(std::vector<scheduleRecord> &records) {
    std::lock_guard<std::mutex> lock(mutex);
    DefrostDB table;
    const int result = table.selectOrderByAsc(records);
    table.close();
    return result;
}

int DefrostDelay::_deleteReservation(scheduleRecord &record, const std::string &id) {
    std::lock_guard<std::mutex> lock(mutex);
    DefrostDB table;
    int result = table.selectRecord(record);
    if (result == 0) {
        result = table.deleteRecord(id);
    }
    table.close();
    return result;
}

namespace {

/* Fills a fixed-size member; a text that fills it is not terminated. */
template <size_t Size>
void fill(char (&member)[Size], const std::string &text) {
    std::memset(member, 0, Size);
    std::memcpy(member, text.data(), std::min(text.size(), Size));
}

bool isRemoteId(int id) { return id >= kFirstRemoteId && id < kSlots; }

int onCreateReservation(KestDefrostReservation *entry, char *text, int *error) {
    LOG(DLOG_DEBUG, "KestRegisterCreateDefrostReservationsFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost) {
        return 0;
    }
    const int id = defrost->checkEmptyId();
    if (id == -1) {
        *error = kNoFreeId;
        return 0;
    }
    if (!isRemoteId(id)) {
        return 0; // deliberate: the id of a deleted default is not given to a remote reservation
    }
    std::snprintf(entry->id, sizeof entry->id, "%d", id);
    std::snprintf(text, std::strlen(text), "%d", id); // no further than the text that is there
    const int result = defrost->_insertReservation({std::to_string(id), textOf(entry->description),
                                                    textOf(entry->startTime),
                                                    textOf(entry->endTime), textOf(entry->period)});
    LOG(DLOG_DEBUG, "ret: %d", result);
    if (result != 0) {
        return 0;
    }
    KestSendDefrostReservationsNotify(0, entry, 1);
    defrost->initSchedules();
    return 1;
}

/* Deliberate: a set adds a reservation under the next free id; the entry's own id is not read. */
int onSetReservation(KestDefrostReservation *entry) {
    LOG(DLOG_DEBUG, "KestRegisterSetDefrostReservationsFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost) {
        return 0;
    }
    const int id = defrost->checkEmptyId();
    if (!isRemoteId(id)) {
        return 0;
    }
    scheduleRecord record;
    record.id = std::to_string(id);
    defrost->_selectReservation(record);
    const auto overwrite = [](std::string &field, const std::string &text) {
        if (!text.empty()) {
            field = text;
        }
    };
    overwrite(record.description, textOf(entry->description));
    overwrite(record.startTime, textOf(entry->startTime));
    overwrite(record.endTime, textOf(entry->endTime));
    overwrite(record.period, textOf(entry->period));
    if (defrost->_insertReservation(record) != 0) {
        return 0;
    }
    defrost->initSchedules();
    return 1;
}

int onDelReservation(void *, const char *id) {
    LOG(DLOG_DEBUG, "KestRegisterDelDefrostReservationsFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost || id == nullptr) {
        return 0;
    }
    const int number = std::stoi(id);
    if (!isRemoteId(number)) {
        return 0;
    }
    scheduleRecord record;
    record.id = std::to_string(number);
    if (defrost->_deleteReservation(record, id) != 0) {
        return 0;
    }
    KestDefrostReservation entry{};
    std::snprintf(entry.id, 5, "%s", record.id.c_str());
    std::snprintf(entry.description, sizeof entry.description, "%s", record.description.c_str());
    std::snprintf(entry.startTime, sizeof entry.startTime, "%s", record.startTime.c_str());
    std::snprintf(entry.endTime, sizeof entry.endTime, "%s", record.endTime.c_str());
    std::snprintf(entry.period, sizeof entry.period, "%s", record.period.c_str());
    KestSendDefrostReservationsNotify(2, &entry, 1);
    defrost->initSchedules();
    return 1;
}

int onGetReservations(KestDefrostReservation *entries, int *count) {
    LOG(DLOG_DEBUG, "KestRegisterGetDefrostReservationsFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost) {
        return 0;
    }
    std::vector<scheduleRecord> records;
    if (defrost->_selectReservations(records) != 0 || records.empty()) {
        return 0;
    }
    // The array has room for four; a table that was tampered with may hold more.
    const size_t number = std::min<size_t>(records.size(), kSlots);
    for (size_t i = 0; i < number; ++i) {
        fill(entries[i].id, records[i].id);
        fill(entries[i].startTime, records[i].startTime);
        fill(entries[i].endTime, records[i].endTime);
        fill(entries[i].period, records[i].period);
        fill(entries[i].description, records[i].description);
    }
    *count = static_cast<int>(number);
    return 1;
}

int onSetDelayDefrost(int value) {
    LOG(DLOG_DEBUG, "KestRegisterSetDelayDefrostFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost) {
        return 0;
    }
    Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
    if (dr && dr->haveSchedule()) {
        // Defrost delay may not be on beside an event; the remote side hears the refusal.
        if (defrost->getEnable() != 0) {
            defrost->setEnable(0);
        } else {
            KestSendDelayDefrostNotify(false);
        }
    } else if (value != 0) {
        defrost->setEnable(1);
    } else {
        if (defrost->getActive() != 0) {
            defrost->setActive(0);
        }
        defrost->setEnable(0);
    }
    return 1;
}

int onGetDelayDefrost(int *enabled) {
    LOG(DLOG_DEBUG, "KestRegisterGetDelayDefrostFunc");
    Pin<DefrostDelay> defrost(EnergyManager::GetDefrostDelay());
    if (!defrost) {
        return 0;
    }
    *enabled = defrost->getEnable();
    if (*enabled == -1) {
        defrost->_initialize();
        *enabled = defrost->getEnable();
    }
    return 1;
}

} // namespace

} // namespace Corvane
