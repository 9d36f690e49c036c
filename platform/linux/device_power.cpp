/*
 * The display board's power reading: whatever stands in for the board writes it into the settings.
 */
#include "settings.h"

#include <device_power.h>

int device_get_power_measurement_value(void) {
    int reading = 0;
    (void)corvane::platform::Settings::instance().readInt("memory/board/power", reading);
    return reading; // 0, no reading, when the key is absent or was complained about
}
