#include "vex_core/lua/error_text.h"

#include <lua.hpp>

namespace VexCore {

namespace {
// The text that the error value gives itself.
int ErrorValueText(lua_State* L)
{
    luaL_tolstring(L, 1, nullptr);
    if (lua_type(L, -1) != LUA_TSTRING)
        return luaL_error(L, "its __tostring gave a %s value", luaL_typename(L, -1));
    return 1;
}

} // namespace

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
