// What runs in the interpreter: its preparation, chunks, snippets and the application module's functions. Script thread
// only, which owns the Lua state.

#include "vex/apps/vex/narrowtext.h"
#include "vex/apps/vex/standardoutput.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/luainterpreter.h"
#include "vex/core/luastate.h"

#include <cstdint>
#include <exception>
#include <string>

#include <lua.hpp>

#include <wx/log.h>
#include <wx/sstream.h>

namespace {
// The script's arguments: what follows the first "--" at 1, 2 and on, the application's name at 0, and the launcher's
// own arguments below. Without a "--" the name comes after all of them.
void SetArguments(lua_State* L, const wxCmdLineArgsArray& argv, int argc, const wxString& application)
{
    const auto pushText = [L](const wxString& text) {
        const wxScopedCharBuffer bytes = text.utf8_str();
        lua_pushlstring(L, bytes.data(), bytes.length());
    };
    int script = 0;
    while (script < argc && argv[script] != "--")
        ++script;
    luaL_checkstack(L, argc, "too many arguments to script");
    lua_createtable(L, argc, 0);
    for (int i = 0; i < argc; ++i) {
        pushText(i == script ? application : wxString(argv[i]));
        lua_rawseti(L, -2, i - script);
    }
    if (script == argc) {
        pushText(application);
        lua_rawseti(L, -2, 0);
    }
    lua_setglobal(L, "arg");
}

} // namespace

lua_State* CAgentApp::L() const
{
    return m_lua->L();
}

int CAgentApp::SetupLua(lua_State* L)
{
    auto* pThis = static_cast<CAgentApp*>(lua_touserdata(L, lua_upvalueindex(1)));
    wxASSERT(pThis && (L == pThis->L()));
    // Lua's own errors pass; an exception of ours would leave the stack in no known state.
    std::string text;
    try {
        return pThis->SetupLua();
    } catch (const std::exception& exception) {
        text = exception.what();
    }
    lua_pushlstring(L, text.data(), text.size());
    return lua_error(L);
}

int CAgentApp::SetupLua()
{
    lua_State* const state = L();
    luaL_checkversion_(state, 502);
    VexCore::PrepareLuaState(*m_lua, m_dom);
    SetArguments(state, argv, argc, GetAppName());
    return 0;
}

int CAgentApp::RunChunk(wxInputStream& in, wxOutputStream& out, const wxString& name)
{
    VEX_TRACE("RunChunk", "Running chunk '%s'", name);
    int status = m_lua->RunScript(in, 0, 1, name, &out);
    if (status == 0) {
        status = static_cast<std::int32_t>(lua_tointegerx(L(), -1, nullptr));
        lua_settop(L(), -2);
    }
    VEX_TRACE("RunChunk", "Chunk produced a return value of %d", status);
    return status;
}

int CAgentApp::RunCodeSnippet(const wxString& code)
{
    int status = 0;
    {
        StandardOutput out;
        wxStringInputStream in(code);
        status = RunChunk(in, out.Stream(), GetAppName());
    }
    // Also for a status that the code returned on its own, on purpose:
    // then it is the last error's text, or an empty line.
    if (status != 0)
        WriteErrorLine(m_lua->GetErrorInfo());
    return status;
}

int CAgentApp::RunAppMethod(const wchar_t* method)
{
    VEX_TRACE("RunAppMethod", "Running app's Lua method '%s'", method);
    return RunCodeSnippet(wxString::Format(
        "if type(vexAppModule.%1$s) == 'function' then return vexAppModule.%1$s(); else return 0; end;", method));
}

int CAgentApp::RunAppMain()
{
    return RunAppMethod(L"main");
}

int CAgentApp::RunAppShutdown()
{
    return RunAppMethod(L"shutdown");
}
