#include "vex_core/os/process_info.h"

#include "vex_core/os/folders.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace VexCore::os {

pid_t ProcessId()
{
    return ::getpid();
}

uid_t EffectiveUser()
{
    return ::geteuid();
}

std::optional<gid_t> FindGroup(const std::string& name)
{
    constexpr std::size_t mostBytes = 1 << 20; // of a group's record, which lists its members
    for (std::size_t size = 4096; size <= mostBytes; size *= 4) {
        std::vector<char> room(size);
        struct group record = {};
        struct group* found = nullptr;
        const int error = ::getgrnam_r(name.c_str(), &record, room.data(), room.size(), &found);
        if (error != ERANGE)
            return error == 0 && found ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
    }
    return std::nullopt;
}

pid_t GroupOf(pid_t pid)
{
    return ::getpgid(pid);
}

std::set<pid_t> GroupsOfOwnSession()
{
    std::set<pid_t> groups;
    const pid_t session = ::getsid(0);
    const auto look = [&](const char* name) {
        char* end = nullptr;
        const long pid = std::strtol(name, &end, 10);
        ProcessInfo info;
        if (*end == '\0' && GetProcessInfo(static_cast<pid_t>(pid), info) && !info.zombie && info.session == session)
            groups.insert(info.group);
        return true;
    };
    ListFolder("/proc", look);
    return groups;
}

std::size_t OpenFileLimit()
{
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 256; // the least that POSIX systems start a process with
    return limit.rlim_cur == RLIM_INFINITY ? static_cast<std::size_t>(1) << 20
                                           : static_cast<std::size_t>(limit.rlim_cur);
}

} // namespace VexCore::os
