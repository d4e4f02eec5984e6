// Calls go through the hook that tests set (observed.h), are made again when a signal interrupted them, and open
// descriptors that no program started later inherits. Any thread.

#include "vex_core/os/files.h"

#include "vex_core/os/error.h"
#include "vex_core/os/observed.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

std::atomic<CallObserver> g_observerOfCalls{nullptr};

namespace {
template <typename WriteSome>
bool WriteWhole(const WriteSome& writeSome, const void* data, std::size_t size)
{
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = writeSome(at, size);
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC; // it would never end
            return false;
        }
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace

CallObserver SetCallObserver(CallObserver observer)
{
    return g_observerOfCalls.exchange(observer);
}

// --- opening

int Open(const char* path, int flags, mode_t mode)
{
    return Observed(OfPath("open", path), [&] { return ::open(path, flags | O_CLOEXEC, mode); });
}

int OpenAt(int folder, const char* name, int flags, mode_t mode)
{
    return Observed(OfDescriptor("openat", folder, name),
                    [&] { return ::openat(folder, name, flags | O_CLOEXEC, mode); });
}

// --- what is there

int FStat(int descriptor, struct stat& result)
{
    return Observed(OfStat("fstat", descriptor, nullptr, result), [&] { return ::fstat(descriptor, &result); });
}

int Stat(const char* path, struct stat& result)
{
    return Observed(OfStat("stat", -1, path, result), [&] { return ::stat(path, &result); });
}

int StatAt(int folder, const char* name, struct stat& result)
{
    return Observed(OfStat("fstatat", folder, name, result), [&] { return ::fstatat(folder, name, &result, 0); });
}

int LStat(const char* path, struct stat& result)
{
    return Observed(OfStat("lstat", -1, path, result), [&] { return ::lstat(path, &result); });
}

int LStatAt(int folder, const char* name, struct stat& result)
{
    return Observed(OfStat("fstatat", folder, name, result),
                    [&] { return ::fstatat(folder, name, &result, AT_SYMLINK_NOFOLLOW); });
}

bool MayExecute(const char* path)
{
    return Observed(OfPath("access", path), [&] { return ::access(path, X_OK); }) == 0;
}

bool IsTerminal(int descriptor)
{
    const KeepError keep;
    return ::isatty(descriptor) == 1;
}

bool IsNullDevice(int descriptor)
{
    const KeepError keep;
    struct stat open, null;
    if (::fstat(descriptor, &open) != 0)
        return false;
    return S_ISDIR(open.st_mode)
           || (S_ISCHR(open.st_mode) && ::stat("/dev/null", &null) == 0 && open.st_rdev == null.st_rdev
               && S_ISCHR(null.st_mode));
}

// --- reading and writing

ssize_t Read(int descriptor, void* data, std::size_t size)
{
    return Observed({"read", descriptor, nullptr, nullptr, nullptr, &size, nullptr},
                    [&] { return ::read(descriptor, data, size); });
}

ssize_t Write(int descriptor, const void* data, std::size_t size)
{
    return Observed({"write", descriptor, nullptr, nullptr, data, &size, nullptr},
                    [&] { return ::write(descriptor, data, size); });
}

ssize_t PReadFull(int descriptor, void* data, std::size_t size, off_t offset)
{
    std::size_t done = 0;
    while (done < size) {
        char* const place = static_cast<char*>(data) + done;
        std::size_t wanted = size - done;
        const ssize_t count = Observed({"pread", descriptor, nullptr, nullptr, nullptr, &wanted, nullptr}, [&] {
            return ::pread(descriptor, place, wanted, offset + static_cast<off_t>(done));
        });
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

bool ReadToEnd(int descriptor, std::string& text)
{
    char chunk[65536];
    for (;;) {
        const ssize_t got = Read(descriptor, chunk, sizeof chunk);
        if (got <= 0)
            return got == 0;
        text.append(chunk, static_cast<std::size_t>(got));
    }
}

bool WriteAll(int descriptor, const void* data, std::size_t size)
{
    return WriteWhole([descriptor](const char* at, std::size_t rest) { return Write(descriptor, at, rest); }, data,
                      size);
}

bool WriteBestEffort(int descriptor, const char* data, std::size_t size)
{
    const KeepError keep;
    const auto write = [descriptor](const char* at, std::size_t rest) {
        return Retried([&] { return ::write(descriptor, at, rest); });
    };
    return WriteWhole(write, data, size);
}

off_t FilePosition(int descriptor)
{
    return Observed(OfDescriptor("lseek", descriptor), [&] { return ::lseek(descriptor, 0, SEEK_CUR); });
}

int FTruncate(int descriptor, off_t size)
{
    return Observed(OfDescriptor("ftruncate", descriptor), [&] { return ::ftruncate(descriptor, size); });
}

// --- names, modes, times

int FChmod(int descriptor, mode_t mode)
{
    return Observed(OfDescriptor("fchmod", descriptor), [&] { return ::fchmod(descriptor, mode); });
}

int FChownToGroup(int descriptor, gid_t group)
{
    return Observed(OfDescriptor("fchown", descriptor),
                    [&] { return ::fchown(descriptor, static_cast<uid_t>(-1), group); });
}

int ChmodAt(int folder, const char* name, mode_t mode)
{
    // The C library of Linux needs /proc to do this without following a link.
    const bool done = Observed(OfDescriptor("fchmodat", folder, name),
                               [&] { return ::fchmodat(folder, name, mode, AT_SYMLINK_NOFOLLOW); })
                      == 0;
    if (done || (errno != EOPNOTSUPP && errno != ENOSYS))
        return done ? 0 : -1;
    const Descriptor opened(OpenAt(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    return opened ? FChmod(opened.Get(), mode) : -1;
}

int ChmodTargetAt(int folder, const char* name, mode_t mode)
{
    return Observed(OfDescriptor("fchmodat", folder, name), [&] { return ::fchmodat(folder, name, mode, 0); });
}

int Rename(const char* from, const char* to)
{
    return Observed(OfPath("rename", from, to), [&] { return std::rename(from, to); });
}

int RenameAt(int folder, const char* name, int newFolder, const char* newName)
{
    return Observed(OfDescriptor("renameat", folder, name, newName),
                    [&] { return ::renameat(folder, name, newFolder, newName); });
}

int Link(const char* path, const char* newPath)
{
    return Observed(OfPath("link", path, newPath), [&] { return ::link(path, newPath); });
}

int Unlink(const char* path)
{
    return Observed(OfPath("unlink", path), [&] { return ::unlink(path); });
}

int UnlinkAt(int folder, const char* name)
{
    return Observed(OfDescriptor("unlinkat", folder, name), [&] { return ::unlinkat(folder, name, 0); });
}

int TouchFile(int descriptor)
{
    return Observed(OfDescriptor("futimens", descriptor), [&] { return ::futimens(descriptor, nullptr); });
}

// --- stable storage

int FSync(int descriptor)
{
    return Observed(OfDescriptor("fsync", descriptor), [&] { return ::fsync(descriptor); });
}

} // namespace VexCore::os
