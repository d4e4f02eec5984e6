#pragma once
// Folders: opening, making and listing them without following a symbolic link. Failures as in files.h.

#include <functional>
#include <string>

#include <sys/types.h>

namespace VexCore::os {

/// Opens a folder that is `name` in `folder`. Fails with ELOOP or ENOTDIR for a symbolic link, with ENOTDIR for
/// anything else that is no folder; never blocks on one.
int OpenFolderAt(int folder, const char* name);

/// Opens a folder as a place to go on from, for which the right to search it is enough: what is opened can be asked and
/// be the folder of other calls, and perhaps no more. `follow`: through a symbolic link, too.
int EnterFolderAt(int folder, const char* name, bool follow);
/// The same for one that cannot be read. `noFollow` is O_NOFOLLOW or 0.
int OpenToSearchAt(int folder, const char* name, int noFollow);

int MkdirAt(int folder, const char* name, mode_t mode);
/// Makes a folder and its missing parents, each with mode 0700. A folder that is there already is fine.
bool MakePrivateFolders(const std::string& path);

/// Gets a name in a folder, which is its own only during the call. False: no further ones are wanted.
using NameVisitor = std::function<bool(const char* name)>;

/// Shows `visit` the names in a folder, without "." and "..".
int ListFolder(int folder, const NameVisitor& visit);
/// The same for the folder that the path leads to, also through a symbolic link.
int ListFolder(const char* path, const NameVisitor& visit);

/// The process's current folder. False with the error.
bool CurrentFolder(std::string& path);

} // namespace VexCore::os
