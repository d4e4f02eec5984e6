#include "vex_core/os/folder_calls.h"

#include "vex_core/os/folder_calls_p.h"

#include <cerrno>

namespace VexCore::os {

void StartWriteback(int)
{
    // Solaris has no call for it; the flush that follows does the whole work.
}

int SyncFileSystem(int descriptor)
{
    // There is no syncfs, and sync does not wait.
    if (MayCall("syncfs", descriptor))
        errno = ENOTSUP;
    return -1;
}

} // namespace VexCore::os
