/*
 * The ranges below are those of well-formed UTF-8: no overlong forms, no surrogates,
 * nothing above U+10FFFF.
 */
#include "text.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace corvane::platform {

namespace {

struct Sequence {
    std::size_t length;
    char32_t leadBits;
    char32_t smallest;
};

std::optional<Sequence> sequenceOf(std::uint8_t lead) {
    if (lead < 0x80)
        return Sequence{1, lead, 0};
    if (lead >= 0xC2 && lead <= 0xDF)
        return Sequence{2, lead & 0x1Fu, 0x80};
    if (lead >= 0xE0 && lead <= 0xEF)
        return Sequence{3, lead & 0x0Fu, 0x800};
    if (lead >= 0xF0 && lead <= 0xF4)
        return Sequence{4, lead & 0x07u, 0x10000};
    return std::nullopt;
}

std::string byteEscape(std::uint8_t byte) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "\\x%02x", byte);
    return text.data();
}

std::string characterEscape(char32_t character) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "\\u%04x", static_cast<unsigned>(character));
    return text.data();
}

} // namespace

std::optional<char32_t> nextCharacter(std::string_view text, std::size_t &position) {
    const std::size_t start = position++;
    const auto sequence = sequenceOf(static_cast<std::uint8_t>(text[start]));
    if (!sequence || text.size() - start < sequence->length)
        return std::nullopt;
    char32_t character = sequence->leadBits;
    for (std::size_t i = 1; i < sequence->length; ++i) {
        const auto byte = static_cast<std::uint8_t>(text[start + i]);
        if ((byte & 0xC0u) != 0x80u)
            return std::nullopt;
        character = (character << 6) | (byte & 0x3Fu);
    }
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    if (character < sequence->smallest || isSurrogate || character > 0x10FFFF)
        return std::nullopt;
    position = start + sequence->length;
    return character;
}

bool isPrintable(char32_t character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character <= 0x9F);
    const bool endsLine = character == 0x2028 || character == 0x2029;
    const bool turnsDirection = (character >= 0x200E && character <= 0x200F) ||
                                (character >= 0x202A && character <= 0x202E) ||
                                (character >= 0x2066 && character <= 0x2069);
    const bool isNoCharacter = character == 0xFEFF || (character & 0xFFFE) == 0xFFFE;
    return !isControl && !endsLine && !turnsDirection && !isNoCharacter;
}

std::string escaped(std::string_view text, std::size_t limit) {
    std::string shown;
    std::size_t position = 0;
    for (std::size_t count = 0; position < text.size(); ++count) {
        if (count == limit)
            return shown + "...";
        const std::size_t start = position;
        const auto character = nextCharacter(text, position);
        if (!character)
            shown += byteEscape(static_cast<std::uint8_t>(text[start]));
        else if (*character == '"' || *character == '\\')
            shown += {'\\', static_cast<char>(*character)};
        else if (isPrintable(*character))
            shown += text.substr(start, position - start);
        else
            shown += characterEscape(*character);
    }
    return shown;
}

std::string inQuotes(std::string_view text, std::size_t limit) {
    return '"' + escaped(text, limit) + '"';
}

std::string cleaned(std::string_view text) {
    std::string clean;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t start = position;
        const auto character = nextCharacter(text, position);
        if (character && isPrintable(*character))
            clean += text.substr(start, position - start);
        else
            clean += '?';
    }
    return clean;
}

} // namespace corvane::platform
