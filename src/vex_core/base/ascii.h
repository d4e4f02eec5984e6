#pragma once
// Texts byte by byte, whatever the locale. Pure functions; UTF-8 passes through them as it is.

#include <algorithm>
#include <string_view>

namespace VexCore {

/// Letters outside of ASCII stay as they are, whatever the locale.
constexpr char LowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// An order of names in which letters of either case are the same.
struct LessInAnyCase
{
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const
    {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                            [](char x, char y) { return LowerAscii(x) < LowerAscii(y); });
    }
};

constexpr bool IsSameInAnyCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (LowerAscii(a[i]) != LowerAscii(b[i]))
            return false;
    return true;
}

constexpr bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
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
