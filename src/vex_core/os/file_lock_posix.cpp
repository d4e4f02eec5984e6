#include "vex_core/os/file_lock.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

// A lock that waits has no time limit, and another process may hold it for ever: so it is asked for again and
// again.
bool VexCore::os::LockFile(int descriptor, long timeoutMs)
{
    constexpr long stepMs = 5;
    for (long waitedMs = 0;; waitedMs += stepMs) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(descriptor, F_SETLK, &lock) == 0)
            return true;
        if ((errno != EAGAIN && errno != EACCES && errno != EINTR) || waitedMs >= timeoutMs)
            return false;
        const struct timespec step = {0, stepMs * 1000000L};
        nanosleep(&step, nullptr);
    }
}
