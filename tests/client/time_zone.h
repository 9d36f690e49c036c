/*
 * A time zone for one test, and moments written as people read them there.
 */
#ifndef CORVANE_TESTS_CLIENT_TIME_ZONE_H
#define CORVANE_TESTS_CLIENT_TIME_ZONE_H

#include <cstdlib>
#include <ctime>
#include <string>

namespace corvane::client {

class TimeZone {
public:
    explicit TimeZone(const char *name) {
        setenv("TZ", name, 1);
        tzset();
    }
    ~TimeZone() {
        unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone &) = delete;
    TimeZone &operator=(const TimeZone &) = delete;
};

/* The moment of YYYY-MM-DDThh:mm:ss in the present zone. */
inline std::time_t local(const std::string &text) {
    std::tm fields{};
    strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    fields.tm_isdst = -1;
    return mktime(&fields);
}

} // namespace corvane::client

#endif
