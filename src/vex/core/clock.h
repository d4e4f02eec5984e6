#pragma once
// The wall clock, for times that are stored, shown or sent. It can be set, so nothing is measured with it.

#include "vex/core/export.h"

#include <cstdint>

namespace VexCore {

/// Milliseconds since the epoch, by the wall clock. Any thread.
VEX_CORE_API std::int64_t TimeNowMillis();

} // namespace VexCore
