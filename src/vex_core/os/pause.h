#pragma once
// A pause of the calling thread that nothing ends early: for the moment that another process needs for what it has
// begun. What a thread of ours may be woken from is a wait, in base/wait.h.

namespace VexCore::os {

/// Sleeps for the whole time, whatever signals come. Keeps the last error.
void PauseMs(long milliseconds);

} // namespace VexCore::os
