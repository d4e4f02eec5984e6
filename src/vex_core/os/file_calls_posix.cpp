#include "vex_core/os/file_calls.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
int CallOpen(const char* path, int flags, mode_t mode)
{
    int descriptor;
    do {
        descriptor = ::open(path, flags | O_CLOEXEC, mode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

ssize_t CallRead(int descriptor, void* buffer, std::size_t size)
{
    ssize_t got;
    do {
        got = ::read(descriptor, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

ssize_t CallWrite(int descriptor, const void* buffer, std::size_t size)
{
    ssize_t written;
    do {
        written = ::write(descriptor, buffer, size);
    } while (written < 0 && errno == EINTR);
    return written;
}

int CallFsync(int descriptor)
{
    int result;
    do {
        result = ::fsync(descriptor);
    } while (result < 0 && errno == EINTR);
    return result;
}

int CallFstat(int descriptor, struct stat* status)
{
    return ::fstat(descriptor, status);
}

int CallStat(const char* path, struct stat* status)
{
    return ::stat(path, status);
}

} // namespace

const FileCalls systemFileCalls = {CallOpen,    ::close,   CallRead, CallWrite, CallFsync, ::fchmod,
                                   ::ftruncate, CallFstat, CallStat, ::rename,  ::unlink};
FileCalls fileCalls = systemFileCalls;

bool WriteAll(int descriptor, const void* data, std::size_t size)
{
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = fileCalls.write(descriptor, at, size);
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            return false;
        }
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace VexCore::os
