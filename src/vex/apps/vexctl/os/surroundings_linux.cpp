#include "vex/apps/vexctl/os/surroundings.h"

#include <climits>

#include <unistd.h>

namespace Vexctl::os {

std::string ExecutableFolder()
{
    char path[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
    if (size <= 0)
        return std::string();
    const std::string whole(path, static_cast<std::size_t>(size));
    return whole.substr(0, whole.rfind('/'));
}

} // namespace Vexctl::os
