/*
 * Object: commands to the Micom and time texts. Nothing here has state, so nothing here locks.
 */
#include "Object.h"

#include <vconf.h>

#include "Log.h"

namespace Corvane {

namespace {

constexpr const char *kDateTimeFormat = "%FT%T";

} // namespace

std::time_t nowSec() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

tm toUtc(std::time_t seconds) {
    tm time{};
    gmtime_r(&seconds, &time);
    return time;
}

tm toLocal(std::time_t seconds) {
    tm time{};
    tzset(); // localtime_r() alone need not notice that the zone has changed
    localtime_r(&seconds, &time);
    return time;
}

std::string toAsctime(const tm &time) {
    char text[64] = "";
    asctime_r(&time, text);
    return text;
}

void sleepOneSecond() { std::this_thread::sleep_for(std::chrono::seconds(1)); }

void Object::_sendToMicom(const std::string &command) const {
    LOG(DLOG_DEBUG, " [UTC] Send Time : %s", toAsctime(toUtc(nowSec())).c_str());
    LOG(DLOG_DEBUG, "Send To Micom Info that %s", command.c_str());
    vconf_set_str("memory/refrigerator/TxMessage", command.c_str());
}

TimePoint Object::_strToTp(const std::string &text) const {
    tm time{};
    strptime(text.c_str(), kDateTimeFormat, &time);
    time.tm_isdst = -1;
    const std::time_t seconds = timegm(&time);

    // Deliberate: where "%c" does not read back what asctime() wrote, the difference is made good.
    strptime(toAsctime(toUtc(seconds)).c_str(), "%c", &time);
    const std::time_t readBack = timegm(&time);
    return TimePoint(std::chrono::seconds(seconds + (seconds - readBack)));
}

TimePoint Object::_strToTp_local(const std::string &text) const {
    tm time{};
    strptime(text.c_str(), kDateTimeFormat, &time);
    time.tm_isdst = -1;
    return TimePoint(std::chrono::seconds(mktime(&time)));
}

std::string Object::_tmToStr(const tm &time) const {
    char text[80] = "";
    strftime(text, sizeof text, kDateTimeFormat, &time);
    return text;
}

std::chrono::seconds Object::_strToDuration(const std::string &text) const {
    const std::chrono::hours hours(std::stoi(text.substr(0, 2)));
    const std::chrono::minutes minutes(std::stoi(text.substr(3, 2)));
    const std::chrono::seconds seconds(std::stoi(text.substr(6, 2)));
    return hours + minutes + seconds;
}

void Object::_stopThread() {
    stop.store(true);
    if (thread != nullptr) {
        thread->join();
        delete thread;
        thread = nullptr;
    }
}

} // namespace Corvane
