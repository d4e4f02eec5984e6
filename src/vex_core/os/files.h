#pragma once
// Files and their names. Each function does what the call of that name does, tries again when a signal interrupts it,
// and keeps descriptors from children; the test hook (call_observer.h) sees each that does not say otherwise. On
// failure -1, or false, and the reason in error.h.

#include "vex_core/os/descriptor.h"

#include <cstddef>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore::os {

// --- opening

/// `flags` as for open; O_CLOEXEC is added.
int Open(const char* path, int flags, mode_t mode = 0);
int OpenAt(int folder, const char* name, int flags, mode_t mode = 0);

// --- what is there

int FStat(int descriptor, struct stat& result);
/// Of what the path leads to.
int Stat(const char* path, struct stat& result);
/// The same, but only device, inode and size are looked up. For who asks before each write: a file at whose times
/// somebody has looked gets new ones from Linux with the next write, which takes twice as long then.
int StatWithoutTimes(const char* path, struct stat& result);
int StatAt(int folder, const char* name, struct stat& result);
/// Of the name itself: a symbolic link is not followed.
int LStat(const char* path, struct stat& result);
int LStatAt(int folder, const char* name, struct stat& result);
/// Whether this process may run the file; links are followed.
bool MayExecute(const char* path);
/// Keeps the last error. Tests do not see it.
bool IsTerminal(int descriptor);
/// Whether what is written there is nowhere: /dev/null, or the folder that a background process has in its place where
/// there is none. Keeps the last error. Tests do not see it.
bool IsNullDevice(int descriptor);

// --- reading and writing

/// One read and one write, which may fall short.
ssize_t Read(int descriptor, void* data, std::size_t size);
ssize_t Write(int descriptor, const void* data, std::size_t size);
/// Reads until `size` bytes are there or the file ends: a short count is the end of the file.
ssize_t PReadFull(int descriptor, void* data, std::size_t size, off_t offset);
/// Adds all from the place where the descriptor is to the end of the file.
bool ReadToEnd(int descriptor, std::string& text);
/// Writes all of it or fails.
[[nodiscard]] bool WriteAll(int descriptor, const void* data, std::size_t size);
/// Writes all of it as far as that works, and answers whether it did; for standard error, where nobody can be told
/// about a failure. Keeps the last error. Tests do not see it: it tells what came of the others.
bool WriteBestEffort(int descriptor, const char* data, std::size_t size);
/// Where the last read or write through `descriptor` ended.
off_t FilePosition(int descriptor);
int FTruncate(int descriptor, off_t size);

// --- names, modes, times

int FChmod(int descriptor, mode_t mode);
/// Gives an open file or folder to another group; its owner stays.
int FChownToGroup(int descriptor, gid_t group);
/// Of the name itself: fails for a symbolic link.
int ChmodAt(int folder, const char* name, mode_t mode);
/// Of what the name leads to, which is not opened: the locks that this process has on it are kept.
int ChmodTargetAt(int folder, const char* name, mode_t mode);
int Rename(const char* from, const char* to);
int RenameAt(int folder, const char* name, int newFolder, const char* newName);
/// Gives a file a second name; fails when there is one of that name.
int Link(const char* path, const char* newPath);
/// Removes a name that is no folder.
int Unlink(const char* path);
int UnlinkAt(int folder, const char* name);
/// Sets the time of last change of an open file to now.
int TouchFile(int descriptor);

// --- stable storage

/// Puts a file's data and size, or a folder's names, on stable storage.
int FSync(int descriptor);
/// Starts to write a file's data to storage without waiting for it, so that a later flush has less to do. Succeeds
/// without doing anything where that does not exist.
int StartWriteback(int descriptor);
/// Puts all of the file system that holds `descriptor` on stable storage. Fails with ENOTSUP where there is no such
/// call or it does not report failed writes: then each file is to be flushed for itself.
int SyncFileSystem(int descriptor);

} // namespace VexCore::os
