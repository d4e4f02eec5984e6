#include "vex_core/os/log_calls.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

bool ReplaceDescriptor(int from, int descriptor)
{
    while (::dup2(from, descriptor) < 0)
        if (errno != EINTR && errno != EBUSY)
            return false;
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    ::close(from);
    return true;
}

off_t FilePosition(int descriptor)
{
    return ::lseek(descriptor, 0, SEEK_CUR);
}

bool IsTerminal(int descriptor)
{
    const int error = errno;
    const bool result = ::isatty(descriptor) == 1;
    errno = error;
    return result;
}

void WriteBestEffort(int descriptor, const char* data, std::size_t size)
{
    const int error = errno;
    while (size > 0) {
        const ssize_t count = ::write(descriptor, data, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    errno = error;
}

} // namespace VexCore::os
