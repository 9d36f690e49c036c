/*
 * The display board: it measures what it draws itself, and has a button for the override.
 */
#ifndef CORVANE_APPLIANCE_MODEL_DISPLAY_BOARD_H
#define CORVANE_APPLIANCE_MODEL_DISPLAY_BOARD_H

#include <optional>

#include "model_time.h"
#include "refrigerator.h"
#include "settings_write.h"

namespace corvane::appliance {

class DisplayBoard {
public:
    static constexpr double kCountWatt = 0.01; // one count of the power reading
    static constexpr TimeMs kReadingMs = 1'000;

    /* A part of `refrigerator`, which must outlive it. The first advance() gives a reading. */
    explicit DisplayBoard(Refrigerator &refrigerator) : refrigerator_(refrigerator) {}

    /* Each second the power reading; one reading, the latest, after a longer gap. */
    [[nodiscard]] std::optional<SettingsWrite> advance(TimeMs now);
    [[nodiscard]] TimeMs nextAt() const { return nextReadingAt_; }

    /* The override button: lights the display and tells the service what is wanted. */
    [[nodiscard]] SettingsWrite pressOverride(bool on, TimeMs now);

    /* The present reading, in counts. */
    [[nodiscard]] int reading() const;

private:
    Refrigerator &refrigerator_;
    TimeMs nextReadingAt_ = 0;
};

} // namespace corvane::appliance

#endif
