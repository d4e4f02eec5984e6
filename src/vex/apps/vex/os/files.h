#pragma once
// The launcher's own calls for files. Those that fail leave the reason in error.h. Any thread.

#include <string>

namespace VexOs {

/// In the bytes that the system has; empty when it is gone.
std::string CurrentFolder();

/// Whether the real user of the process may read it; links are followed.
bool IsReadable(const char* path);

/// In one step, over a file of the new name.
bool RenameFile(const char* from, const char* to);

} // namespace VexOs
