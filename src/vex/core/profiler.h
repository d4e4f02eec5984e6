#pragma once
// Hooks that mark the calling thread idle and running again, for a profiler. Without one they do nothing. Any thread.

#include "vex/core/export.h"

namespace VexCore {

VEX_CORE_API void profiler_idle();
VEX_CORE_API void profiler_running();

} // namespace VexCore
