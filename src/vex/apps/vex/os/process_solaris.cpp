#include "vex/apps/vex/os/process.h"

#include <cstdlib>

#include <fcntl.h>
#include <procfs.h>
#include <unistd.h>

namespace VexOs {

namespace {
int Mark(void*, int descriptor)
{
    if (descriptor > 2)
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    return 0;
}

} // namespace

void CloseDescriptorsOnExec()
{
    ::fdwalk(Mark, nullptr);
}

int CountThreads()
{
    psinfo_t info;
    const int descriptor = ::open("/proc/self/psinfo", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return 0;
    const ssize_t got = ::read(descriptor, &info, sizeof info);
    ::close(descriptor);
    return got == static_cast<ssize_t>(sizeof info) ? info.pr_nlwp : 0;
}

} // namespace VexOs
