#include "vex/apps/vex/os/files.h"

#include "vex/apps/vex/os/error.h"

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace VexOs {

std::string CurrentFolder()
{
    std::string path(4096, '\0');
    while (!::getcwd(path.data(), path.size())) {
        if (LastError() != ERANGE)
            return std::string();
        path.resize(2 * path.size());
    }
    return path.c_str();
}

bool IsReadable(const char* path)
{
    return ::access(path, R_OK) == 0;
}

bool RenameFile(const char* from, const char* to)
{
    return std::rename(from, to) == 0;
}

} // namespace VexOs
