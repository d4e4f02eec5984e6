#pragma once
// The one way a signal is sent. `kill` with a pid of -1 reaches every process of the machine, and -1 is also what a
// failed fork leaves behind: so nothing else calls `kill`.

#include <cerrno>
#include <csignal>
#include <sys/types.h>

namespace VexCore {

/// Sends `signal` (0: only asks) to one process. A pid that is not above 1 is refused with -1 and EINVAL. Safe in a
/// signal handler.
inline int SendSignal(pid_t pid, int signal)
{
    if (pid <= 1) {
        errno = EINVAL;
        return -1;
    }
    return ::kill(pid, signal);
}

/// Sends `signal` to every process of the caller's own group, the caller included. Safe in a signal handler.
inline int SendSignalToOwnGroup(int signal)
{
    return ::kill(0, signal);
}

/// Sends `signal` to a process group that the caller made for a child. A group id that is not above 1 is refused.
inline int SendSignalToGroup(pid_t group, int signal)
{
    if (group <= 1) {
        errno = EINVAL;
        return -1;
    }
    return ::kill(-group, signal);
}

} // namespace VexCore
