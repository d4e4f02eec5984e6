#pragma once
// What the system tells about processes: this one's id, user and limits, and the life of others.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include <sys/types.h>

namespace VexCore::os {

pid_t ProcessId();
uid_t EffectiveUser();
/// The group of a name by the system's own table, which may ask a server; none where it knows no such group.
std::optional<gid_t> FindGroup(const std::string& name);
/// Bytes of memory that this process has in use, by the system's count; none where it does not tell.
std::optional<std::uint64_t> ResidentBytes();
/// How many descriptors this process may have open.
std::size_t OpenFileLimit();

struct ProcessInfo
{
    /// When it began, in the system's own unit: clock ticks since the boot on Linux, nanoseconds since the
    /// epoch on Solaris. Good for comparing, for nothing else.
    std::uint64_t startTime = 0;
    /// It has ended and only waits for its parent to notice.
    bool zombie = false;
    pid_t group = 0;
    pid_t session = 0;
};

/// False when there is no such process or the system does not show it. Any thread. Does not allocate.
bool GetProcessInfo(pid_t pid, ProcessInfo& info);

/// The groups of all processes of this process's session that have not ended.
std::set<pid_t> GroupsOfOwnSession();

/// The process group of a process, -1 when there is no such process.
pid_t GroupOf(pid_t pid);

} // namespace VexCore::os
