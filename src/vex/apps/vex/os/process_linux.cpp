#include "vex/apps/vex/os/process.h"

#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexOs {

namespace {
// For kernels before 5.11.
void MarkOneByOne()
{
    DIR* const folder = ::opendir("/proc/self/fd");
    if (!folder)
        return;
    while (const dirent* entry = ::readdir(folder)) {
        const int descriptor = std::atoi(entry->d_name);
        if (descriptor > 2)
            ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
    ::closedir(folder);
}

} // namespace

void CloseDescriptorsOnExec()
{
#if defined(SYS_close_range)
    constexpr unsigned closeOnExec = 1u << 2; // CLOSE_RANGE_CLOEXEC, which older headers lack
    if (::syscall(SYS_close_range, 3u, ~0u, closeOnExec) == 0)
        return;
#endif
    MarkOneByOne();
}

int CountThreads()
{
#if defined(__SANITIZE_THREAD__)
    return 0; // the sanitizer has a thread of its own
#else
    DIR* const folder = ::opendir("/proc/self/task");
    if (!folder)
        return 0;
    int count = 0;
    while (const dirent* entry = ::readdir(folder))
        count += entry->d_name[0] != '.';
    ::closedir(folder);
    return count;
#endif
}

} // namespace VexOs
