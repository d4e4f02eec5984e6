// A folder is opened first and asked about afterwards, by its descriptor: between the two, a name could come to lead
// elsewhere.

#include "vex_core/os/folders.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/observed.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
int OpenFolder(int folder, const char* name, int moreFlags)
{
    // O_DIRECTORY is missing on some systems, so what was opened is asked; O_NONBLOCK so that a FIFO does not hold us.
    int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | moreFlags;
#ifdef O_DIRECTORY
    flags |= O_DIRECTORY;
#endif
    Descriptor opened(OpenAt(folder, name, flags));
    struct stat status;
    if (!opened || FStat(opened.Get(), status) != 0)
        return -1;
    if (S_ISDIR(status.st_mode))
        return opened.Release();
    errno = ENOTDIR;
    return -1;
}

int ListOpened(Descriptor own, const NameVisitor& visit)
{
    if (!own)
        return -1;
    DIR* const stream = ::fdopendir(own.Get());
    if (!stream)
        return -1;
    const int descriptor = own.Release();
    int result = 0;
    for (;;) {
        errno = 0;
        const bool may = MayCall(OfDescriptor("readdir", descriptor));
        const struct dirent* const item = may ? ::readdir(stream) : nullptr;
        if (!item) {
            result = errno != 0 ? -1 : 0;
            break;
        }
        const char* const name = item->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        if (!visit(name))
            break;
    }
    const KeepError keep;
    ::closedir(stream);
    return result;
}

} // namespace

int OpenFolderAt(int folder, const char* name)
{
    return OpenFolder(folder, name, O_NOFOLLOW);
}

int EnterFolderAt(int folder, const char* name, bool follow)
{
    const int noFollow = follow ? 0 : O_NOFOLLOW;
    const int opened = OpenFolder(folder, name, noFollow);
    return opened < 0 && errno == EACCES ? OpenToSearchAt(folder, name, noFollow) : opened;
}

int MkdirAt(int folder, const char* name, mode_t mode)
{
    return Observed(OfDescriptor("mkdirat", folder, name), [&] { return ::mkdirat(folder, name, mode); });
}

bool MakePrivateFolders(const std::string& path)
{
    if (MkdirAt(AT_FDCWD, path.c_str(), 0700) == 0)
        return true;
    if (errno == ENOENT) {
        const std::size_t slash = path.find_last_of('/');
        if (slash == std::string::npos || slash == 0)
            return false;
        if (!MakePrivateFolders(path.substr(0, slash)))
            return false;
        if (MkdirAt(AT_FDCWD, path.c_str(), 0700) == 0)
            return true;
    }
    if (errno != EEXIST)
        return false;
    struct stat status = {};
    if (StatAt(AT_FDCWD, path.c_str(), status) != 0)
        return false;
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

int ListFolder(int folder, const NameVisitor& visit)
{
    // A descriptor of its own: reading moves the position that a duplicate would share.
    return ListOpened(Descriptor(OpenFolderAt(folder, ".")), visit);
}

int ListFolder(const char* path, const NameVisitor& visit)
{
    return ListOpened(Descriptor(OpenFolder(AT_FDCWD, path, 0)), visit);
}

bool CurrentFolder(std::string& path)
{
    char buffer[4096]; // the same on every system: PATH_MAX is 1024 on some
    if (!MayCall(OfPath("getcwd", nullptr)) || !::getcwd(buffer, sizeof buffer))
        return false;
    path = buffer;
    return true;
}

} // namespace VexCore::os
