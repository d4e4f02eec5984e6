#pragma once

#include "vex/core/export.h"

#include <cstdint>

namespace VexCore {

/// Milliseconds since the epoch, by the wall clock. Any thread.
VEX_CORE_API std::int64_t TimeNowMillis();

} // namespace VexCore
