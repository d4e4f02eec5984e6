#pragma once
// The names in a folder. Any thread.

#include <functional>

struct dirent;

namespace VexOs {

/// Gets a name in a folder, which is its own only during the call. `isRegular`: the listing tells that it is a regular
/// file; else it may be anything, a folder too.
using NameVisitor = std::function<void(const char* name, bool isRegular)>;

/// Shows `visit` the names in the folder, without "." and "..", as far as it can be listed. `path` is in the bytes that
/// the system has. What `visit` throws passes through.
void ListFolder(const char* path, const NameVisitor& visit);

/// For this folder only: what the entry tells without a further call.
bool IsRegular(const struct dirent& entry);

} // namespace VexOs
