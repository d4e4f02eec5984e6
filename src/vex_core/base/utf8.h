#pragma once
// UTF-8, one character at a time.

#include <cstddef>
#include <string_view>

namespace VexCore {

/// The length in bytes of the character at the start of `text` (which is not empty) and its value; 0 when
/// it is malformed: cut, overlong, a surrogate, beyond U+10FFFF, or a continuation alone. Allocates
/// nothing and calls nothing.
inline std::size_t DecodeUtf8(std::string_view text, char32_t& character)
{
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        character = lead;
        return 1;
    }
    const std::size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    char32_t value = lead & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
        value = value << 6 | (byte(i) & 0x3Fu);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    if (overlong || surrogate || value > 0x10FFFF)
        return 0;
    character = value;
    return length;
}

/// Both ranges of control characters, and what ends a line for some readers, U+2028 and U+2029: nothing that a log or a
/// terminal gets as it is.
constexpr bool IsControlOrLineEnd(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character < 0xa0) || character == 0x2028 || character == 0x2029;
}

} // namespace VexCore
