#pragma once
// What is left behind by a crash.

#include "vex/core/export.h"

class wxString;

namespace VexCore {

/// On a crash signal, writes a minidump to `dumpFile`, one line in the log and on standard error, and then lets the
/// signal end the process as it would have. `fullDump` adds all readable memory. A dump that is there is kept beside
/// it, with its time in the name. Main thread, before others exist.
/// False when the handler could not be installed.
VEX_CORE_API bool InitCrashHandler(const wxString& dumpFile, const wxString& application, bool fullDump);

} // namespace VexCore
