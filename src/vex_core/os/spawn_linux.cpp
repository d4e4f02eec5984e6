#include "vex_core/os/spawn.h"

#include "vex_core/os/files.h"
#include "vex_core/os/kernel_dirent.h"
#include "vex_core/os/raise_pipe.h"

#include <climits>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// Kernels before 5.9: closes what /proc/self/fd lists, batch by batch. readdir would allocate.
bool CloseListed(int first)
{
    const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY);
    if (folder < 0)
        return false;
    alignas(KernelDirent) char batch[2048];
    for (;;) {
        const long size = syscall(SYS_getdents64, folder, batch, sizeof batch);
        if (size <= 0)
            break;
        for (long at = 0; at < size;) {
            const auto* entry = static_cast<const KernelDirent*>(static_cast<const void*>(batch + at));
            int descriptor = 0;
            for (const char* digit = entry->name; *digit >= '0' && *digit <= '9'; ++digit)
                descriptor = descriptor * 10 + (*digit - '0');
            if (descriptor >= first && descriptor != folder && entry->name[0] != '.')
                close(descriptor);
            at += entry->recordSize;
        }
    }
    close(folder);
    return true;
}

} // namespace

void CloseFrom(int first)
{
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, UINT_MAX, 0) == 0)
        return;
#endif
    if (CloseListed(first))
        return;
    struct rlimit limit;
    const int end =
        getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536 ? static_cast<int>(limit.rlim_cur) : 65536;
    for (int descriptor = first; descriptor < end; ++descriptor)
        close(descriptor);
}

Pipe OpenPipe()
{
    int made[2];
    if (::pipe2(made, O_CLOEXEC) != 0)
        return {};
    return RaisePipe(made);
}

Descriptor FileOf(std::string_view bytes)
{
    Descriptor file = RaiseDescriptor(Descriptor(::memfd_create("input", MFD_CLOEXEC)));
    if (!file || !WriteAll(file.Get(), bytes.data(), bytes.size()))
        return {};
    ::lseek(file.Get(), 0, SEEK_SET);
    return file;
}

Descriptor OpenProcess(pid_t pid)
{
#ifdef SYS_pidfd_open
    return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))); // close-on-exec by itself
#else
    (void)pid;
    return {};
#endif
}

} // namespace VexCore::os
