// How a chunk runs. All that may raise a Lua error runs below one protected call, and C++ exceptions become Lua errors
// on their way there, so a run ends with a status and a text however it fails. Runs may be nested: a chunk calls the
// host, which runs another one. What print writes to, where modules are looked for and which are native: lua_output.h,
// package_paths.h, native_modules.h.

#include "vex/core/luainterpreter.h"

#include "slb3/error.h"
#include "vex/core/processexit.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/log/process_log.h"
#include "vex_core/lua/collector_pause.h"
#include "vex_core/lua/error_text.h"
#include "vex_core/lua/lua_output.h"
#include "vex_core/lua/lua_programs.h"
#include "vex_core/lua/native_modules.h"
#include "vex_core/lua/package_paths.h"
#include "vex_core/lua/run_status.h"
#include "vex_core/lua/state_memory.h"
#include "vex_core/os/files.h"
#include "vex_core/os/last_resort.h"

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
constexpr std::size_t readBytes = 2 * 1024; // at a time; the framework fills the place with zeros first

// One run of a chunk, on the way through Lua.
struct Run
{
    wxInputStream& in;
    std::string chunkName;
    int resultCount;
    int loadStatus; // of lua_load
    Run* outer; // the run that this one is nested in
    std::string trace; // the calls that were under way when it failed
    std::unique_ptr<char[]> buffer; // while the chunk is loaded
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
        run.in.Read(run.buffer.get(), readBytes);
        *size = run.in.LastRead();
        if (*size == 0 && run.in.GetLastError() == wxSTREAM_READ_ERROR)
            throw std::runtime_error("cannot read the chunk");
        return 0;
    });
    return run.buffer.get();
}

bool HasTraceback(std::string_view text)
{
    return text.find("\nstack traceback:\n") != std::string_view::npos;
}

// Loads and runs the chunk of the current run with the arguments on the stack.
int LoadAndRun(lua_State* L)
{
    Run& run = CurrentRun(L);
    run.loadStatus = lua_load(L, ReadChunk, &run, run.chunkName.c_str(), "t");
    run.buffer.reset();
    if (run.loadStatus != LUA_OK)
        return lua_error(L);
    lua_insert(L, 1);
    luaL_checkstack(L, run.resultCount, "results of the chunk"); // which Lua fills up with nil without asking for room
    // An exception of a native module that is not bound through the binder ends here, not as a failure without a text.
    return SLB3::internal::Guard(L, [&] {
        try {
            lua_call(L, lua_gettop(L) - 1, run.resultCount);
        } catch (...) {
            // No message handler of Lua's does this: there is none for want of memory or for a finaliser, and it would
            // see errors that `load` catches as well. Lua's errors are exceptions, and until Lua itself catches one all
            // calls are still there.
            run.trace = Traceback(L);
            throw;
        }
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

// An error that nothing catches, which only native code can raise; the process aborts behind it.
int Panic(lua_State* L)
{
    const char* const message = lua_tostring(L, -1);
    os::WriteLastResort(os::standardError, os::severityError,
                        {"PANIC: unprotected error in call to Lua API (", message ? message : "no text", ")\n"});
    return 0;
}

} // namespace

// Hidden: a member would be shown as one of the class.
struct __attribute__((visibility("hidden"))) CLuaInterpreter::Impl
{
    StateMemory memory; // before the state, which ends first
    lua_State* L = nullptr;
    bool collectAtEnd = false;
    bool openLibraries = false;
    bool leavesFailuresToCaller = false;
    wxString name;
    std::string errorInfo;
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
        // No code by environment: LUA_PATH, LUA_CPATH and the names with a version are not read.
        lua_pushboolean(L, 1);
        lua_setfield(L, LUA_REGISTRYINDEX, "LUA_NOENV");
        const CollectorPause pause(L);
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

    static int ErrorText(lua_State* L)
    {
        PushErrorText(L, 1);
        lua_tolstring(L, -1, nullptr); // a number becomes a text here, where that may fail
        return 1;
    }

    // Keeps what the error value on top of the stack says, with the trace, unless it carries one from where it was
    // first caught.
    void KeepError(const std::string& trace)
    {
        if (lua_type(L, -1) != LUA_TSTRING) {
            lua_pushcfunction(L, &ErrorText);
            lua_insert(L, -2);
            lua_pcall(L, 1, 1, 0);
        }
        std::size_t length = 0;
        const char* const message = lua_tolstring(L, -1, &length);
        std::string text = message ? std::string(message, length) : "(no message)";
        if (!trace.empty() && !HasTraceback(text))
            text += '\n' + trace;
        errorInfo = std::move(text);
    }

    int RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& name, wxOutputStream* out);

    // What the launcher writes to standard error is nowhere when that is the null device.
    void LogFailure() const
    {
        if (leavesFailuresToCaller || !os::IsNullDevice(os::standardError))
            return;
        try {
            WriteLogLine(LogLevel::Error, errorInfo);
        } catch (const std::bad_alloc&) {
            // The failure is known to the caller; that there is no room to write it down is no second one.
        }
    }
};

CLuaInterpreter::CLuaInterpreter(bool collectAtEnd, const wchar_t* name, bool openLibraries)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->collectAtEnd = collectAtEnd;
    m_impl->openLibraries = openLibraries;
    m_impl->name = name ? name : L"";
    m_impl->L = lua_newstate(&StateMemory::Allocate, &m_impl->memory);
    if (!m_impl->L)
        throw std::bad_alloc();
    lua_atpanic(m_impl->L, Panic);
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
            m_impl->KeepError(std::string());
            wxLogWarning("%s: %s", m_impl->name, GetErrorInfo());
        }
    }
    m_impl->memory.BeginEnd();
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

int CLuaInterpreter::Impl::RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& chunkName,
                                     wxOutputStream* out)
{
    const int base = lua_gettop(L) - argumentCount;
    try {
        if (!lua_checkstack(L, resultCount + 8)) {
            lua_settop(L, base);
            errorInfo = "stack overflow";
            return statusFailed;
        }
        Run current{in, "=" + std::string(chunkName.utf8_str()), resultCount, LUA_OK, run,
                    {}, std::make_unique<char[]>(readBytes)};
        const NestedRun nested(run, &current);
        const LuaOutput::Redirection redirection(output, out);

        // A function without upvalues: nothing here allocates in Lua, where an error could not be caught yet.
        lua_pushcfunction(L, LoadAndRun);
        lua_insert(L, base + 1);
        const int callStatus = lua_pcall(L, argumentCount, resultCount, 0);
        if (callStatus == LUA_OK)
            return 0;
        KeepError(current.trace);
        lua_settop(L, base);
        return StatusOf(callStatus, current.loadStatus);
    } catch (const std::bad_alloc&) {
        lua_settop(L, base);
        errorInfo = "not enough memory";
        return statusNoMemory;
    }
}

int CLuaInterpreter::RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& name,
                               wxOutputStream* out)
{
    const int status = m_impl->RunScript(in, argumentCount, resultCount, name, out);
    if (status != 0)
        m_impl->LogFailure();
    return status;
}

void CLuaInterpreter::LeaveFailuresToCaller()
{
    m_impl->leavesFailuresToCaller = true;
}

wxString CLuaInterpreter::GetErrorInfo() const
{
    return FromForeignBytes(m_impl->errorInfo);
}

const std::string& CLuaInterpreter::GetErrorBytes() const
{
    return m_impl->errorInfo;
}

} // namespace VexCore
