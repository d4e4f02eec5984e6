#include "vex/apps/vex/os/folder_list.h"

#include <dirent.h>

namespace VexOs {

bool IsRegular(const struct dirent& entry)
{
    return entry.d_type == DT_REG;
}

} // namespace VexOs
