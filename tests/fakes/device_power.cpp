/*
 * The display board's power reading in memory.
 */
#include <device_power.h>

#include "fakes.h"
#include "internal.h"

#include <atomic>

namespace {
std::atomic<int> presentValue{0};
std::atomic<int> readCount{0};
} // namespace

int device_get_power_measurement_value() {
    ++readCount;
    return presentValue;
}

namespace fakes {

void power::set(int value) { presentValue = value; }

int power::readings() { return readCount; }

void internal::resetPower() {
    presentValue = 0;
    readCount = 0;
}

} // namespace fakes
