#pragma once
// Locks of whole files against other processes. Such a lock belongs to the process, not to the descriptor: it goes when
// the process closes any descriptor of the file, or ends, and children do not inherit it.

namespace VexCore::os {

/// Takes the write lock. -1 with the last error, which is EAGAIN when another process has it.
int TryLock(int descriptor);

/// The same, waiting up to `timeoutMs` for another process to give it back. False with the last error.
bool LockFile(int descriptor, long timeoutMs);

} // namespace VexCore::os
