#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <cstdio>

#include <fcntl.h>
#include <procfs.h>

namespace VexCore::os {

// A process that has ended keeps its psinfo, without threads: pr_nlwp is 0.
bool GetProcessInfo(pid_t pid, ProcessInfo& info)
{
    char path[40];
    std::snprintf(path, sizeof path, "/proc/%ld/psinfo", static_cast<long>(pid));
    const Descriptor file(Open(path, O_RDONLY));
    if (!file)
        return false;
    psinfo_t data;
    if (Read(file.Get(), &data, sizeof data) != static_cast<ssize_t>(sizeof data))
        return false;
    info.startTime = static_cast<std::uint64_t>(data.pr_start.tv_sec) * 1000000000u
                     + static_cast<std::uint64_t>(data.pr_start.tv_nsec);
    info.zombie = data.pr_nlwp == 0;
    info.group = data.pr_pgid;
    info.session = data.pr_sid;
    return true;
}

std::optional<std::uint64_t> ResidentBytes()
{
    const Descriptor file(Open("/proc/self/psinfo", O_RDONLY));
    psinfo_t data;
    if (!file || Read(file.Get(), &data, sizeof data) != static_cast<ssize_t>(sizeof data))
        return std::nullopt;
    return static_cast<std::uint64_t>(data.pr_rssize) * 1024;
}

} // namespace VexCore::os
