#include "vex_core/os/files.h"

#include <cerrno>

namespace VexCore::os {

int StartWriteback(int)
{
    return 0; // there is no such call; the flush that follows does the whole work
}

int StatWithoutTimes(const char* path, struct stat& result)
{
    return Stat(path, result);
}

int SyncFileSystem(int)
{
    errno = ENOTSUP; // sync reaches every file system and does not wait
    return -1;
}

} // namespace VexCore::os
