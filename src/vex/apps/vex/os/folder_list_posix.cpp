#include "vex/apps/vex/os/folder_list.h"

#include <cstring>
#include <memory>

#include <dirent.h>

namespace VexOs {

void ListFolder(const char* path, const NameVisitor& visit)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path), ::closedir);
    if (!folder)
        return;
    while (const struct dirent* const entry = ::readdir(folder.get()))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            visit(entry->d_name, IsRegular(*entry));
}

} // namespace VexOs
