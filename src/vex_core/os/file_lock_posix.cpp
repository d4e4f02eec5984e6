#include "vex_core/os/file_lock.h"

#include "vex_core/os/observed.h"

#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

int TryLock(int descriptor)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return Observed(OfDescriptor("fcntl", descriptor), [&] {
        const int result = ::fcntl(descriptor, F_SETLK, &lock);
        if (result != 0 && errno == EACCES)
            errno = EAGAIN; // systems differ
        return result;
    });
}

// A lock that waits has no time limit, and another process may hold it for ever: so it is asked for again and
// again.
bool LockFile(int descriptor, long timeoutMs)
{
    constexpr long stepMs = 5;
    for (long waitedMs = 0;; waitedMs += stepMs) {
        if (TryLock(descriptor) == 0)
            return true;
        if (errno != EAGAIN || waitedMs >= timeoutMs)
            return false;
        const struct timespec step = {0, stepMs * 1000000L};
        ::nanosleep(&step, nullptr);
    }
}

} // namespace VexCore::os
