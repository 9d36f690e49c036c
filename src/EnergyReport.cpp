/*
 * EnergyReport, in this order: start-up, the worker, the hourly rows, the metering cycle, the
 * remote query.
 */
#include "EnergyReport.h"

#include <cstdint>
#include <cstdio>

#include <curl/curl.h>
#include <device_power.h>
#include <ocf_proxy.h>
#include <vconf.h>

#include "EnergyManager.h"
#include "Log.h"

namespace Corvane {

namespace {

constexpr const char *kWatt1Key = "memory/refrigerator/SmartGridWatt1";
constexpr const char *kWatt2Key = "memory/refrigerator/SmartGridWatt2";
constexpr const char *kWatt3Key = "memory/refrigerator/SmartGridWatt3";
constexpr const char *kWatt4Key = "memory/refrigerator/SmartGridWatt4";
constexpr const char *kMeteringUrl = "http://127.0.0.1:7777/external/metering?cumulativepower=";

constexpr int kMaxDisplayEnergy = 4000000;
constexpr int kReadingsPerUnit = 3600;
constexpr int kKeptMonths = 6;
constexpr int kQueryBufferBytes = 512;

/* Where day and hour stand in an hour key. */
constexpr size_t kDayHourAt = 6;
constexpr size_t kDayHourLength = 4;

std::string withDayHour(std::string key, const char *dayHour) {
    return key.replace(kDayHourAt, kDayHourLength, dayHour);
}

/* Figures come from other processes: a sum out of range wraps instead of being undefined. */
int wrappingSum(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

/* Runs the work on the controller a second from now, on the task thread, if it is still there then.
 */
template <class Work>
void defer(EnergyReport *controller, Work work) {
    EnergyManager::AsyncCall([controller, work] {
        sleepOneSecond();
        Pin<EnergyReport> report(controller);
        if (report) {
            work(*controller);
        }
    });
}

void onMicomEnergy(keynode_t *, void *userData) {
    auto *controller = static_cast<EnergyReport *>(userData);
    Pin<EnergyReport> report(controller);
    if (!report) {
        return;
    }
    LOG(DLOG_DEBUG, "REPORT] callback Energy from Micom");
    // The second lets the Micom finish writing its four keys.
    defer(controller, [](EnergyReport &self) { self._checkEnergy(); });
}

/* The Micom's figure as its four keys hold it; a key that cannot be read counts as 0. */
struct MicomEnergy {
    int watt1 = 0;
    int watt2 = 0;
    int watt3 = 0;
    int watt4 = 0;

    MicomEnergy() {
        vconf_get_int(kWatt1Key, &watt1);
        vconf_get_int(kWatt2Key, &watt2);
        vconf_get_int(kWatt3Key, &watt3);
        vconf_get_int(kWatt4Key, &watt4);
    }

    int value() const {
        const auto byte = [](int watt) { return static_cast<std::uint32_t>(watt) & 255U; };
        return static_cast<int>(static_cast<std::uint32_t>(watt1) << 24 | byte(watt2) << 16 |
                                byte(watt3) << 8 | byte(watt4));
    }
};

int onGetEnergyConsumption(char *cumulative, char *monthly);

} // namespace

EnergyReport::EnergyReport() {
    Pin<EnergyReport>::enter(this);
    EnergyReport::_initialize();
    thread = new std::thread([this] { _run(); });
}

EnergyReport::~EnergyReport() {
    Pin<EnergyReport>::leave(this);
    EnergyReport::_finalize();
}

void EnergyReport::_initialize() {
    std::unique_lock<std::mutex> lock(mutex);
    PowerDB table;
    table.create();
    table.close();
    lock.unlock();
    vconf_notify_key_changed(kWatt4Key, onMicomEnergy, this);
    KestRegisterGetEnergyConsumptionFunc(onGetEnergyConsumption);
}

void EnergyReport::_finalize() { _stopThread(); }

int EnergyReport::getKestEnergy() {
    std::lock_guard<std::mutex> lock(mutex);
    return kestEnergy;
}

void EnergyReport::setKestEnergy(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    kestEnergy = value;
}

void EnergyReport::_run() {
    LOG(DLOG_INFO, "start EnergyReport Thread!!");
    while (!stop.load()) {
        const tm now = toUtc(nowSec());
        _sampleDisplay();
        _watchHour(now);
        _watchMonth(now);
        sleepOneSecond();
    }
    LOG(DLOG_INFO, "stop EnergyReport Thread!!");
}

void EnergyReport::_sampleDisplay() {
    const int reading = device_get_power_measurement_value();
    if (reading <= 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (lcdEnergyRaw <= kMaxDisplayEnergy) {
        lcdEnergyRaw = wrappingSum(lcdEnergyRaw, reading);
    } else {
        LOG(DLOG_DEBUG, "REPORT] OVER LCD MAX ENERGY : %d", lcdEnergyRaw);
        lcdEnergyRaw = reading; // deliberate: nobody has collected it for too long
    }
}

void EnergyReport::_watchHour(const tm &now) {
    if (lastHour == now.tm_hour) {
        return;
    }
    lastHour = now.tm_hour;
    const std::string key = _getDateByTm(now, 0);
    defer(this, [key](EnergyReport &self) { self.checkRecord(key); });
}

void EnergyReport::_watchMonth(const tm &now) {
    if (lastMonth == now.tm_mon + 1) {
        return;
    }
    lastMonth = now.tm_mon + 1;
    const std::string key = withDayHour(_getDateByTm(now, kKeptMonths), "0000");
    LOG(DLOG_DEBUG, "REPORT] delete date : %s", key.c_str());
    defer(this, [key](EnergyReport &self) { self._deleteBefore(key); });
}

void EnergyReport::_deleteBefore(const std::string &key) {
    std::lock_guard<std::mutex> lock(mutex);
    PowerDB table;
    table.deleteKeyLow(key);
    table.close();
}

std::string EnergyReport::_getDateByTm(const tm &t, int months) {
    std::lock_guard<std::mutex> lock(mutex);
    int month = t.tm_mon + 1 - months % 12;
    int year = t.tm_year + 1900 - months / 12;
    if (month < 1) {
        month += 12;
        --year;
    }
    if (month > 12) {
        month -= 12;
        ++year;
    }
    const auto twoDigits = [](int value) {
        return (value <= 9 ? "0" : "") + std::to_string(value);
    };
    return std::to_string(year) + twoDigits(month) + twoDigits(t.tm_mday) + twoDigits(t.tm_hour);
}

void EnergyReport::checkRecord(const std::string &key) {
    std::lock_guard<std::mutex> lock(mutex);
    if (key.empty()) {
        return;
    }
    PowerDB table;
    const int result = table.checkDate(key);
    if (result == 1) {
        LOG(DLOG_DEBUG, "REPORT] insert date : %s", key.c_str());
        table.insertRecord(key);
        table.deleteKeyHigh(key); // hours of a clock that has since gone back
        table.close();
    } else if (result == 0) {
        LOG(DLOG_DEBUG, "REPORT] data exist");
        table.close();
    }
}

void EnergyReport::_checkEnergy() {
    const MicomEnergy micom;
    const tm now = toUtc(nowSec());
    LOG(DLOG_DEBUG, "REPORT] [UTC]currentTime : %s", toAsctime(now).c_str());
    LOG(DLOG_DEBUG, "REPORT] vconf1: %d, vconf2: %d, vconf3: %d, vconf4: %d, final: %d",
        micom.watt1, micom.watt2, micom.watt3, micom.watt4, micom.value());
    LOG(DLOG_DEBUG, "REPORT] Micom energy Wh: %d", micom.value());
    const int sum = wrappingSum(micom.value(), _takeDisplayEnergy());
    LOG(DLOG_DEBUG, "REPORT] SUM LCD and Micom energy : %d", sum);
    _post(sum);

    const int total = wrappingSum(sum, getKestEnergy());
    const int units = total / 100 / 100;
    const int rest = total - 10000 * units;
    LOG(DLOG_DEBUG, "REPORT] remainWatt : %d", total % 100);
    LOG(DLOG_DEBUG, "REPORT] Watt : %d", total / 100);
    LOG(DLOG_DEBUG, "REPORT] saveValue : %d", units);
    LOG(DLOG_DEBUG, "REPORT] remainData : %d", rest);
    setKestEnergy(rest);
    if (units >= 1) {
        defer(this, [now, units](EnergyReport &self) { self._store(now, units); });
    }
}

int EnergyReport::_takeDisplayEnergy() {
    std::lock_guard<std::mutex> lock(mutex);
    int displayEnergy = 0;
    if (lcdEnergyRaw > 0) {
        LOG(DLOG_DEBUG, "REPORT] LCD energy RAW: %d", lcdEnergyRaw);
        displayEnergy = lcdEnergyRaw / kReadingsPerUnit;
        LOG(DLOG_DEBUG, "REPORT] LCD energy Convert Wh: %d", displayEnergy);
    }
    lcdEnergyRaw %= kReadingsPerUnit;
    LOG(DLOG_DEBUG, "REPORT] Remain LCD energy RAW: %d", lcdEnergyRaw);
    return displayEnergy;
}

void EnergyReport::_post(int sum) {
    char figure[16];
    std::snprintf(figure, sizeof figure, "%d.%02d", sum / 100, sum % 100);
    const std::string url = std::string(kMeteringUrl) + figure + "&duration=60";
    CURL *curl = curl_easy_init();
    if (curl == nullptr) {
        LOG(DLOG_DEBUG, "curl fail\n");
        return;
    }
    LOG(DLOG_DEBUG, "uri : %s\n", url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "POST");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_perform(curl); // a figure that does not arrive is not sent again
    curl_easy_cleanup(curl);
}

void EnergyReport::_store(const tm &time, int units) {
    const std::string key = _getDateByTm(time, 0);
    checkRecord(key);
    std::lock_guard<std::mutex> lock(mutex);
    PowerDB table;
    table.updateLastRecord(key, units);
    table.deleteKeyHigh(key);
    table.close();
}

int EnergyReport::_diffValByDate(const std::string &start, const std::string &end) {
    std::lock_guard<std::mutex> lock(mutex);
    int growth = 0;
    PowerDB table;
    powerRecord first;
    table.selectAlignRecordByPart(first, start, end, "ASC");
    if (first.power_usage.empty()) {
        LOG(DLOG_DEBUG, "previous power empty");
    } else {
        LOG(DLOG_DEBUG, "start date : %s, power : %s", first.date.c_str(),
            first.power_usage.c_str());
        powerRecord last;
        table.selectAlignRecordByPart(last, start, end, "DESC");
        LOG(DLOG_DEBUG, "end date : %s, power : %s", last.date.c_str(), last.power_usage.c_str());
        if (!last.power_usage.empty()) { // else this query, unlike the one before, has failed
            // Deliberate: a wrap of the counter in between is not made good.
            growth = static_cast<int>(std::int64_t{std::stoi(last.power_usage)} -
                                      std::stoi(first.power_usage));
        }
    }
    table.close();
    return growth;
}

namespace {

int onGetEnergyConsumption(char *cumulative, char *monthly) {
    LOG(DLOG_DEBUG, "KestRegisterGetEnergyConsumptionFunc");
    LOG(DLOG_DEBUG, "///////////////////////////////////////////////");
    Pin<EnergyReport> report(EnergyManager::GetEnergyReport());
    if (!report) {
        return 0;
    }
    const tm now = toUtc(nowSec());
    const std::string current = report->_getDateByTm(now, 0);
    LOG(DLOG_DEBUG, "current Date : %s", current.c_str());
    const std::string thisMonth = withDayHour(current, "0100");
    const std::string previousMonth = withDayHour(report->_getDateByTm(now, 1), "0100");
    const std::string nextMonth = withDayHour(report->_getDateByTm(now, -1), "0100");
    LOG(DLOG_DEBUG, "previous Part  start : %s, end : %s", previousMonth.c_str(),
        thisMonth.c_str());
    LOG(DLOG_DEBUG, "current Part  start : %s, end : %s", thisMonth.c_str(), nextMonth.c_str());

    const int remainder = report->getKestEnergy();
    const int previousGrowth = report->_diffValByDate(previousMonth, thisMonth);
    const int currentGrowth = report->_diffValByDate(thisMonth, nextMonth);
    std::snprintf(monthly, kQueryBufferBytes, "%d.%02d", previousGrowth, 0);
    std::snprintf(cumulative, kQueryBufferBytes, "%d.%02d", currentGrowth, remainder / 100);
    LOG(DLOG_DEBUG, "_cumulative : %s, _monthly : %s", cumulative, monthly);
    LOG(DLOG_DEBUG, "///////////////////////////////////////////////");
    return 1;
}

} // namespace

} // namespace Corvane
