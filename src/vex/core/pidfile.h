#pragma once
// Pid files. Format: docs/FORMATS.md, "Pid file and its lock".

#include "vex/core/export.h"

class wxString;

namespace VexCore {

/// Returns the process id kept in the file. 0 means "nobody": no file, no usable id, or an id that now
/// belongs to a process started at another time. The caller treats all three alike, so they are not told
/// apart. Any thread. Never logs.
VEX_CORE_API long ReadPidFile(const wxString& path);

/// Writes the calling process's id and start time, to a temporary name first and then in one step to `path`, mode 0644.
/// False, after an error line in the log, when that failed. Any thread.
VEX_CORE_API bool WritePidFile(const wxString& path);

} // namespace VexCore
