#pragma once
// What the system says about files by name, and about this process's limits and user. On failure: -1 and errno.

#include <cstddef>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore {
namespace os {

/// Of the file that the path leads to: symbolic links are followed.
int Stat(const char* path, struct stat& result);
/// Of the name itself: a symbolic link is not followed.
int LStat(const char* path, struct stat& result);
/// Whether this process may run the file; links are followed.
bool MayExecute(const char* path);
/// Sets the time of last change of an open file to now.
int TouchFile(int descriptor);
/// How many descriptors this process may have open.
std::size_t OpenFileLimit();
uid_t EffectiveUser();
pid_t ProcessId();

} // namespace os
} // namespace VexCore
