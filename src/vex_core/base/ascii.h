#pragma once

namespace VexCore {

/// Letters outside of ASCII stay as they are, whatever the locale.
constexpr char LowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace VexCore
