#include "vex_core/os/exit.h"

#include <unistd.h>

void VexCore::EndProcessNow(int status)
{
    ::_exit(status);
}

bool VexCore::TryLockStream(std::FILE* stream)
{
    return ::ftrylockfile(stream) == 0;
}

void VexCore::UnlockStream(std::FILE* stream)
{
    ::funlockfile(stream);
}
