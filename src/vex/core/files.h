#pragma once
// Access rights of files and folders.

#include "vex/core/export.h"

class wxString;

namespace VexCore {

/// Leaves only the owner's rights: 0700 for a folder, 0600 for a file; with `recurse` for everything below it too.
/// Symbolic links are refused, not followed. False, after one log line, when something could
/// not be changed. Any thread.
VEX_CORE_API bool SecureFileOrDirectory(const wxString& path, bool recurse);

} // namespace VexCore
