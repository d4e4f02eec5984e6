// How a chunk runs. All that may raise a Lua error runs below one protected call, and C++ exceptions become Lua errors
// on their way there, so a run ends with a status and a text however it fails. Runs may be nested: a chunk calls the
// host, which runs another one. What print writes to, where modules are looked for and which are native: lua_output.h,
// package_paths.h, native_modules.h.

#include "vex/core/luainterpreter.h"

#include "slb3/error.h"
#include "vex/core/processexit.h"
#include "vex_core/base/text.h"
#include "vex_core/lua/error_text.h"
#include "vex_core/lua/lua_output.h"
#include "vex_core/lua/lua_programs.h"
#include "vex_core/lua/native_modules.h"
#include "vex_core/lua/package_paths.h"

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include <lua.hpp>
#include <wx/log.h>
#include <wx/stream.h>

namespace VexCore {

namespace {
constexpr int statusNotLoaded = 1;
constexpr int statusFailed = 2;
constexpr int statusNoMemory = 4;
constexpr int statusHandlerFailed = 5;

constexpr std::size_t readBytes = 16 * 1024;

// One run of a chunk, on the way through Lua.
struct Run
{
    wxInputStream& in;
    std::string chunkName;
    int resultCount;
    int loadStatus; // of lua_load
    Run* outer; // the run that this one is nested in
    char buffer[readBytes];
};

// Registry key of the address of the innermost Run, which handlers find without an allocation.
const char runKey = 0;

Run& CurrentRun(lua_State* L)
{
    lua_rawgetp(L, LUA_REGISTRYINDEX, &runKey);
    Run* run = *static_cast<Run**>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return *run;
}

const char* ReadChunk(lua_State* L, void* context, std::size_t* size)
{
    Run& run = *static_cast<Run*>(context);
    *size = 0;
    SLB3::internal::Guard(L, [&] {
        run.in.Read(run.buffer, sizeof(run.buffer));
        *size = run.in.LastRead();
        if (*size == 0 && run.in.GetLastError() == wxSTREAM_READ_ERROR)
            throw std::runtime_error("cannot read the chunk");
        return 0;
    });
    return run.buffer;
}

// Message handler: the value's text with a traceback, unless it carries one from where it was first caught.
int AddTraceback(lua_State* L)
{
    PushErrorText(L, 1);
    std::size_t length = 0;
    const char* const text = lua_tolstring(L, -1, &length);
    const bool hasOne = std::string_view(text, length).find("\nstack traceback:\n") != std::string_view::npos;
    if (CurrentRun(L).loadStatus == LUA_OK && !hasOne) {
        // Not given to the function itself, which would end the text at a NUL.
        lua_pushliteral(L, "\n");
        luaL_traceback(L, L, nullptr, 1);
        lua_concat(L, 3);
    }
    return 1;
}

// Loads and runs the chunk of the current run with the arguments on the stack.
int LoadAndRun(lua_State* L)
{
    Run& run = CurrentRun(L);
    run.loadStatus = lua_load(L, ReadChunk, &run, run.chunkName.c_str(), "t");
    if (run.loadStatus != LUA_OK)
        return lua_error(L);
    lua_insert(L, 1);
    luaL_checkstack(L, run.resultCount, "results of the chunk"); // which Lua fills up with nil without asking for room
    // An exception of a native module that is not bound through the binder ends here, not as a failure without a text.
    return SLB3::internal::Guard(L, [&] {
        lua_call(L, lua_gettop(L) - 1, run.resultCount);
        return lua_gettop(L);
    });
}

// Makes a run the innermost one for the scope's life.
class NestedRun
{
public:
    NestedRun(Run*& innermost, Run* run) : m_innermost(innermost) { innermost = run; }
    ~NestedRun() { m_innermost = m_innermost->outer; }
    NestedRun(const NestedRun&) = delete;
    NestedRun& operator=(const NestedRun&) = delete;

private:
    Run*& m_innermost;
};

int StatusOf(int callStatus, int loadStatus)
{
    switch (loadStatus == LUA_OK ? callStatus : loadStatus) {
    case LUA_OK:
        return 0;
    case LUA_ERRSYNTAX:
        return statusNotLoaded;
    case LUA_ERRMEM:
        return statusNoMemory;
    case LUA_ERRGCMM:
    case LUA_ERRERR:
        return statusHandlerFailed;
    default:
        return loadStatus == LUA_OK ? statusFailed : statusNotLoaded;
    }
}

// os.exit([code [, close]]), as in Lua itself, but safe on any thread.
int OsExit(lua_State* L)
{
    int status = EXIT_SUCCESS;
    if (lua_isboolean(L, 1))
        status = lua_toboolean(L, 1) ? EXIT_SUCCESS : EXIT_FAILURE;
    else
        status = luaL_optint(L, 1, EXIT_SUCCESS);
    if (lua_toboolean(L, 2))
        lua_close(L);
    ExitProcessFromThread(status);
}

void ReplaceExit(lua_State* L)
{
    lua_getglobal(L, "os");
    lua_pushcfunction(L, OsExit);
    lua_setfield(L, -2, "exit");
    lua_pop(L, 1);
}

// Closing a state would unload its native modules, though their code may still be needed: by threads that it has
// started, for thread-specific data, at exit. So the table of libraries loses the finaliser that does it.
void KeepNativeModulesLoaded(lua_State* L)
{
    lua_getfield(L, LUA_REGISTRYINDEX, "_CLIBS");
    lua_getmetatable(L, -1);
    lua_pushnil(L);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 2);
}

std::string OrEmpty(const char* text)
{
    return text ? text : "";
}

} // namespace

struct CLuaInterpreter::Impl
{
    lua_State* L = nullptr;
    bool collectAtEnd = false;
    bool openLibraries = false;
    wxString name;
    wxString errorInfo;
    LuaOutput output;
    Run* run = nullptr; // innermost; points into RunScript's frame
    PackagePaths packagePaths;

    static int Prepare(lua_State* L)
    {
        auto& self = *static_cast<Impl*>(lua_touserdata(L, 1));
        lua_pushlightuserdata(L, &self.run);
        lua_rawsetp(L, LUA_REGISTRYINDEX, &runKey);
        if (!self.openLibraries)
            return 0;
        luaL_openlibs(L);
        KeepNativeModulesLoaded(L);
        ReplaceExit(L);
        InstallPrograms(L);
        RegisterNativeModules(L);
        self.output.Install(L);
        self.packagePaths.ReadDefaults(L);
        return 0;
    }

    static int Collect(lua_State* L)
    {
        lua_gc(L, LUA_GCCOLLECT, 0);
        return 0;
    }

    void KeepError()
    {
        std::size_t length = 0;
        const char* text = lua_tolstring(L, -1, &length);
        errorInfo = text ? FromForeignBytes(text, length) : wxString("(no message)");
    }
};

CLuaInterpreter::CLuaInterpreter(bool collectAtEnd, const wchar_t* name, bool openLibraries)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->collectAtEnd = collectAtEnd;
    m_impl->openLibraries = openLibraries;
    m_impl->name = name ? name : L"";
    m_impl->L = luaL_newstate();
    if (!m_impl->L)
        throw std::bad_alloc();
    lua_pushcfunction(m_impl->L, &Impl::Prepare);
    lua_pushlightuserdata(m_impl->L, m_impl.get());
    if (lua_pcall(m_impl->L, 1, 0, 0) != LUA_OK) {
        lua_close(m_impl->L);
        throw std::bad_alloc();
    }
}

CLuaInterpreter::~CLuaInterpreter()
{
    if (m_impl->collectAtEnd) {
        lua_pushcfunction(m_impl->L, &Impl::Collect);
        if (lua_pcall(m_impl->L, 0, 0, 0) != LUA_OK) {
            m_impl->KeepError();
            wxLogWarning("%s: %s", m_impl->name, m_impl->errorInfo);
        }
    }
    lua_close(m_impl->L);
}

lua_State* CLuaInterpreter::L() const
{
    return m_impl->L;
}

void CLuaInterpreter::SetPackagePaths(const char* bin, const char* path, const char* cpath)
{
    m_impl->packagePaths.Set(L(), OrEmpty(bin), OrEmpty(path), OrEmpty(cpath));
}

int CLuaInterpreter::RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& name,
                               wxOutputStream* out)
{
    lua_State* const state = L();
    const int base = lua_gettop(state) - argumentCount;
    try {
        if (!lua_checkstack(state, resultCount + 8)) {
            lua_settop(state, base);
            m_impl->errorInfo = "stack overflow";
            return statusFailed;
        }
        // On the heap: nested chunks would carry their buffers on the thread's stack.
        const std::unique_ptr<Run> run(
            new Run{in, "=" + std::string(name.utf8_str()), resultCount, LUA_OK, m_impl->run, {}});
        const NestedRun nested(m_impl->run, run.get());
        const LuaOutput::Redirection redirection(m_impl->output, out);

        // Functions without upvalues: nothing here allocates in Lua, where an error could not be caught yet.
        lua_pushcfunction(state, LoadAndRun);
        lua_insert(state, base + 1);
        lua_pushcfunction(state, AddTraceback);
        lua_insert(state, base + 1);
        const int callStatus = lua_pcall(state, argumentCount, resultCount, base + 1);
        if (callStatus == LUA_OK) {
            lua_remove(state, base + 1);
            return 0;
        }
        m_impl->KeepError();
        lua_settop(state, base);
        return StatusOf(callStatus, run->loadStatus);
    } catch (const std::bad_alloc&) {
        lua_settop(state, base);
        m_impl->errorInfo = "not enough memory";
        return statusNoMemory;
    }
}

wxString CLuaInterpreter::GetErrorInfo() const
{
    return m_impl->errorInfo;
}

} // namespace VexCore
