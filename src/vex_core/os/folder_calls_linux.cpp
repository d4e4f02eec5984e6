#include "vex_core/os/folder_calls.h"

#include "vex_core/os/folder_calls_p.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace VexCore::os {
namespace {

/// Before 5.8 syncfs answers success although the write-back of a file failed.
bool SyncfsReportsErrors()
{
    struct utsname names;
    if (::uname(&names) != 0)
        return false;
    char* rest = nullptr;
    const long major = std::strtol(names.release, &rest, 10);
    const long minor = *rest == '.' ? std::strtol(rest + 1, nullptr, 10) : 0;
    return major > 5 || (major == 5 && minor >= 8);
}

} // namespace

void StartWriteback(int descriptor)
{
    if (MayCall("sync_file_range", descriptor))
        (void)::sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
}

int SyncFileSystem(int descriptor)
{
    if (!MayCall("syncfs", descriptor))
        return -1;
    static const bool reports = SyncfsReportsErrors();
    if (!reports) {
        errno = ENOTSUP;
        return -1;
    }
    return ::syncfs(descriptor);
}

} // namespace VexCore::os
