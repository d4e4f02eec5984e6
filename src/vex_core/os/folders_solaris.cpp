#include "vex_core/os/folders.h"

#include "vex_core/os/files.h"

#include <fcntl.h>

namespace VexCore::os {

int OpenToSearchAt(int folder, const char* name, int noFollow)
{
    int flags = O_SEARCH | O_NONBLOCK | O_NOCTTY | noFollow; // what is there may be a FIFO, and must not hold us
#ifdef O_DIRECTORY
    flags |= O_DIRECTORY;
#endif
    return OpenAt(folder, name, flags);
}

} // namespace VexCore::os
