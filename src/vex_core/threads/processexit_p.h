#pragma once
// Where the main thread may be halted while another thread ends the process.

#include <mutex>

namespace VexCore {

/// Halts the calling thread for ever, after it let go of `held`, when it is the main thread and another thread is ending
/// the process. Otherwise does nothing. Called where the main thread waits for other threads.
void ParkPoint(std::unique_lock<std::mutex>& held);

/// Makes a main thread that waits in `EndRegisteredThreads` look at its park point.
void WakeEndRegisteredThreads();

/// From now on `exit` ends the process without running static destructors: a thread of ours could not be ended, and
/// would run on under them.
void SkipDestructorsAtExit();

} // namespace VexCore
