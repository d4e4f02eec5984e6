// The functions that stand in place of Lua's own. Each asks at every call whether the output is redirected, because a
// state keeps them from one run to the next; otherwise it calls the original. On the state's thread.

#include "vex_core/lua/lua_output.h"

#include "slb3/error.h"

#include <wx/log.h>
#include <wx/stream.h>

namespace VexCore {

namespace {
constexpr std::size_t keptLineBytes = 64 * 1024;

} // namespace

LuaOutput& LuaOutput::Self(lua_State* L)
{
    return *static_cast<LuaOutput*>(lua_touserdata(L, lua_upvalueindex(1)));
}

// Replaces a field of the table on top and answers what was there.
lua_CFunction LuaOutput::Replace(lua_State* L, const char* name, lua_CFunction ours)
{
    lua_getfield(L, -1, name);
    const lua_CFunction original = lua_tocfunction(L, -1);
    lua_pop(L, 1);
    lua_pushlightuserdata(L, this);
    lua_pushcclosure(L, ours, 1);
    lua_setfield(L, -2, name);
    return original;
}

void LuaOutput::Install(lua_State* L)
{
    lua_pushglobaltable(L);
    lua_getfield(L, -1, "tostring");
    m_tostring = lua_tocfunction(L, -1);
    lua_pop(L, 1);
    m_print = Replace(L, "print", &Print);

    lua_getfield(L, -1, "io");
    m_ioWrite = Replace(L, "write", &IoWrite);
    m_ioFlush = Replace(L, "flush", &IoFlush);
    m_ioOutput = Replace(L, "output", &IoOutput);

    lua_getfield(L, -1, "stdout");
    m_stdout = lua_touserdata(L, -1);
    lua_getmetatable(L, -1);
    lua_getfield(L, -1, "__index");
    m_fileWrite = Replace(L, "write", &FileWrite);
    m_fileFlush = Replace(L, "flush", &FileFlush);
    lua_pop(L, 2);
    lua_rawsetp(L, LUA_REGISTRYINDEX, this);
    lua_pop(L, 2);
}

bool LuaOutput::IsRedirectedStdout(lua_State* L) const
{
    return m_out && lua_touserdata(L, 1) == m_stdout;
}

bool LuaOutput::Write(const char* data, std::size_t size)
{
    const wxLogNull quiet; // the caller is told; a closed pipe would be a log line a print
    return m_out->Write(data, size).LastWrite() == size;
}

bool LuaOutput::Sync()
{
    const wxLogNull quiet; // the same closed pipe
    m_out->Sync();
    return m_out->IsOk();
}

int LuaOutput::Print(lua_State* L)
{
    LuaOutput& self = Self(L);
    if (!self.m_out)
        return self.m_print(L);
    return SLB3::internal::Guard(L, [&] { return self.PrintLine(L); });
}

int LuaOutput::PrintLine(lua_State* L)
{
    const int count = lua_gettop(L);
    lua_getglobal(L, "tostring");
    const bool isPlain = lua_tocfunction(L, -1) == m_tostring;
    // All texts first: a __tostring may print itself, and so may a finaliser, which runs when a text is made.
    for (int i = 1; i <= count; ++i) {
        if (isPlain && lua_type(L, i) == LUA_TSTRING)
            continue;
        lua_pushvalue(L, count + 1);
        lua_pushvalue(L, i);
        lua_call(L, 1, 1);
        // Asks, and makes the text of a number at the same time.
        if (!lua_tolstring(L, -1, nullptr))
            return luaL_error(L, "'tostring' must return a string to 'print'");
        lua_replace(L, i);
    }
    m_line.clear();
    for (int i = 1; i <= count; ++i) {
        std::size_t length = 0;
        const char* text = lua_tolstring(L, i, &length);
        if (i > 1)
            m_line += '\t';
        m_line.append(text, length);
    }
    m_line += '\n';
    // As Lua's own print: no failure is reported, and the line is out before a child or standard error writes the next.
    Write(m_line.data(), m_line.size());
    Sync();
    if (m_line.capacity() > keptLineBytes)
        std::string().swap(m_line);
    return 0;
}

// Writes the arguments from `first` on; the file that is returned is on top of the stack.
int LuaOutput::WriteArguments(lua_State* L, int first)
{
    const int last = lua_gettop(L) - 1;
    for (int i = first; i <= last; ++i) {
        std::size_t length = 0;
        const char* text = luaL_checklstring(L, i, &length);
        if (!Write(text, length))
            return luaL_fileresult(L, 0, nullptr);
    }
    return 1;
}

int LuaOutput::IoWrite(lua_State* L)
{
    LuaOutput& self = Self(L);
    if (!self.m_out || !self.m_defaultIsStdout)
        return self.m_ioWrite(L);
    lua_rawgetp(L, LUA_REGISTRYINDEX, &self);
    return SLB3::internal::Guard(L, [&] { return self.WriteArguments(L, 1); });
}

int LuaOutput::FileWrite(lua_State* L)
{
    LuaOutput& self = Self(L);
    if (!self.IsRedirectedStdout(L))
        return self.m_fileWrite(L);
    lua_pushvalue(L, 1);
    return SLB3::internal::Guard(L, [&] { return self.WriteArguments(L, 2); });
}

int LuaOutput::Flush(lua_State* L)
{
    if (!Sync())
        return luaL_fileresult(L, 0, nullptr);
    lua_rawgetp(L, LUA_REGISTRYINDEX, this);
    return 1;
}

int LuaOutput::IoFlush(lua_State* L)
{
    LuaOutput& self = Self(L);
    if (!self.m_out || !self.m_defaultIsStdout)
        return self.m_ioFlush(L);
    return SLB3::internal::Guard(L, [&] { return self.Flush(L); });
}

int LuaOutput::FileFlush(lua_State* L)
{
    LuaOutput& self = Self(L);
    if (!self.IsRedirectedStdout(L))
        return self.m_fileFlush(L);
    return SLB3::internal::Guard(L, [&] { return self.Flush(L); });
}

int LuaOutput::IoOutput(lua_State* L)
{
    LuaOutput& self = Self(L);
    const int results = self.m_ioOutput(L);
    self.m_defaultIsStdout = lua_touserdata(L, -1) == self.m_stdout;
    return results;
}

} // namespace VexCore
