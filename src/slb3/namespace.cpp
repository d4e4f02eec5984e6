#include "slb3/namespace.h"

const char* const SLB3::Namespace::registryName = "SLB3.namespaces";

SLB3::Namespace::Namespace(lua_State* L, const char* name) : Table(L, name)
{
    luaL_getsubtable(L, LUA_REGISTRYINDEX, registryName);
    luaL_getsubtable(L, -1, name);
    lua_pop(L, 2);
}
