#pragma once
// Running helper programs.

#include "vex/core/export.h"

class wxArrayString;
class wxString;

namespace VexCore {

/// Runs `program` without a shell and waits for its end. `output` gets what it wrote to standard output and error, cut
/// at 16 MiB. True: it ran; `exitCode` is its own, or 128 and the signal's number when a signal ended it, and a code
/// other than 0 is one warning in the log. False: it could not be started, or its time limit ended it; `error` says why
/// in one line. The program starts with default signal dispositions, an empty mask, standard input on /dev/null and no
/// other descriptor of ours. Any thread; blocks it for as long as the program runs.
VEX_CORE_API bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode,
                          wxString& error);

/// The same with a time limit in milliseconds (0: none), after which the program's process group is killed.
VEX_CORE_API bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode,
                          wxString& error, long timeoutMs);

} // namespace VexCore
