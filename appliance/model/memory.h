/*
 * The models' memories as text, one "name value" a line, exact to the bit, for a file or a database
 * column.
 */
#ifndef CORVANE_APPLIANCE_MODEL_MEMORY_H
#define CORVANE_APPLIANCE_MODEL_MEMORY_H

#include <optional>
#include <string>
#include <string_view>

#include "micom.h"
#include "refrigerator.h"

namespace corvane::appliance {

struct ApplianceMemory {
    RefrigeratorMemory refrigerator;
    MicomMemory micom;
};

[[nodiscard]] std::string toText(const ApplianceMemory &memory);
/*
 * Nothing when the text is not a whole memory: a line that is missing, unknown or twice there, a
 * value that is no number, or one that no refrigerator has (a temperature of 300 degrees).
 */
[[nodiscard]] std::optional<ApplianceMemory> fromText(std::string_view text);

} // namespace corvane::appliance

#endif
