#include "vex_core/os/exit.h"

#include <unistd.h>

void VexCore::os::EndProcessNow(int status)
{
    ::_exit(status);
}

void VexCore::os::FlushIfFree(std::FILE* stream)
{
    if (::ftrylockfile(stream) != 0)
        return;
    std::fflush(stream);
    ::funlockfile(stream);
}
