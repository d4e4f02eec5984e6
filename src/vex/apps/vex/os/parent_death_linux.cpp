// The kernel sends the signal itself when the thread that forked us ends; the supervisor has one thread.

#include "vex/apps/vex/os/process.h"

#include <sys/prctl.h>
#include <unistd.h>

namespace VexOs {

void PrepareToBeFollowed() {}

bool FollowParent(pid_t parent)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    // It may have ended before the line above.
    return ::getppid() == parent;
}

} // namespace VexOs
