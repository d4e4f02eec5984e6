#pragma once
// Texts byte by byte, whatever the locale. Pure functions; UTF-8 passes through them as it is.

#include <string_view>

namespace VexCore {

/// Letters outside of ASCII stay as they are, whatever the locale.
constexpr char LowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool StartsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

constexpr bool EndsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

} // namespace VexCore
