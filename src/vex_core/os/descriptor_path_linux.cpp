#include "vex_core/os/descriptor_path.h"

#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"

namespace VexCore::os {

std::string PathThroughDescriptor(int folder)
{
    const std::string path = "/proc/self/fd/" + std::to_string(folder);
    struct stat held = {}, found = {};
    const bool leadsThere =
        FStat(folder, held) == 0 && Stat(path.c_str(), found) == 0 && IdentityOf(held).IsFileOf(found);
    return leadsThere ? path : std::string();
}

} // namespace VexCore::os
