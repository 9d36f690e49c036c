/*
 * Answers are kept in tables of fixed size in which an argument's hash names a shelf of a few
 * places. They are compared as bytes: equal bytes are equal arguments, and padding that differs
 * costs a call.
 *
 * Used within runs only, which are on one real thread, so nothing here locks.
 */
#include "calendar.h"

#include "real_function.h"
#include "virtual_time.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace virtualtime::calendar {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
namespace real {
REAL(tzset);
REAL(setenv);
REAL(unsetenv);
REAL(putenv);
REAL(strptime);
REAL(mktime);
REAL(timegm);
REAL(localtime_r);
REAL(gmtime_r);
REAL(strftime);
} // namespace real
#pragma GCC diagnostic pop

constexpr std::string_view kDateTimeFormat = "%FT%T";
constexpr std::time_t kMinuteSec = 60;

// strptime() leaves alone what the text does not tell, so what was there before is an argument.
struct Reading {
    char format[8] = {};
    char text[32] = {};
    std::tm before{};
};
struct ReadingAnswer {
    std::tm after{};
    std::ptrdiff_t length = -1; // -1: the text does not match
};
struct Instant {
    std::time_t seconds = 0;
    std::tm fields{}; // as the call leaves them
};

// A minute whose seconds differ in nothing but their number.
struct Minute {
    std::tm first{};
    bool isPlain = false;
};

constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15U; // spreads what it is multiplied with

// Shelves in the tables: the upper bits of a product.
std::size_t hashOf(std::uint64_t word) { return (word * kOdd) >> 40; }

std::size_t hashOf(const Reading &reading) {
    std::uint64_t words[3]; // dates differ in the first 24 characters
    std::memcpy(words, reading.text, sizeof words);
    return hashOf(words[0] ^ (words[1] * 3) ^ (words[2] * 5));
}

std::size_t hashOf(const std::tm &fields) {
    const std::int64_t days = (fields.tm_year * 12LL + fields.tm_mon) * 31 + fields.tm_mday;
    const std::int64_t seconds =
        ((days * 24 + fields.tm_hour) * 60 + fields.tm_min) * 60 + fields.tm_sec;
    // The same moment may be asked for with and without the day of the year.
    return hashOf(static_cast<std::uint64_t>(seconds) +
                  (static_cast<std::uint64_t>(fields.tm_yday) << 40));
}

std::size_t hashOf(std::time_t seconds) { return hashOf(static_cast<std::uint64_t>(seconds)); }

template <class Key, class Answer>
class Memory {
public:
    // The kept answer, or that of ask(), which is kept then.
    template <class Ask>
    const Answer &recall(const Key &key, Ask ask) {
        auto &shelf = shelves_[hashOf(key) % kShelves];
        for (const Entry &entry : shelf) {
            if (entry.isUsed && std::memcmp(&entry.key, &key, sizeof key) == 0) {
                return entry.answer;
            }
        }
        Entry &entry = shelf[nextPlace_++ % kPlaces];
        entry.answer = ask();
        std::memcpy(&entry.key, &key, sizeof key);
        entry.isUsed = true;
        return entry.answer;
    }
    void forget() {
        for (auto &shelf : shelves_) {
            for (Entry &entry : shelf) {
                entry.isUsed = false;
            }
        }
    }

private:
    static constexpr std::size_t kShelves = 64;
    static constexpr std::size_t kPlaces = 4; // so that few that are asked each second collide

    struct Entry {
        bool isUsed = false;
        Key key{};
        Answer answer{};
    };
    std::array<std::array<Entry, kPlaces>, kShelves> shelves_{};
    std::size_t nextPlace_ = 0;
};

struct Memories {
    Memory<Reading, ReadingAnswer> readings;
    Memory<std::tm, Instant> local, utc;
    Memory<std::time_t, Minute> localMinutes, utcMinutes;
};
Memories memories;

int misreadSec = 0;
bool isZoneStale = true; // TZ was touched since the C library has looked at it

void lookAtZone() {
    if (isZoneStale) {
        isZoneStale = false;
        real::tzset.get()();
        memories.local.forget();
        memories.localMinutes.forget();
    }
}

void noteTouched(std::string_view name) {
    if (name.substr(0, name.find('=')) == "TZ") {
        isZoneStale = true;
    }
}

template <class Break, class Minutes>
bool breakDown(std::time_t seconds, std::tm *fields, Break real, Minutes &minutes) {
    const std::time_t ofMinute = ((seconds % kMinuteSec) + kMinuteSec) % kMinuteSec;
    const std::time_t first = seconds - ofMinute;
    const Minute &minute = minutes.recall(first, [first, real] {
        Minute asked;
        std::tm last{};
        const std::time_t lastSecond = first + kMinuteSec - 1;
        if (real(&first, &asked.first) == nullptr || real(&lastSecond, &last) == nullptr) {
            return asked;
        }
        // Zones with an offset in seconds, or that change within the minute, are not remembered.
        last.tm_sec -= kMinuteSec - 1;
        asked.isPlain =
            asked.first.tm_sec == 0 && std::memcmp(&last, &asked.first, sizeof last) == 0;
        return asked;
    });
    if (!minute.isPlain) {
        return real(&seconds, fields) != nullptr;
    }
    *fields = minute.first;
    fields->tm_sec = static_cast<int>(ofMinute);
    return true;
}

template <class Make, class Instants>
std::time_t putTogether(std::tm *fields, Make real, Instants &instants) {
    const Instant &instant = instants.recall(*fields, [fields, real] {
        std::tm normal = *fields;
        const std::time_t seconds = real(&normal);
        return Instant{seconds, normal};
    });
    *fields = instant.fields;
    return instant.seconds;
}

bool hasDigits(int value, int least, int most) { return least <= value && value <= most; }

void writeTwo(char *at, int value) {
    at[0] = static_cast<char>('0' + value / 10);
    at[1] = static_cast<char>('0' + value % 10);
}

// "%FT%T" where every number has its usual length. 0: not the case.
std::size_t writeDateTime(char *text, std::size_t size, const std::tm &fields) {
    constexpr std::size_t kLength = 19;
    const int year = fields.tm_year + 1900;
    if (size <= kLength || !hasDigits(year, 1000, 9999) || !hasDigits(fields.tm_mon, 0, 11) ||
        !hasDigits(fields.tm_mday, 0, 99) || !hasDigits(fields.tm_hour, 0, 99) ||
        !hasDigits(fields.tm_min, 0, 99) || !hasDigits(fields.tm_sec, 0, 99)) {
        return 0;
    }
    std::memcpy(text, "0000-00-00T00:00:00", kLength + 1);
    writeTwo(text, year / 100);
    writeTwo(text + 2, year % 100);
    writeTwo(text + 5, fields.tm_mon + 1);
    writeTwo(text + 8, fields.tm_mday);
    writeTwo(text + 11, fields.tm_hour);
    writeTwo(text + 14, fields.tm_min);
    writeTwo(text + 17, fields.tm_sec);
    return kLength;
}

} // namespace

void forget() { memories = {}; }

void misreadBySec(int sec) {
    misreadSec = sec;
    memories.readings.forget();
}

} // namespace virtualtime::calendar

// ---- The replaced calls ----

using namespace virtualtime;
using namespace virtualtime::calendar;

extern "C" {

void tzset() noexcept {
    if (!active()) {
        return calendar::real::tzset.get()();
    }
    lookAtZone();
}

int setenv(const char *name, const char *value, int overwrite) noexcept {
    noteTouched(name);
    return calendar::real::setenv.get()(name, value, overwrite);
}

int unsetenv(const char *name) noexcept {
    noteTouched(name);
    return calendar::real::unsetenv.get()(name);
}

int putenv(char *text) noexcept {
    noteTouched(text);
    return calendar::real::putenv.get()(text);
}

char *strptime(const char *text, const char *format, std::tm *fields) noexcept {
    Reading reading;
    const std::size_t length = std::strlen(text);
    const std::size_t formatLength = std::strlen(format);
    if (!active() || formatLength >= sizeof reading.format || length >= sizeof reading.text) {
        return calendar::real::strptime.get()(text, format, fields);
    }
    std::memcpy(reading.format, format, formatLength);
    std::memcpy(reading.text, text, length);
    reading.before = *fields;
    const ReadingAnswer &answer = memories.readings.recall(reading, [&] {
        ReadingAnswer read{*fields, -1};
        const char *end = calendar::real::strptime.get()(text, format, &read.after);
        read.length = end == nullptr ? -1 : end - text;
        read.after.tm_sec += std::string_view(format) == "%c" ? misreadSec : 0;
        return read;
    });
    *fields = answer.after;
    return answer.length < 0 ? nullptr : const_cast<char *>(text) + answer.length;
}

std::time_t mktime(std::tm *fields) noexcept {
    if (!active()) {
        return calendar::real::mktime.get()(fields);
    }
    lookAtZone();
    return putTogether(fields, calendar::real::mktime.get(), memories.local);
}

std::time_t timegm(std::tm *fields) noexcept {
    if (!active()) {
        return calendar::real::timegm.get()(fields);
    }
    return putTogether(fields, calendar::real::timegm.get(), memories.utc);
}

std::tm *localtime_r(const std::time_t *seconds, std::tm *fields) noexcept {
    if (!active()) {
        return calendar::real::localtime_r.get()(seconds, fields);
    }
    const bool isDone =
        breakDown(*seconds, fields, calendar::real::localtime_r.get(), memories.localMinutes);
    return isDone ? fields : nullptr;
}

std::tm *gmtime_r(const std::time_t *seconds, std::tm *fields) noexcept {
    if (!active()) {
        return calendar::real::gmtime_r.get()(seconds, fields);
    }
    const bool isDone =
        breakDown(*seconds, fields, calendar::real::gmtime_r.get(), memories.utcMinutes);
    return isDone ? fields : nullptr;
}

std::size_t strftime(char *text, std::size_t size, const char *format,
                     const std::tm *fields) noexcept {
    if (active() && format == kDateTimeFormat) {
        const std::size_t length = writeDateTime(text, size, *fields);
        if (length != 0) {
            return length;
        }
    }
    return calendar::real::strftime.get()(text, size, format, fields);
}

} // extern "C"
