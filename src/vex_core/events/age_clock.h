#pragma once
// The time by which stored events grow old. The wall clock may be set while the process runs, and an event is not
// older for that.

#include <algorithm>
#include <cstdint>

namespace VexCore {

/// Goes with the wall clock, but never faster than the clock that nobody sets. Any thread.
/// A wall clock that is set forward takes no effect in this process, one that is set back takes effect at once.
class AgeClock
{
public:
    /// Milliseconds of both clocks now: since the epoch, and as `SteadyMs` has them.
    AgeClock(std::int64_t wallMs, std::int64_t steadyMs) : m_offsetMs(wallMs - steadyMs) {}

    /// Milliseconds since the epoch.
    std::int64_t NowMs(std::int64_t wallMs, std::int64_t steadyMs) const
    {
        return std::min(wallMs, steadyMs + m_offsetMs);
    }

private:
    const std::int64_t m_offsetMs; // from the steady clock to the wall clock, when they were compared
};

} // namespace VexCore
