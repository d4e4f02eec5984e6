#pragma once
// Bytes as hexadecimal digits, as in checksums and in the names of files that are called after one.

#include <cstddef>
#include <string>
#include <string_view>

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

/// Bytes that are not shown as they are, for people: each as \xE9, in upper case.
inline std::string ShownInHex(std::string_view bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string shown;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        shown.append("\\x").append(1, digits[value >> 4]).append(1, digits[value & 15]);
    }
    return shown;
}

} // namespace VexCore
