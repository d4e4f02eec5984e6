#include "vex/apps/vex/os/folder_list.h"

#include <cstring>

#include <dirent.h>

namespace VexOs {

void ListFolder(const char* path, const NameVisitor& visit)
{
    DIR* const folder = ::opendir(path);
    if (!folder)
        return;
    while (const struct dirent* const entry = ::readdir(folder))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            visit(entry->d_name, IsRegular(*entry));
    ::closedir(folder);
}

} // namespace VexOs
