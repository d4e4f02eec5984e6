#include "vex/apps/vexctl/os/surroundings.h"

#include <climits>
#include <cstdlib>

#include <stdlib.h>

namespace Vexctl::os {

std::string ExecutableFolder()
{
    const char* const name =
        ::getexecname(); // relative to the folder in which the process began, and that is ours still
    char path[PATH_MAX];
    if (!name || !::realpath(name, path))
        return std::string();
    const std::string whole(path);
    return whole.substr(0, whole.rfind('/'));
}

} // namespace Vexctl::os
