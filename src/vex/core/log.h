#pragma once
// Disk log and trace lines.

#include "vex/core/export.h"

#include <wx/log.h>

namespace VexCore {

/// The log target that writes "app.path.work"/"app.name".log of the process's root domain. Targets are light: all of
/// them write through one file of the process. Lines of any thread are in the file when the call returns.
class VEX_CORE_API CLog2Disk : public wxLog
{
public:
    CLog2Disk();
    ~CLog2Disk() override;

    /// Empties the framework's queue of other threads' lines too.
    void Flush() override;

protected:
    void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info) override;
};

/// Whether trace lines of `module` are wanted, by the lists "app.trace" and "app.trace+" of the process's root domain
/// ("*" is every module). For a module that is not it is one relaxed atomic load, and one more for each letter that its
/// name begins with like that of a traced module. Any thread.
///
/// Modules: "Appl" the launcher; "Cmd" programs that are run; "Srvc" the cache of compiled chunks; "vex.Heartbeat" the
/// heartbeat worker; "vex.PluginUtils" the loading of plugins by the bundled application; "vex.ListenThread" nothing of
/// ours, it is kept for applications.
VEX_CORE_API bool LogTraceIsEnabled(const char* module);

/// Writes one trace line, whatever the lists say: callers ask `LogTraceIsEnabled` before they format. `function` is
/// shown without blanks; `sourceFile` as given. Any thread.
VEX_CORE_API void LogTrace(const char* module, const char* sourceFile, int line, const char* function,
                           const wxString& message);

} // namespace VexCore
