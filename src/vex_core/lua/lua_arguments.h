#pragma once
// Arguments that several of our Lua classes take.

#include "slb3/stack.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace VexCore {

/// Beyond it, and below its negative, a Lua number cannot tell an integer from its neighbour.
constexpr std::int64_t maxExactInteger = static_cast<std::int64_t>(1) << 53;

/// A time in seconds, fractions included, as whole milliseconds, rounded up so that a short wait is not none.
/// A negative time is none; one of more than about three centuries, such as math.huge, is no limit: -1.
inline std::int64_t MillisecondsArgument(lua_State* L, int index)
{
    const double seconds = SLB3::internal::Value<double>::Get(L, index);
    if (std::isnan(seconds))
        SLB3::internal::RaiseArgumentError(L, index, "number of seconds", "not a number");
    constexpr double maxSeconds = 1e10;
    if (seconds > maxSeconds)
        return -1;
    return seconds <= 0 ? 0 : static_cast<std::int64_t>(std::ceil(seconds * 1000));
}

/// A string without zero bytes, for what takes text up to the first: the rest would be cut off silently. A number
/// is taken in its text form. Raises an argument error.
inline const char* PlainTextArgument(lua_State* L, int index)
{
    std::size_t length = 0;
    const char* text = luaL_checklstring(L, index, &length);
    luaL_argcheck(L, std::strlen(text) == length, index, "string with a zero byte");
    return text;
}

} // namespace VexCore
