#pragma once
// Sends what Lua code prints to a stream of the host:
// print, io.write, and the methods of io.stdout, which must keep their order among each other.

#include <string>

#include <lua.hpp>

class wxOutputStream;

namespace VexCore {

/// The output of one Lua state. Must outlive the state, at the same address. The state's thread only.
class LuaOutput
{
public:
    LuaOutput() = default;
    LuaOutput(const LuaOutput&) = delete;
    LuaOutput& operator=(const LuaOutput&) = delete;

    /// Puts our functions in place of the standard libraries', which are open. Without a redirection they do what the
    /// originals did. Raises Lua errors.
    void Install(lua_State* L);

    /// Output goes to `out` for the scope's life; null leaves it as it was.
    class Redirection
    {
    public:
        Redirection(LuaOutput& output, wxOutputStream* out) : m_output(output), m_before(output.m_out)
        {
            if (out)
                output.m_out = out;
        }
        ~Redirection() { m_output.m_out = m_before; }
        Redirection(const Redirection&) = delete;
        Redirection& operator=(const Redirection&) = delete;

    private:
        LuaOutput& m_output;
        wxOutputStream* m_before;
    };

private:
    static LuaOutput& Self(lua_State* L);
    static int Print(lua_State* L);
    static int IoWrite(lua_State* L);
    static int IoFlush(lua_State* L);
    static int IoOutput(lua_State* L);
    static int FileWrite(lua_State* L);
    static int FileFlush(lua_State* L);

    lua_CFunction Replace(lua_State* L, const char* name, lua_CFunction ours);
    bool IsRedirectedStdout(lua_State* L) const;
    int PrintLine(lua_State* L);
    int WriteArguments(lua_State* L, int first);
    int Flush(lua_State* L);
    bool Write(const char* data, std::size_t size);
    bool Sync();

    wxOutputStream* m_out = nullptr; // not owned; null: not redirected
    void* m_stdout = nullptr; // the userdata io.stdout, kept alive by the registry
    bool m_defaultIsStdout = true; // what io.write writes to is io.stdout
    std::string m_line; // of the running print

    // The originals. None of them has upvalues, so they can be called as they are.
    lua_CFunction m_print = nullptr;
    lua_CFunction m_tostring = nullptr;
    lua_CFunction m_ioWrite = nullptr;
    lua_CFunction m_ioFlush = nullptr;
    lua_CFunction m_ioOutput = nullptr;
    lua_CFunction m_fileWrite = nullptr;
    lua_CFunction m_fileFlush = nullptr;
};

} // namespace VexCore
