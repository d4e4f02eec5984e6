#pragma once
// The calls with which archives are read and unpacked: positioned reads, and everything relative to an open folder, so
// that no symbolic link is ever followed. Tests can see each call, make any of them fail, or end the process right before
// one. Each function does what the call of that name does, tries again after EINTR, and keeps descriptors from children.
// On failure: -1 and errno.

#include <cstddef>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore::os {

/// One call about to be made. `path` and `newPath` are null where the call has none.
struct Call
{
    const char* name;
    int descriptor; ///< the file or the folder that the path is relative to; -1 for none
    const char* path;
    const char* newPath;
};

/// Sees each call before it is made: 0 lets it happen, anything else is the errno with which it fails unmade. Called on
/// the thread that makes the call.
using CallObserver = int (*)(const Call& call);

/// For tests. Null, the normal state, costs one relaxed atomic load a call. Returns the one before.
CallObserver SetCallObserver(CallObserver observer);

/// `flags` as for open; O_CLOEXEC is added.
int Open(const char* path, int flags);
int OpenAt(int folder, const char* name, int flags, mode_t mode = 0);
/// Opens a folder that is `name` in `folder`. Fails with ELOOP or ENOTDIR for a symbolic link, with ENOTDIR for anything
/// else that is no folder; never blocks on one.
int OpenFolderAt(int folder, const char* name);
/// Gives a descriptor back; keeps errno.
void Close(int descriptor);
/// The same for a file that was written, where some file systems report a failed write as late as here.
int CloseWritten(int descriptor);

int FStat(int descriptor, struct stat& result);
/// Of the name itself: a symbolic link is not followed.
int LStatAt(int folder, const char* name, struct stat& result);
/// Of what the name leads to.
int StatAt(int folder, const char* name, struct stat& result);

/// Reads until `size` bytes are there or the file ends: a short count is the end of the file.
ssize_t PReadFull(int descriptor, void* data, std::size_t size, off_t offset);
/// Writes all of it or fails.
int WriteFull(int descriptor, const void* data, std::size_t size);

int MkdirAt(int folder, const char* name, mode_t mode);
int FChmod(int descriptor, mode_t mode);
/// Of the name itself: fails for a symbolic link.
int ChmodAt(int folder, const char* name, mode_t mode);
int RenameAt(int folder, const char* name, int newFolder, const char* newName);
/// Removes a name that is no folder.
int UnlinkAt(int folder, const char* name);

/// Puts a file's data and size, or a folder's names, on stable storage.
int FSync(int descriptor);
/// Starts to write a file's data to storage without waiting for it, so that a later flush has less to do. Succeeds without
/// doing anything where that does not exist.
int StartWriteback(int descriptor);
/// Puts all of the file system that holds `descriptor` on stable storage. Fails with ENOTSUP where there is no such call or it
/// does not report failed writes: then each file is to be flushed for itself.
int SyncFileSystem(int descriptor);

/// The names in a folder without "." and "..": calls `visit` for each until it answers false.
int ListFolder(int folder, bool (*visit)(void* context, const char* name), void* context);

/// Text of an errno value. Any thread.
std::string ErrorText(int error);

} // namespace VexCore::os
