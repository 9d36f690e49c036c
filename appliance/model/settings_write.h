/*
 * A settings key that a model asks its owner to write, and the keys' names. Each name exists once
 * in a program, so that keys which are known to come from here can be compared by their address.
 */
#ifndef CORVANE_APPLIANCE_MODEL_SETTINGS_WRITE_H
#define CORVANE_APPLIANCE_MODEL_SETTINGS_WRITE_H

#include <array>

#include "model_time.h"

namespace corvane::appliance {

inline constexpr char kCommandKey[] = "memory/refrigerator/TxMessage"; // read by the Micom
inline constexpr char kLevelKey[] = "memory/refrigerator/SmartGridDrLevel";
inline constexpr char kOverrideKey[] = "memory/refrigerator/SmartGridOverrideState";
inline constexpr char kEnergyKey1[] = "memory/refrigerator/SmartGridWatt1";
inline constexpr char kEnergyKey2[] = "memory/refrigerator/SmartGridWatt2";
inline constexpr char kEnergyKey3[] = "memory/refrigerator/SmartGridWatt3";
inline constexpr char kEnergyKey4[] = "memory/refrigerator/SmartGridWatt4";
inline constexpr char kDisplayOverrideKey[] = "db/corvane/dr/micom_override";
inline constexpr char kDisplayPowerKey[] = "memory/board/power";

/* Most significant byte first; the write of the last tells that all four are there. */
inline constexpr std::array<const char *, 4> kEnergyKeys = {kEnergyKey1, kEnergyKey2, kEnergyKey3,
                                                            kEnergyKey4};

/* Write `value` to `key`, also when it holds that value already. */
struct SettingsWrite {
    TimeMs at = 0;             // when it happens; never after the time that advance() was told
    const char *key = nullptr; // one of the constants above
    int value = 0;
};

} // namespace corvane::appliance

#endif
