#include "vex_core/lua/guarded_vfs.h"

#include "vex_core/database/sqlite_connection.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/guarded_place.h"

#include <cstring>
#include <exception>

#include <fcntl.h>

#include <sqlite3.h>

namespace VexCore {
namespace {
// What was SQLite's default when the way was made: another may be by now.
sqlite3_vfs* Own()
{
    static sqlite3_vfs* const s_own = sqlite3_vfs_find(nullptr);
    return s_own;
}

int FollowLinks(const char* name, int size, char* path)
{
    const int result = Own()->xFullPathname(Own(), name, size, path);
    return result == SQLITE_OK_SYMLINK ? SQLITE_OK : result;
}

// Tells the path of the file, when it keeps to the rule.
int TellPath(os::GuardedPlace& place, int size, char* path)
{
    if (!SqliteConnection::Settle(place)) {
        WarnOfBreach(place);
        return SQLITE_CANTOPEN;
    }
    const std::string real = place.RealPath();
    if (real.size() >= static_cast<std::size_t>(size))
        return SQLITE_CANTOPEN;
    std::memcpy(path, real.c_str(), real.size() + 1);
    return SQLITE_OK;
}

// SQLite asks for the whole path of each database that has a name, and then opens what it was told. The way to the work
// folder may begin with links and ".." elsewhere, which are the operator's: first those of the file's folder are
// followed, then its own.
int FindFile(sqlite3_vfs*, const char* name, int size, char* path)
{
    try {
        if (auto place = PlaceInWorkFolder(name))
            return TellPath(*place, size, path);
        const std::string whole = name;
        const std::size_t slash = whole.rfind('/');
        if (slash != std::string::npos && FollowLinks(whole.substr(0, slash + 1).c_str(), size, path) == SQLITE_OK)
            if (auto place = PlaceInWorkFolder(path + whole.substr(slash)))
                return TellPath(*place, size, path);
        const int result = FollowLinks(name, size, path);
        auto place = result == SQLITE_OK ? PlaceInWorkFolder(path) : std::nullopt;
        return place ? TellPath(*place, size, path) : result;
    } catch (const std::exception&) {
        return SQLITE_NOMEM;
    }
}

// The journal of a transaction in several databases is no database's own, and SQLite would let all read it.
int OpenFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* flagsOut)
{
    file->pMethods = nullptr; // nothing to be closed when it fails
    try {
        if ((flags & SQLITE_OPEN_SUPER_JOURNAL) != 0 && PlaceInWorkFolder(name)) {
            if (!os::GuardedPlace(name).OpenFile(O_RDWR | O_CREAT | O_EXCL))
                return SQLITE_CANTOPEN;
            flags &= ~SQLITE_OPEN_EXCLUSIVE;
        }
    } catch (const std::exception&) {
        return SQLITE_NOMEM;
    }
    return Own()->xOpen(Own(), name, file, flags, flagsOut);
}

sqlite3_vfs MakeVfs(const char* name)
{
    sqlite3_vfs vfs = Own() ? *Own() : sqlite3_vfs();
    vfs.zName = name;
    vfs.pNext = nullptr;
    vfs.xFullPathname = FindFile;
    vfs.xOpen = OpenFile;
    return vfs;
}

} // namespace

const char* GuardedVfs()
{
    static constexpr char name[] = "vex";
    static sqlite3_vfs s_vfs = MakeVfs(name);
    // A name that SQLite did not take opens nothing.
    static const int s_registered = Own() ? sqlite3_vfs_register(&s_vfs, 0) : SQLITE_ERROR;
    static_cast<void>(s_registered);
    return name;
}

} // namespace VexCore
