#pragma once
// A Lua 5.2 state with the standard libraries, prepared to run an application's chunks.

#include "vex/core/export.h"

#include <memory>
#include <string>

#include <wx/string.h>

struct lua_State;
class wxInputStream;
class wxOutputStream;

namespace VexCore {

/// Owns one Lua state. One thread at a time: the thread that runs its chunks.
class VEX_CORE_API CLuaInterpreter
{
public:
    /// `collectAtEnd` closes with a full collection first (tests); `name` names the interpreter in log lines
    /// ("vx_agent.lua"); `openLibraries` opens the standard libraries. Throws std::bad_alloc when there is no memory.
    CLuaInterpreter(bool collectAtEnd, const wchar_t* name, bool openLibraries);
    ~CLuaInterpreter();

    /// The state; owned by the interpreter.
    lua_State* L() const;

    /// package.path becomes `path`, then `bin`/?.lua and `bin`/?/init.lua, then the default that Lua was built with,
    /// whatever LUA_PATH says; package.cpath likewise `cpath`, `bin`/lib/?.so, default. Empty texts are left out, and
    /// so are the templates that look into the current directory: a daemon does not load code from wherever it was
    /// started. May raise a Lua error.
    void SetPackagePaths(const char* bin, const char* path, const char* cpath);

    /// Loads a chunk (source text) from `in` under `name` and runs it with the `argumentCount` topmost values of the
    /// stack as its arguments. 0: success, exactly `resultCount` results are on the stack. Otherwise the arguments are
    /// gone, nothing is left, and `GetErrorInfo` tells: 1 it did not load, 2 it failed while it ran, 4 out of memory, 5
    /// an error in a finaliser or in the error handler. Never 3: that status has a meaning to the supervisor. Where
    /// standard error is the null device, so that nobody can read what the caller writes there, a failure is an error
    /// record in the log too.
    ///
    /// While the chunk runs, `print` and `io.write` go to `out` when it is not null; `print` flushes it. Never throws.
    int RunScript(wxInputStream& in, int argumentCount, int resultCount, const wxString& name, wxOutputStream* out);

    /// From now on a failure of `RunScript` is no record in the log: the caller has words of its own for it.
    void LeaveFailuresToCaller();

    /// Message and traceback of the last failure; empty when none has happened. It stays until the next failure.
    wxString GetErrorInfo() const;
    /// The same as the bytes that Lua had, whatever character set they are in.
    const std::string& GetErrorBytes() const;

    CLuaInterpreter(const CLuaInterpreter&) = delete;
    CLuaInterpreter& operator=(const CLuaInterpreter&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace VexCore
