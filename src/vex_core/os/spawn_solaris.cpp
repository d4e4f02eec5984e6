#include "vex_core/os/spawn.h"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

void CloseFrom(int first)
{
    closefrom(first);
}

bool OpenPipe(int (&ends)[2])
{
    int made[2];
    if (pipe(made) != 0)
        return false;
    ends[0] = RaiseDescriptor(made[0]); // sets close-on-exec
    ends[1] = RaiseDescriptor(made[1]);
    if (ends[0] >= 0 && ends[1] >= 0)
        return true;
    if (ends[0] >= 0)
        close(ends[0]);
    if (ends[1] >= 0)
        close(ends[1]);
    return false;
}

} // namespace VexCore::os
