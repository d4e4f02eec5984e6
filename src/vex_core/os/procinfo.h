#pragma once
// What the system tells about other processes.

#include <cstdint>

#include <sys/types.h>

namespace VexCore::os {

struct ProcessInfo
{
    /// When it began, in the system's own unit: clock ticks since the boot on Linux, nanoseconds since the
    /// epoch on Solaris. Good for comparing, for nothing else.
    std::uint64_t startTime = 0;
    /// It has ended and only waits for its parent to notice.
    bool zombie = false;
};

/// False when there is no such process or the system does not show it. Any thread. Does not allocate.
bool GetProcessInfo(pid_t pid, ProcessInfo& info);

/// A descriptor that polls readable when the child `pid` has ended, -1 where the system has no such thing.
int OpenProcess(pid_t pid);

} // namespace VexCore::os
