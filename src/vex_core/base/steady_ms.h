#pragma once
// The clock to measure with: nobody sets it.

#include <chrono>
#include <cstdint>

namespace VexCore {

/// Milliseconds since some time in the past.
inline std::int64_t SteadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace VexCore
