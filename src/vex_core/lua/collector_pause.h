#pragma once
// Rest for the collector of a Lua state while what is made stays.

#include <lua.hpp>

namespace VexCore {

/// While one exists the collector of a state rests; if it ran before, it runs again behind it. What makes a state ready
/// stays, so that a look for garbage among it is for nothing. The state's thread.
class CollectorPause
{
public:
    explicit CollectorPause(lua_State* L) : m_L(L), m_ran(lua_gc(L, LUA_GCISRUNNING, 0) != 0)
    {
        lua_gc(L, LUA_GCSTOP, 0);
    }
    ~CollectorPause()
    {
        if (m_ran)
            lua_gc(m_L, LUA_GCRESTART, 0);
    }
    CollectorPause(const CollectorPause&) = delete;
    CollectorPause& operator=(const CollectorPause&) = delete;

private:
    lua_State* const m_L;
    const bool m_ran;
};

} // namespace VexCore
