/*
 * The display board's power reading in memory.
 */
#include <device_power.h>

#include "fakes.h"
#include "internal.h"

#include <atomic>
#include <cstdint>

namespace {
std::atomic<int> presentValue{0};
std::atomic<int> readCount{0};
std::atomic<std::int64_t> readSum{0};
} // namespace

int device_get_power_measurement_value() {
    ++readCount;
    readSum += presentValue;
    return presentValue;
}

namespace fakes {

void power::set(int value) { presentValue = value; }

int power::readings() { return readCount; }

std::int64_t power::sum() { return readSum; }

void internal::resetPower() {
    presentValue = 0;
    readCount = 0;
    readSum = 0;
}

} // namespace fakes
