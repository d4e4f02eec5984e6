#pragma once
// Ending the process from a thread that is not the main one.

#include "vex/core/export.h"

namespace VexCore {

/// Ends the process with `status` as `exit` does, from any thread. On a thread other than the main one the main thread
/// is parked first: it is halted where it stands and never comes back, so that static destructors do not run under it.
/// Any thread may call; the first call wins and later ones wait for the end. No lock that the main thread may hold for
/// long is needed afterwards: the log is flushed before it is halted.
[[noreturn]] VEX_CORE_API void ExitProcessFromThread(int status);

} // namespace VexCore
