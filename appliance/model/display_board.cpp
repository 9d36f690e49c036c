#include "display_board.h"

#include <cmath>

namespace corvane::appliance {

std::optional<SettingsWrite> DisplayBoard::advance(TimeMs now) {
    const bool early = now < nextReadingAt_ && nextReadingAt_ - now <= kReadingMs;
    if (early) {
        return std::nullopt;
    }
    // On the beat as long as readings are not late, so that each second has one.
    const bool late = now < nextReadingAt_ || now - nextReadingAt_ >= kReadingMs;
    nextReadingAt_ = (late ? now : nextReadingAt_) + kReadingMs;
    refrigerator_.advance(now);
    return SettingsWrite{now, kDisplayPowerKey, reading()};
}

SettingsWrite DisplayBoard::pressOverride(bool on, TimeMs now) {
    refrigerator_.lightDisplay(now);
    return {now, kDisplayOverrideKey, on ? 1 : 0};
}

int DisplayBoard::reading() const {
    return static_cast<int>(std::lround(refrigerator_.displayWatt() / kCountWatt));
}

} // namespace corvane::appliance
