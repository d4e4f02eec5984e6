#include "vex/apps/vexctl/os/processes.h"

#include "vex_core/os/process_info.h"

#include <climits>
#include <cstdio>

#include <unistd.h>

namespace Vexctl::os {

// The start time is in nanoseconds since the epoch there.
std::optional<std::int64_t> ProcessBeganMs(pid_t pid)
{
    VexCore::os::ProcessInfo info;
    if (!VexCore::os::GetProcessInfo(pid, info))
        return std::nullopt;
    return static_cast<std::int64_t>(info.startTime / 1000000);
}

// The locks tell the child; the list of processes has to be searched for it.
pid_t ChildOf(pid_t)
{
    return 0;
}

std::string FolderOf(pid_t pid)
{
    char link[40];
    std::snprintf(link, sizeof link, "/proc/%ld/path/cwd", static_cast<long>(pid));
    char path[PATH_MAX];
    const ssize_t size = ::readlink(link, path, sizeof path);
    return size > 0 ? std::string(path, static_cast<std::size_t>(size)) : std::string();
}

} // namespace Vexctl::os
