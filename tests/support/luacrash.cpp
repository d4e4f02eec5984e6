// A native module for Lua code with one function, which crashes.
#include <lua.hpp>

namespace {

[[gnu::noinline]] int CrashInModule(lua_State* L)
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = lua_gettop(L);
    return 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_luacrash(lua_State* L)
{
    lua_pushcfunction(L, CrashInModule);
    return 1;
}
