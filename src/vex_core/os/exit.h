#pragma once
// The last calls of a process.

#include <cstdio>

namespace VexCore::os {

/// Ends the process at once: no handler, no destructor, no flush.
[[noreturn]] void EndProcessNow(int status);

/// Has `handler` called with the status when `exit` runs, before every handler and destructor that is registered by
/// now. False: there is no such call, or no memory.
bool AtExitWithStatus(void (*handler)(int status));

/// Writes what a stream holds, unless another thread is in a call on it, which may be blocked there for good.
void FlushIfFree(std::FILE* stream);

} // namespace VexCore::os
