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
    return pipe(made) == 0 && RaisePipe(made, ends); // which sets close-on-exec
}

} // namespace VexCore::os
