/*
 * Text that came from outside, made fit for a log line or an error reason, and the one UTF-8 reader
 * behind it. A reader of such a line must never be misled by what a sender put into a value:
 * control characters, line ends and direction marks are shown as escapes.
 */
#ifndef CORVANE_PLATFORM_LINUX_TEXT_H
#define CORVANE_PLATFORM_LINUX_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::platform {

/*
 * Reads the character that starts at position (which must be inside text) and moves position behind
 * it. Answers nothing, and moves by one byte, where the bytes are not well-formed UTF-8.
 */
std::optional<char32_t> nextCharacter(std::string_view text, std::size_t &position);

/* Whether a character can be shown in a line without changing the line's order or end. */
bool isPrintable(char32_t character);

/* So much of a value from the network is shown: enough to know it again. */
inline constexpr std::size_t kShownCharacters = 40;

/*
 * The text with escapes for what is not printable, for quotes and for backslashes, cut after limit
 * characters with "..." in place of the rest.
 */
std::string escaped(std::string_view text, std::size_t limit = kShownCharacters);

/* The same between double quotes. */
std::string inQuotes(std::string_view text, std::size_t limit = kShownCharacters);

/*
 * The text without what could break an answer: each byte that is not well-formed UTF-8 and each
 * character that is not printable becomes one '?'. Never longer than the text.
 */
std::string cleaned(std::string_view text);

} // namespace corvane::platform

#endif
