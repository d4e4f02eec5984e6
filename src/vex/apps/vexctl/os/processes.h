#pragma once
// What the system tells about the agent's processes, to a process that is none of theirs.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Vexctl::os {

/// Who has the agents' locks in a file of theirs.
struct LockHolders
{
    pid_t instance = 0; ///< a supervisor, or a process that is about to become one; 0: nobody
    pid_t worker = 0; ///< the working child; 0: nobody
};

/// Asks without taking a lock. Absent when the file is not there or may not be read. A holder that is out of sight (in
/// another pid namespace) is -1.
std::optional<LockHolders> ReadLockHolders(const std::string& path);

/// Whether there is such a process, which has not ended.
bool IsAlive(pid_t pid);

/// When a process began, in milliseconds since the epoch by the clock of now.
std::optional<std::int64_t> ProcessBeganMs(pid_t pid);

/// The first child of a process of one thread; 0 when there is none, or the system does not tell.
pid_t ChildOf(pid_t pid);

/// The current folder of a process; empty when the system does not tell.
std::string FolderOf(pid_t pid);

/// The arguments of a process without the program's name, when its user is root or the one that asks: those of others
/// are not to be believed. Absent when the system does not tell.
std::optional<std::vector<std::string>> TrustedArgumentsOf(pid_t pid);

} // namespace Vexctl::os
