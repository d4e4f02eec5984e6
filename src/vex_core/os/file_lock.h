#pragma once

namespace VexCore::os {

/// Takes the whole file for this process against other processes; waits up to `timeoutMs`. The lock goes when
/// the process closes any descriptor of the file. False with errno.
bool LockFile(int descriptor, long timeoutMs);

} // namespace VexCore::os
