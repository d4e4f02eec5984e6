#pragma once
// Bytes as hexadecimal digits, as in checksums and in the names of files that are called after one.

#include <cstddef>
#include <string>

namespace VexCore {

/// Two lower-case hexadecimal digits for each byte.
inline std::string Hex(const unsigned char* data, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

} // namespace VexCore
