#include "vex_core/lua/error_text.h"

#include <new>

#include <lua.hpp>

namespace VexCore {

namespace {
// Of more levels than these the middle is left out, as Lua does.
constexpr int firstLevels = 10;
constexpr int lastLevels = 11;

// The text that the error value gives itself.
int ErrorValueText(lua_State* L)
{
    luaL_tolstring(L, 1, nullptr);
    if (lua_type(L, -1) != LUA_TSTRING)
        return luaL_error(L, "its __tostring gave a %s value", luaL_typename(L, -1));
    return 1;
}

// How many calls are under way. The search doubles its step: to ask for one level costs its distance.
int LevelCount(lua_State* L)
{
    lua_Debug call;
    int last = 0; // is there, or nothing is
    int above = 1;
    while (lua_getstack(L, above, &call)) {
        last = above;
        above *= 2;
    }
    while (last + 1 < above) {
        const int middle = (last + above) / 2;
        (lua_getstack(L, middle, &call) ? last : above) = middle;
    }
    return above;
}

std::string DescribeCall(lua_State* L, lua_Debug& call)
{
    lua_getinfo(L, "Slnt", &call);
    std::string line = std::string("\n\t") + call.short_src + ':';
    if (call.currentline > 0)
        line += std::to_string(call.currentline) + ':';
    line += " in ";
    if (*call.namewhat)
        line += std::string("function '") + call.name + '\'';
    else if (*call.what == 'm')
        line += "main chunk";
    else if (*call.what == 'C')
        line += '?';
    else
        line += std::string("function <") + call.short_src + ':' + std::to_string(call.linedefined) + '>';
    return call.istailcall ? line + "\n\t(...tail calls...)" : line;
}

} // namespace

std::string Traceback(lua_State* L) noexcept
{
    try {
        std::string text = "stack traceback:";
        const int count = LevelCount(L);
        lua_Debug call;
        for (int level = 0; lua_getstack(L, level, &call); ++level) {
            if (level == firstLevels && count > firstLevels + lastLevels + 1) {
                text += "\n\t...";
                level = count - lastLevels - 1;
                continue;
            }
            text += DescribeCall(L, call);
        }
        return text;
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

void PushErrorText(lua_State* L, int index)
{
    const int type = lua_type(L, index);
    luaL_checkstack(L, 8, "error message");
    if (type == LUA_TSTRING || type == LUA_TNUMBER) {
        lua_pushvalue(L, index);
    } else if (luaL_getmetafield(L, index, "__tostring")) {
        lua_pop(L, 1);
        lua_pushcfunction(L, ErrorValueText);
        lua_pushvalue(L, index);
        if (lua_pcall(L, 1, 1, 0) != LUA_OK) {
            const char* why = lua_tostring(L, -1);
            lua_pushfstring(L, "(error object is a %s value that gives no text: %s)", luaL_typename(L, index),
                            why ? why : "no reason");
            lua_remove(L, -2);
        }
    } else {
        lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, index));
    }
}

} // namespace VexCore
