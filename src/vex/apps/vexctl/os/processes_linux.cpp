#include "vex/apps/vexctl/os/processes.h"

#include "vex/core/clock.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace Vexctl::os {

std::optional<std::int64_t> ProcessBeganMs(pid_t pid)
{
    VexCore::os::ProcessInfo info;
    struct timespec sinceBoot = {};
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (ticksPerSecond <= 0 || !VexCore::os::GetProcessInfo(pid, info)
        || ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0)
        return std::nullopt;
    const std::int64_t nowMs = static_cast<std::int64_t>(sinceBoot.tv_sec) * 1000 + sinceBoot.tv_nsec / 1000000;
    const std::int64_t beganMs = static_cast<std::int64_t>(info.startTime) * 1000 / ticksPerSecond;
    return VexCore::TimeNowMillis() - (nowMs - beganMs);
}

pid_t ChildOf(pid_t pid)
{
    char path[80];
    std::snprintf(path, sizeof path, "/proc/%ld/task/%ld/children", static_cast<long>(pid), static_cast<long>(pid));
    const VexCore::os::Descriptor file(VexCore::os::Open(path, O_RDONLY));
    char text[32] = "";
    if (!file || VexCore::os::Read(file.Get(), text, sizeof text - 1) <= 0)
        return 0;
    return static_cast<pid_t>(std::strtol(text, nullptr, 10));
}

std::string FolderOf(pid_t pid)
{
    char link[40];
    std::snprintf(link, sizeof link, "/proc/%ld/cwd", static_cast<long>(pid));
    char path[PATH_MAX];
    const ssize_t size = ::readlink(link, path, sizeof path);
    return size > 0 ? std::string(path, static_cast<std::size_t>(size)) : std::string();
}

} // namespace Vexctl::os
