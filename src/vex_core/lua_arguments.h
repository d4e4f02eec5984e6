#pragma once
// Arguments that several of our Lua classes take.

#include "slb3/stack.h"

#include <cmath>
#include <cstdint>

namespace VexCore {

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

} // namespace VexCore
