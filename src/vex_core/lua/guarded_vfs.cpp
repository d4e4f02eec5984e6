#include "vex_core/lua/guarded_vfs.h"

#include "vex_core/database/sqlite_connection.h"
#include "vex_core/domain/work_folder.h"

#include <cstring>
#include <exception>

#include <sqlite3.h>

namespace VexCore {
namespace {
// SQLite asks for the whole path of each database that has a name, and then opens what it was told.
int FindFile(sqlite3_vfs*, const char* name, int size, char* path)
{
    try {
        std::optional<os::GuardedPlace> place = PlaceInWorkFolder(name);
        if (!place) {
            sqlite3_vfs* const own = sqlite3_vfs_find(nullptr);
            const int result = own->xFullPathname(own, name, size, path);
            return result == SQLITE_OK_SYMLINK ? SQLITE_OK : result; // its links are the operator's
        }
        if (!SqliteConnection::Settle(*place)) {
            WarnOfBreach(*place);
            return SQLITE_CANTOPEN;
        }
        const std::string real = place->RealPath();
        if (real.size() >= static_cast<std::size_t>(size))
            return SQLITE_CANTOPEN;
        std::memcpy(path, real.c_str(), real.size() + 1);
        return SQLITE_OK;
    } catch (const std::exception&) {
        return SQLITE_NOMEM;
    }
}

sqlite3_vfs MakeVfs()
{
    sqlite3_vfs vfs = *sqlite3_vfs_find(nullptr);
    vfs.zName = "vex";
    vfs.pNext = nullptr;
    vfs.xFullPathname = FindFile;
    return vfs;
}

} // namespace

const char* GuardedVfs()
{
    static sqlite3_vfs s_vfs = MakeVfs();
    static const int s_registered = sqlite3_vfs_register(&s_vfs, 0);
    return s_registered == SQLITE_OK ? s_vfs.zName : nullptr;
}

} // namespace VexCore
