/* Numbers as people read them. */
#ifndef CORVANE_LAB_NUMBERS_H
#define CORVANE_LAB_NUMBERS_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

namespace corvane::lab {

/* "-1.2"; never "-0.0". */
inline std::string number(double value, int digits) {
    const double unit = std::pow(10, -digits);
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, std::abs(value) < unit / 2 ? 0.0 : value);
    return text;
}

/* Watts with their unit, in kW from 10,000 W on. */
inline std::string power(double watt) {
    return std::abs(watt) >= 10'000 ? number(watt / 1000, 1) + " kW"
                                    : number(watt, std::abs(watt) < 10 ? 1 : 0) + " W";
}

inline std::string energy(double kWh) {
    return number(kWh, std::abs(kWh) >= 1000 ? 0 : std::abs(kWh) >= 100 ? 1 : 2) + " kWh";
}

/* "1 event", "2 events". */
inline std::string countOf(std::int64_t count, const std::string &one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

inline std::string celsius(double value) { return number(value, 1) + " °C"; }

} // namespace corvane::lab

#endif
