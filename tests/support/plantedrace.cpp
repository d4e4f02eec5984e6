// A native module for Lua code with a data race on purpose: the first two threads that call its function write one
// number without a lock, at the same time. The thread sanitizer's settings are right as long as it reports that.
#include <atomic>

#include <lua.hpp>
#include <sched.h>

namespace {
int g_unguarded = 0;

int Race(lua_State*)
{
    // Relaxed on purpose: the two meet here and yet nothing orders what they do next.
    static std::atomic<int> s_entered{0};
    s_entered.fetch_add(1, std::memory_order_relaxed);
    while (s_entered.load(std::memory_order_relaxed) < 2)
        ::sched_yield();
    g_unguarded = g_unguarded + 1;
    return 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_plantedrace(lua_State* L)
{
    lua_pushcfunction(L, Race);
    return 1;
}
