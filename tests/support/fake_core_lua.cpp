// The interpreter: a real Lua state, so that tests of the launcher see real Lua, and as little around it as will do. Of
// the domain's methods in Lua there is `Get` alone.

#include "support/fake_core.h"

#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/wrap_dom.h"

#include <atomic>
#include <stdexcept>

#include <lua.hpp>

#include <wx/stream.h>

using FakeCore::Answers;
using FakeCore::Quote;
using FakeCore::Record;
using FakeCore::Word;

namespace {
std::atomic<int> g_interpreters{0};

const char outputKey = 0; // its address is the registry key of the current output stream

int Print(lua_State* L)
{
    lua_rawgetp(L, LUA_REGISTRYINDEX, &outputKey);
    auto* out = static_cast<wxOutputStream*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    std::string line;
    for (int i = 1; i <= lua_gettop(L); ++i) {
        std::size_t length = 0;
        const char* text = luaL_tolstring(L, i, &length);
        line += (i > 1 ? "\t" : "") + std::string(text, length);
        lua_pop(L, 1);
    }
    line += "\n";
    if (out)
        out->Write(line.data(), line.size());
    return 0;
}

std::string ReadAll(wxInputStream& in)
{
    std::string text;
    char block[4096];
    while (in.Read(block, sizeof block).LastRead() > 0)
        text.append(block, in.LastRead());
    return text;
}

int DomGet(VexCore::CDom& dom, lua_State* L)
{
    const std::string text = dom.Get(luaL_checkstring(L, 2));
    lua_pushlstring(L, text.data(), text.size());
    return 1;
}

int Traceback(lua_State* L)
{
    luaL_traceback(L, L, lua_tostring(L, 1), 1);
    return 1;
}

} // namespace

int FakeCore::LiveInterpreters()
{
    return g_interpreters;
}

namespace VexCore {

struct CLuaInterpreter::Impl
{
    lua_State* state = nullptr;
    std::string errorInfo;
    bool failed = false;
};

CLuaInterpreter::CLuaInterpreter(bool collectAtEnd, const wchar_t* name, bool openLibraries) : m_impl(new Impl)
{
    Record(std::string("Lua(") + Word(collectAtEnd) + ", " + Quote(wxString(name)) + ", " + Word(openLibraries) + ")");
    ++g_interpreters;
    m_impl->state = luaL_newstate();
    if (openLibraries) {
        luaL_openlibs(m_impl->state);
        lua_pushcfunction(m_impl->state, Print);
        lua_setglobal(m_impl->state, "print");
    }
}

CLuaInterpreter::~CLuaInterpreter()
{
    Record("~Lua()");
    lua_close(m_impl->state);
    --g_interpreters;
}

lua_State* CLuaInterpreter::L() const
{
    return m_impl->state;
}

void CLuaInterpreter::SetPackagePaths(const char* bin, const char* path, const char* cpath)
{
    Record("Lua.SetPackagePaths(" + Quote(bin) + ", " + Quote(path) + ", " + Quote(cpath) + ")");
    if (!Answers().setPackagePathsException.empty())
        throw std::runtime_error(Answers().setPackagePathsException);
    if (!Answers().setPackagePathsError.empty())
        luaL_error(m_impl->state, "%s", Answers().setPackagePathsError.c_str());
    const std::string folder = bin;
    const auto set = [this](const char* field, std::string templates, const std::string& own) {
        if (!templates.empty() && !own.empty())
            templates += ';';
        templates += own;
        lua_getglobal(m_impl->state, "package");
        if (lua_istable(m_impl->state, -1)) {
            lua_pushstring(m_impl->state, templates.c_str());
            lua_setfield(m_impl->state, -2, field);
        }
        lua_pop(m_impl->state, 1);
    };
    set("path", path, folder.empty() ? "" : folder + "/?.lua;" + folder + "/?/init.lua");
    set("cpath", cpath, folder.empty() ? "" : folder + "/lib/?.so");
}

int CLuaInterpreter::RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& name,
                               wxOutputStream* out)
{
    const std::string source = ReadAll(in);
    Record("Lua.RunScript(" + Quote(source) + ", " + std::to_string(argumentCount) + ", " + std::to_string(resultCount)
           + ", " + Quote(name) + ", " + (out ? "out" : "null") + ")");
    if (Answers().onRunScript)
        Answers().onRunScript();
    lua_State* L = m_impl->state;
    if (Answers().runScriptStatus) {
        lua_pop(L, argumentCount);
        if (*Answers().runScriptStatus == 0)
            for (int i = 0; i < resultCount; ++i)
                lua_pushnil(L);
        return *Answers().runScriptStatus;
    }
    lua_pushlightuserdata(L, out);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &outputKey);
    const int base = lua_gettop(L) - argumentCount + 1;
    lua_pushcfunction(L, Traceback);
    lua_insert(L, base);
    int status = luaL_loadbufferx(L, source.data(), source.size(), ("=" + name.utf8_string()).c_str(), "t");
    if (status != LUA_OK) {
        status = status == LUA_ERRSYNTAX ? 1 : status;
    } else {
        lua_insert(L, base + 1);
        status = lua_pcall(L, argumentCount, resultCount, base);
        status = status == LUA_ERRERR ? 5 : status;
    }
    if (status != LUA_OK) {
        const char* text = lua_tostring(L, -1);
        m_impl->errorInfo = text ? text : "(error value is no text)";
        m_impl->failed = true;
        lua_settop(L, base - 1);
    } else {
        lua_remove(L, base);
    }
    lua_pushnil(L);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &outputKey);
    return status;
}

wxString CLuaInterpreter::GetErrorInfo() const
{
    Record("Lua.GetErrorInfo()");
    return wxString::FromUTF8(m_impl->failed ? m_impl->errorInfo : Answers().errorInfo);
}

} // namespace VexCore

namespace SLB3 {

void Wrapper<VexCore::CDom>::Register(internal::Class<VexCore::CDom>& definition)
{
    Record("Wrapper.Register()");
    definition.Method<&DomGet>("Get");
}

} // namespace SLB3
