#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

// /proc/PID/stat is "pid (name) state ppid ...". The name may hold blanks and parentheses, so the fields are
// counted from the last parenthesis: the state is the 3rd field of the line, group and session are the 5th and 6th, the
// start time is the 22nd.
bool GetProcessInfo(pid_t pid, ProcessInfo& info)
{
    char path[40];
    std::snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    const Descriptor file(Open(path, O_RDONLY));
    if (!file)
        return false;
    char text[1024] = "";
    if (Read(file.Get(), text, sizeof text - 1) <= 0)
        return false;
    const char* at = std::strrchr(text, ')');
    if (!at || at[1] != ' ')
        return false;
    const char state = at[2];
    at += 2;
    for (int field = 3; field < 22; ++field) {
        at = std::strchr(at, ' ');
        if (!at)
            return false;
        ++at;
        if (field == 4)
            info.group = static_cast<pid_t>(std::strtol(at, nullptr, 10));
        else if (field == 5)
            info.session = static_cast<pid_t>(std::strtol(at, nullptr, 10));
    }
    info.startTime = std::strtoull(at, nullptr, 10);
    info.zombie = state == 'Z' || state == 'X';
    return true;
}

// /proc/self/statm is "size resident shared ...", in pages.
std::optional<std::uint64_t> ResidentBytes()
{
    const Descriptor file(Open("/proc/self/statm", O_RDONLY));
    char text[256] = "";
    unsigned long long pages = 0;
    const long pageBytes = ::sysconf(_SC_PAGESIZE);
    if (!file || Read(file.Get(), text, sizeof text - 1) <= 0 || std::sscanf(text, "%*u %llu", &pages) != 1
        || pageBytes <= 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes);
}

} // namespace VexCore::os
