#include "vex_core/os/folder_calls.h"

#include "vex_core/os/folder_calls_p.h"

#include <atomic>
#include <cerrno>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
std::atomic<CallObserver> g_observer{nullptr};

template <typename Function>
auto Retry(Function function) -> decltype(function())
{
    for (;;) {
        const auto result = function();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

} // namespace

CallObserver SetCallObserver(CallObserver observer)
{
    return g_observer.exchange(observer);
}

bool MayCall(const char* name, int descriptor, const char* path, const char* newPath)
{
    const CallObserver observer = g_observer.load(std::memory_order_relaxed);
    if (!observer)
        return true;
    const int error = observer(Call{name, descriptor, path, newPath});
    if (error != 0)
        errno = error;
    return error == 0;
}

int Open(const char* path, int flags)
{
    if (!MayCall("open", -1, path))
        return -1;
    return Retry([&] { return ::open(path, flags | O_CLOEXEC); });
}

int OpenAt(int folder, const char* name, int flags, mode_t mode)
{
    if (!MayCall("openat", folder, name))
        return -1;
    return Retry([&] { return ::openat(folder, name, flags | O_CLOEXEC, mode); });
}

int OpenFolderAt(int folder, const char* name)
{
    // O_DIRECTORY is missing on some systems, so what was opened is asked; O_NONBLOCK so that a FIFO does not hold us.
    const int descriptor = OpenAt(folder, name,
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY
#ifdef O_DIRECTORY
                                      | O_DIRECTORY
#endif
    );
    if (descriptor < 0)
        return -1;
    struct stat status;
    int error = FStat(descriptor, status) != 0 ? errno : 0;
    if (error == 0 && !S_ISDIR(status.st_mode))
        error = ENOTDIR;
    if (error == 0)
        return descriptor;
    Close(descriptor);
    errno = error;
    return -1;
}

void Close(int descriptor)
{
    const int error = errno;
    ::close(descriptor); // not tried again: after EINTR the descriptor is gone already
    errno = error;
}

int CloseWritten(int descriptor)
{
    if (MayCall("close", descriptor))
        return ::close(descriptor) == 0 || errno == EINTR ? 0 : -1;
    Close(descriptor);
    return -1;
}

int FStat(int descriptor, struct stat& result)
{
    if (!MayCall("fstat", descriptor))
        return -1;
    return Retry([&] { return ::fstat(descriptor, &result); });
}

int LStatAt(int folder, const char* name, struct stat& result)
{
    if (!MayCall("fstatat", folder, name))
        return -1;
    return Retry([&] { return ::fstatat(folder, name, &result, AT_SYMLINK_NOFOLLOW); });
}

int StatAt(int folder, const char* name, struct stat& result)
{
    if (!MayCall("fstatat", folder, name))
        return -1;
    return Retry([&] { return ::fstatat(folder, name, &result, 0); });
}

ssize_t PReadFull(int descriptor, void* data, std::size_t size, off_t offset)
{
    if (!MayCall("pread", descriptor))
        return -1;
    std::size_t done = 0;
    while (done < size) {
        char* const place = static_cast<char*>(data) + done;
        const ssize_t count =
            Retry([&] { return ::pread(descriptor, place, size - done, offset + static_cast<off_t>(done)); });
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

int WriteFull(int descriptor, const void* data, std::size_t size)
{
    if (!MayCall("write", descriptor))
        return -1;
    std::size_t done = 0;
    while (done < size) {
        const char* const place = static_cast<const char*>(data) + done;
        const ssize_t count = Retry([&] { return ::write(descriptor, place, size - done); });
        if (count < 0)
            return -1;
        done += static_cast<std::size_t>(count);
    }
    return 0;
}

int MkdirAt(int folder, const char* name, mode_t mode)
{
    if (!MayCall("mkdirat", folder, name))
        return -1;
    return Retry([&] { return ::mkdirat(folder, name, mode); });
}

int FChmod(int descriptor, mode_t mode)
{
    if (!MayCall("fchmod", descriptor))
        return -1;
    return Retry([&] { return ::fchmod(descriptor, mode); });
}

int ChmodAt(int folder, const char* name, mode_t mode)
{
    if (!MayCall("fchmodat", folder, name))
        return -1;
    // The C library of Linux needs /proc to do this without following a link.
    if (Retry([&] { return ::fchmodat(folder, name, mode, AT_SYMLINK_NOFOLLOW); }) == 0)
        return 0;
    if (errno != EOPNOTSUPP && errno != ENOSYS)
        return -1;
    const int descriptor = OpenAt(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0)
        return -1;
    const int result = FChmod(descriptor, mode);
    Close(descriptor);
    return result;
}

int RenameAt(int folder, const char* name, int newFolder, const char* newName)
{
    if (!MayCall("renameat", folder, name, newName))
        return -1;
    return Retry([&] { return ::renameat(folder, name, newFolder, newName); });
}

int UnlinkAt(int folder, const char* name)
{
    if (!MayCall("unlinkat", folder, name))
        return -1;
    return Retry([&] { return ::unlinkat(folder, name, 0); });
}

int FSync(int descriptor)
{
    if (!MayCall("fsync", descriptor))
        return -1;
    return Retry([&] { return ::fsync(descriptor); });
}

int ListFolder(int folder, bool (*visit)(void* context, const char* name), void* context)
{
    // A descriptor of its own: reading moves the position that a duplicate would share.
    const int own = OpenFolderAt(folder, ".");
    if (own < 0)
        return -1;
    DIR* const stream = ::fdopendir(own);
    if (!stream) {
        Close(own);
        return -1;
    }
    int result = 0;
    for (;;) {
        errno = 0;
        const bool may = MayCall("readdir", own);
        const struct dirent* const item = may ? ::readdir(stream) : nullptr;
        if (!item) {
            result = errno != 0 ? -1 : 0;
            break;
        }
        const char* const name = item->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        if (!visit(context, name))
            break;
    }
    const int error = errno;
    ::closedir(stream);
    errno = error;
    return result;
}

// The sanitizer looks at the category's type through a pipe, and calls it invalid where there is no descriptor left for one:
// just where such texts are needed.
__attribute__((no_sanitize("vptr"))) std::string ErrorText(int error)
{
    return std::system_category().message(error);
}

} // namespace VexCore::os
