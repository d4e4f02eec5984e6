#include "vex_core/os/exit.h"

#include <unistd.h>

void VexCore::os::EndProcessNow(int status)
{
    ::_exit(status);
}

bool VexCore::os::TryLockStream(std::FILE* stream)
{
    return ::ftrylockfile(stream) == 0;
}

void VexCore::os::UnlockStream(std::FILE* stream)
{
    ::funlockfile(stream);
}
