// A native module for Lua code: a function that crashes in the way that its argument names.
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <lua.hpp>

#include <pthread.h>

namespace {
volatile int g_sink = 0;

[[gnu::noinline]] int CrashInModule(lua_State* L)
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = lua_gettop(L);
    return 0;
}

[[gnu::noinline]] int OverflowStack(int depth)
{
    volatile char room[512];
    room[0] = static_cast<char>(depth);
    g_sink = g_sink + 1;
    if (depth >= 0) // always; the compiler shall not see it
        return OverflowStack(depth < 1000000000 ? depth + 1 : depth) + room[0];
    return room[0];
}

// Returns to Lua with a table whose inside is rubbish: what crashes is the interpreter, when it next looks into it.
[[gnu::noinline]] int DamageTable(lua_State* L)
{
    lua_createtable(L, 0, 4);
    // Behind the header that the collector reads come the pointers to metatable, array and nodes.
    constexpr std::size_t header = 16;
    constexpr std::size_t damaged = 24;
    std::memset(static_cast<char*>(const_cast<void*>(lua_topointer(L, -1))) + header, 0x41, damaged);
    return 1;
}

// Dies of SIGTERM, as a process does that has no handler for it.
[[noreturn]] void EndByTerm()
{
    std::signal(SIGTERM, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::raise(SIGTERM);
    std::abort();
}

int Crash(lua_State* L)
{
    static const char* const ways[] = {"null", "abort", "overflow", "term", "table", nullptr};
    switch (luaL_checkoption(L, 1, "null", ways)) {
    case 0:
        return CrashInModule(L);
    case 1:
        std::abort();
    case 2:
        return OverflowStack(0);
    case 3:
        EndByTerm();
    default:
        return DamageTable(L);
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_luacrash(lua_State* L)
{
    lua_pushcfunction(L, Crash);
    return 1;
}
