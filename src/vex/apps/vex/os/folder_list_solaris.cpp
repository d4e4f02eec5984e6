#include "vex/apps/vex/os/folder_list.h"

namespace VexOs {

// An entry of this system has no type.
bool IsRegular(const struct dirent&)
{
    return false;
}

} // namespace VexOs
