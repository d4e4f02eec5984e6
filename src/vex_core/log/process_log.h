#pragma once
// The core library's own way into the disk log. Not part of the interface.

#include "vex_core/log/disk_log.h"

#include <cstdint>
#include <string>
#include <string_view>

#include <wx/string.h>

namespace VexCore {

/// Writes one line past the framework, its level and its conversions, as the lines of Lua code go: all are kept, also
/// in the background child, whose level stays low, and bytes stay what they are. Shown on a terminal like any other.
/// Any thread; the line is in the file when the call returns.
void WriteLogLine(LogLevel level, std::string_view text);

/// The same for a trace line; see LogTrace.
void WriteTraceLine(const char* module, const char* sourceFile, int line, const char* function,
                    std::string_view message);

/// How many records of a level this process has logged, with those that its ancestors had when they forked. Any thread.
std::uint64_t LoggedRecords(LogLevel level);

/// Adds the framework's text as bytes of the log: in UTF-8, and what stands for a byte of a file name that is none is
/// that byte again.
void AddLogBytes(std::string& bytes, const wxString& text);

/// The descriptor of the open log file, -1 while there is none: for the crash handler, which may only write to it. The
/// number stays the same when the file is rotated. Async-signal-safe.
int LogFileDescriptor();

/// The facility with which the lines go to syslog(3) too, -1 where they do not. Async-signal-safe.
int LogCopyFacility();

/// Where the file is by the domain's keys of now, whether or not anything was written yet;
/// empty while they are not there.
std::string LogFilePath();

/// Writes what is still held or queued, to standard error what cannot be written to the file. Runs by itself when a
/// process ends by `exit`; whoever ends it in order without that calls it first. Any thread.
void FlushLogAtProcessEnd();

/// For tests: puts another log in the place of the process's own and returns the one before.
/// Null puts the own one back.
DiskLog* ReplaceProcessLog(DiskLog* log);

} // namespace VexCore
