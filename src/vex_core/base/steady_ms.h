#pragma once
// The clock to measure with, which nobody sets, and how much of a time is left by it. Any thread.

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace VexCore {

/// Milliseconds since some time in the past.
inline std::int64_t SteadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

/// How much of a time is left, for a wait that may take several sleeps.
class Deadline
{
public:
    /// Negative: without limit.
    explicit Deadline(std::int64_t timeoutMs) : m_timeoutMs(timeoutMs) {}

    /// 0: it is over. Negative: there is no limit.
    std::int64_t LeftMs() const
    {
        using namespace std::chrono;
        if (m_timeoutMs < 0)
            return m_timeoutMs;
        return std::max<std::int64_t>(0,
                                      m_timeoutMs - duration_cast<milliseconds>(steady_clock::now() - m_begin).count());
    }

private:
    const std::int64_t m_timeoutMs;
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

} // namespace VexCore
