/*
 * The display board's power reading.
 */
#ifndef CORVANE_PLATFORM_DEVICE_POWER_H
#define CORVANE_PLATFORM_DEVICE_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The display board's present power, in units of which 3600, one read each second, make one unit of
 * the micro-controller's energy figure (that figure counts 0.01 Wh, so one unit here is 10 mW). 0
 * or less: no reading. May be called from any thread; does not block.
 */
int device_get_power_measurement_value(void);

#ifdef __cplusplus
}
#endif

#endif
