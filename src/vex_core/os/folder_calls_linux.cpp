#include "vex_core/os/folder_calls.h"

#include "vex_core/os/folder_calls_p.h"

#include <cerrno>

#include <fcntl.h>

namespace VexCore::os {

int StartWriteback(int descriptor)
{
    if (!MayCall("sync_file_range", descriptor))
        return -1;
    if (::sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE) == 0)
        return 0;
    const bool unknownHere = errno == ENOSYS || errno == EINVAL || errno == ESPIPE || errno == EOPNOTSUPP;
    return unknownHere ? 0 : -1;
}

} // namespace VexCore::os
