#include "vex_core/os/folders.h"

#include "vex_core/os/files.h"

#include <fcntl.h>

namespace VexCore::os {

int OpenToSearchAt(int folder, const char* name, int noFollow)
{
    return OpenAt(folder, name, O_SEARCH | noFollow);
}

} // namespace VexCore::os
