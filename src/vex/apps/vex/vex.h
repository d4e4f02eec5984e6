#pragma once
// The launcher: one application object told in chapters, a file each. The sections below are named after the files and
// stand in their order.

#include "vex/core/runnable.h"

#include <string>

#include <wx/app.h>
#include <wx/apptrait.h>
#include <wx/cmdline.h>
#include <wx/datetime.h>
#include <wx/filename.h>
#include <wx/intl.h>

struct lua_State;
class wxInputStream;
class wxOutputStream;
class wxZipEntry;

namespace VexCore {
class CDom;
class CLuaInterpreter;
} // namespace VexCore

class CAgentAppTraits : public wxConsoleAppTraits
{
public:
    ~CAgentAppTraits() override;
    /// The core library's disk log; the framework owns it.
    wxLog* CreateLogTarget() override;
};

/// The thread that runs all Lua code, and all plugin and archive work.
class CScriptThread : public VexCore::CRunnable
{
public:
    CScriptThread();
    ~CScriptThread() override;
    const char* GetThreadName() const override;

protected:
    void OnRun() override;
};

class CAgentApp : public wxAppConsole
{
public:
    // --- vex.cpp: construction and start-up; main thread
    CAgentApp();
    ~CAgentApp() override; // shutdown.cpp
    bool OnInit() override;
    int OnRun() override; // daemon.cpp
    int OnExit() override; // shutdown.cpp
    void OnInitCmdLine(wxCmdLineParser& parser) override; // cmdline.cpp
    bool OnCmdLineParsed(wxCmdLineParser& parser) override; // settings.cpp
    void OnUnhandledException() override; // shutdown.cpp
    wxAppTraits* CreateTraits() override;

    /// Process-wide library start-up. The first call does it, later ones return at once.
    static void StartupInit();

    // --- run.cpp: the run sequence; script thread unless it says otherwise
    /// Starts the script thread, runs the main loop until the status is handed back, joins, cleans up and ends the
    /// process with the status. Main thread. Never returns.
    [[noreturn]] void RunScriptThread();
    /// The whole sequence; its result is the script's status:
    /// 0 success, else a Lua failure status or what Lua returned.
    int OnRunScript();
    int RunAppInit();
    int RunAppInteractively();

    // --- plugins.cpp: packages beside the executable; script thread
    static bool CheckVXPVersion(const wxFileName& file);
    void InstallNewPlugins();
    void UninstallOldPlugins();
    bool InstallPluginZipCB(const wxZipEntry* entry);
    static bool InstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* destination);
    bool UninstallPluginZipCB(const wxZipEntry* entry, const wxString* destination);
    static bool UninstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* destination);

    // --- zippath.cpp: the list of Lua archives; script thread
    void ExpandZippath();
    static bool ExtensionVersionIsOK(const wxString& archive);

    // --- luahost.cpp, unittest.cpp: what runs in the interpreter; script thread
    static int SetupLua(lua_State* L);
    int SetupLua();
    int RunChunk(wxInputStream& in, wxOutputStream& out, const wxString& name);
    int RunCodeSnippet(const wxString& code);
    int RunAppMethod(const wchar_t* method);
    int RunAppMain();
    int RunAppShutdown();
    int RunUnitTests();
    /// The state of `m_lua`, which must exist.
    lua_State* L() const;

    // --- shutdown.cpp
    /// Process-wide clean-up. The first call does it, later ones return at once. One thread a process calls it.
    static void TerminationCleanup();

    /// The launcher's trace module.
    static const char* const s_Trace;

private:
    friend struct AgentAppTestAccess; // the unit tests' way to the members
    friend class CScriptThread;

    // Set before the script thread starts, by the main thread; read by both.
    bool m_reserved = false; // kept for layout, never used
    bool m_installPlugins = false; // settings.cpp; read by run.cpp
    bool m_defaultName = false; // settings.cpp: the name is "vx_agent"; read by vex.cpp, run.cpp, shutdown.cpp
    bool m_background = false; // settings.cpp; read by daemon.cpp, run.cpp
    wxString m_extDir; // settings.cpp; read by zippath.cpp
    wxLocale m_locale; // constructor
    VexCore::CDom* m_dom = nullptr; // constructor; owned, released by the destructor
    // Set by the script thread; deleted by the destructor.
    VexCore::CLuaInterpreter* m_lua = nullptr; // run.cpp; used by luahost.cpp, unittest.cpp
    // Set before the script thread starts.
    wxDateTime m_startTime; // constructor; read by shutdown.cpp
    wxString m_unitTestScript; // settings.cpp; read by run.cpp, unittest.cpp
    wxString m_zipPath; // settings.cpp; read and emptied by zippath.cpp
    wxString m_reservedText; // kept for layout, never used
};

wxDECLARE_APP(CAgentApp);
