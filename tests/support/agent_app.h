#pragma once
// An application object for one test, made and destroyed as the framework would, and the way to its members.

#include "support/fake_core.h"
#include "support/process_guards.h"

#include "vex/apps/vex/vex.h"
#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"

#include <memory>
#include <string>
#include <vector>

#include <wx/app.h>
#include <wx/confbase.h>

/// The launcher's tests see its members through this and nothing else.
struct AgentAppTestAccess
{
    static bool& InstallPlugins(CAgentApp& app) { return app.m_installPlugins; }
    static bool& DefaultName(CAgentApp& app) { return app.m_defaultName; }
    static bool& Background(CAgentApp& app) { return app.m_background; }
    static wxString& ExtDir(CAgentApp& app) { return app.m_extDir; }
    static wxString& ZipPath(CAgentApp& app) { return app.m_zipPath; }
    static wxString& UnitTestScript(CAgentApp& app) { return app.m_unitTestScript; }
    static wxDateTime& StartTime(CAgentApp& app) { return app.m_startTime; }
    static VexCore::CDom*& Dom(CAgentApp& app) { return app.m_dom; }
    static VexCore::CLuaInterpreter*& Lua(CAgentApp& app) { return app.m_lua; }
};

/// Makes the process's one application with the given arguments and puts the framework's state back afterwards. The
/// fake core starts empty; what the constructor wrote is in its journal.
class AgentApp
{
public:
    /// The first argument is the program, as it was typed.
    explicit AgentApp(const std::vector<std::string>& arguments = {"/fake/bin/vx_agent"})
        : m_previous(wxApp::GetInstance())
    {
        m_app.reset(new CAgentApp);
        SetArguments(arguments);
    }
    ~AgentApp()
    {
        m_app.reset();
        delete wxConfigBase::Set(nullptr);
        wxApp::SetInstance(m_previous);
    }
    AgentApp(const AgentApp&) = delete;
    AgentApp& operator=(const AgentApp&) = delete;

    void SetArguments(const std::vector<std::string>& arguments)
    {
        std::vector<wxString> texts;
        std::vector<const wchar_t*> pointers;
        for (const std::string& argument : arguments)
            texts.push_back(wxString::FromUTF8(argument));
        for (const wxString& text : texts)
            pointers.push_back(text.wc_str());
        m_app->argc = static_cast<int>(pointers.size());
        m_app->argv.Init(m_app->argc, pointers.data());
    }

    CAgentApp* operator->() { return m_app.get(); }
    CAgentApp& operator*() { return *m_app; }
    /// Destroys the application object now.
    void Destroy() { m_app.reset(); }

    VexCore::CDom& Dom() { return *AgentAppTestAccess::Dom(*m_app); }

private:
    wxAppConsole* m_previous;
    const Test::LogGuard m_log;
    std::unique_ptr<CAgentApp> m_app;
};
