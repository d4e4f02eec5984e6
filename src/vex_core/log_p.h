#pragma once
// The core library's own way into the disk log. Not part of the interface.

#include <wx/log.h>

namespace VexCore {

/// Writes one line past the framework's level, as trace lines and Lua's "debug" lines go: the background child, whose level
/// stays low, keeps them. Shown on a terminal like any other. Any thread; the line is in the file when the call returns.
void WriteLogLine(wxLogLevel level, const wxString& text);

/// The descriptor of the open log file, -1 while there is none: for the crash handler, which may only write to it. The number
/// stays the same when the file is rotated. Async-signal-safe.
int LogFileDescriptor();

} // namespace VexCore
