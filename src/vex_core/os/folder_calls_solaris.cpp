#include "vex_core/os/folder_calls.h"

namespace VexCore::os {

int StartWriteback(int)
{
    return 0; // there is no such call; the flush that follows does the whole work
}

} // namespace VexCore::os
