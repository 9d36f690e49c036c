/* A settings key that a model asks its owner to write, and the keys' names. */
#ifndef CORVANE_APPLIANCE_MODEL_SETTINGS_WRITE_H
#define CORVANE_APPLIANCE_MODEL_SETTINGS_WRITE_H

#include <array>

#include "model_time.h"

namespace corvane::appliance {

inline constexpr const char *kCommandKey = "memory/refrigerator/TxMessage"; // read by the Micom
inline constexpr const char *kLevelKey = "memory/refrigerator/SmartGridDrLevel";
inline constexpr const char *kOverrideKey = "memory/refrigerator/SmartGridOverrideState";
/* Most significant byte first; the write of the last tells that all four are there. */
inline constexpr std::array<const char *, 4> kEnergyKeys = {
    "memory/refrigerator/SmartGridWatt1", "memory/refrigerator/SmartGridWatt2",
    "memory/refrigerator/SmartGridWatt3", "memory/refrigerator/SmartGridWatt4"};
inline constexpr const char *kDisplayOverrideKey = "db/corvane/dr/micom_override";
inline constexpr const char *kDisplayPowerKey = "memory/board/power";

/* Write `value` to `key`, also when it holds that value already. */
struct SettingsWrite {
    TimeMs at = 0;             // when it happens; never after the time that advance() was told
    const char *key = nullptr; // one of the constants above
    int value = 0;
};

} // namespace corvane::appliance

#endif
