/*
 * How the texts that are seen are read: log lines, statements, requests. They are the service's
 * own; what is not of its form reads as nothing.
 */
#ifndef CORVANE_LAB_SEEN_TEXTS_H
#define CORVANE_LAB_SEEN_TEXTS_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::lab {

bool startsWith(std::string_view text, std::string_view start);
/* The first number, or 0. */
int numberIn(std::string_view text);
/* The texts between single quotes. */
std::vector<std::string> valuesOf(const std::string &sql);
/* "HH:MM:SS"; what is not there counts as 0. */
std::int64_t lengthMs(std::string_view text);
/* "YYYY-MM-DDTHH:MM:SS", UTC. */
std::int64_t utcTextMs(const std::string &text);
std::tm utcFields(std::int64_t utcMs);
/* "nothing" for none. */
std::string optionalText(const std::optional<int> &value);

} // namespace corvane::lab

#endif
