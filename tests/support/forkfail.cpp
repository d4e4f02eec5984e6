// Preloaded into a starting daemon: the n-th fork of the whole start, counted across processes, fails with EAGAIN.
// VEX_FAIL_FORK is n. A forked process inherits the count so far, and each process of a start forks once at most before
// the next one does, so the count is the depth.

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/types.h>

namespace {
int g_forks = 0;
}

extern "C" __attribute__((visibility("default"))) pid_t fork()
{
    using Fork = pid_t (*)();
    static const Fork next = reinterpret_cast<Fork>(dlsym(RTLD_NEXT, "fork"));
    const char* which = std::getenv("VEX_FAIL_FORK");
    ++g_forks;
    if (which && std::atoi(which) == g_forks) {
        errno = EAGAIN;
        return -1;
    }
    return next();
}
