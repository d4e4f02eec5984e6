#include "vex_core/os/files.h"

#include "vex_core/os/observed.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// Before Linux 5.8 syncfs answers success although a file could not be written.
bool SyncfsReportsFailure()
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

int StatWithoutTimes(const char* path, struct stat& result)
{
    return Observed(OfStat("stat", -1, path, result), [&] {
        struct statx found;
        constexpr unsigned wanted = STATX_INO | STATX_SIZE;
        // Not there before Linux 4.11, and refused by some that guard containers.
        if (::statx(AT_FDCWD, path, 0, wanted, &found) != 0 || (found.stx_mask & wanted) != wanted)
            return ::stat(path, &result);
        result = {};
        result.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
        result.st_ino = found.stx_ino;
        result.st_size = static_cast<off_t>(found.stx_size);
        return 0;
    });
}

int SyncFileSystem(int descriptor)
{
    if (!MayCall(OfDescriptor("syncfs", descriptor)))
        return -1;
    static const bool reports = SyncfsReportsFailure();
    if (!reports) {
        errno = ENOTSUP;
        return -1;
    }
    return ::syncfs(descriptor);
}

int StartWriteback(int descriptor)
{
    if (!MayCall(OfDescriptor("sync_file_range", descriptor)))
        return -1;
    if (::sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE) == 0)
        return 0;
    const bool unknownHere = errno == ENOSYS || errno == EINVAL || errno == ESPIPE || errno == EOPNOTSUPP;
    return unknownHere ? 0 : -1;
}

} // namespace VexCore::os
