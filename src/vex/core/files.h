#pragma once
// Access rights of files and folders.

#include "vex/core/export.h"

class wxString;

namespace VexCore {

/// Leaves only the owner's rights: 0700 for a folder, 0600 for a file; with `recurse` for everything below it too.
/// Symbolic links are refused, not followed. False, after one log line, when something could
/// not be changed. Any thread.
VEX_CORE_API bool SecureFileOrDirectory(const wxString& path, bool recurse);

/// Whether what the file says may be believed: neither it nor the folder that it lies in is another user's or can be
/// written by one, it has one name, and a symbolic link to it is ours or root's. One that is not there may be. False,
/// after a log line that says what to do, one for each reason in the life of the process. Any thread.
VEX_CORE_API bool MayBelieveFile(const wxString& path);

} // namespace VexCore
