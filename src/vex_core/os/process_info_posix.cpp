#include "vex_core/os/process_info.h"

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

std::size_t OpenFileLimit()
{
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 256; // the least that POSIX systems start a process with
    return limit.rlim_cur == RLIM_INFINITY ? static_cast<std::size_t>(1) << 20
                                           : static_cast<std::size_t>(limit.rlim_cur);
}

} // namespace VexCore::os
