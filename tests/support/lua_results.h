#pragma once
// What Lua code gives, as text to compare.

#include <string>

#include <lua.hpp>

namespace Test {

/// Runs the code with an empty stack: its results as texts with blanks between, or "error: " and the message.
inline std::string LuaResults(lua_State* L, const std::string& code)
{
    lua_settop(L, 0);
    std::string text;
    if (luaL_loadbuffer(L, code.data(), code.size(), "@test.lua") || lua_pcall(L, 0, LUA_MULTRET, 0))
        text = "error:";
    for (int i = 1, count = lua_gettop(L); i <= count; ++i) {
        std::size_t length = 0;
        const char* const bytes = luaL_tolstring(L, i, &length);
        text += (text.empty() ? "" : " ") + std::string(bytes, length);
    }
    lua_settop(L, 0);
    return text;
}

} // namespace Test
