#include "vex_core/os/status_calls.h"

#include "vex_core/os/folder_calls_p.h"

#include <cerrno>

#include <sys/resource.h>
#include <unistd.h>

namespace VexCore {
namespace os {

int Stat(const char* path, struct stat& result)
{
    if (!MayCall("stat", -1, path))
        return -1;
    int status;
    do
        status = ::stat(path, &result);
    while (status != 0 && errno == EINTR);
    return status;
}

int LStat(const char* path, struct stat& result)
{
    return MayCall("lstat", -1, path) ? ::lstat(path, &result) : -1;
}

bool MayExecute(const char* path)
{
    return MayCall("access", -1, path) && ::access(path, X_OK) == 0;
}

int TouchFile(int descriptor)
{
    return MayCall("futimens", descriptor) ? ::futimens(descriptor, nullptr) : -1;
}

std::size_t OpenFileLimit()
{
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 256; // the least that POSIX systems start a process with
    return limit.rlim_cur == RLIM_INFINITY ? static_cast<std::size_t>(1) << 20
                                           : static_cast<std::size_t>(limit.rlim_cur);
}

uid_t EffectiveUser()
{
    return ::geteuid();
}

pid_t ProcessId()
{
    return ::getpid();
}

} // namespace os
} // namespace VexCore
