#include "slb3/table.h"

#include "slb3/namespace.h"

void SLB3::Table::push() const
{
    lua_getfield(m_L, LUA_REGISTRYINDEX, Namespace::registryName);
    lua_getfield(m_L, -1, m_name);
    lua_remove(m_L, -2);
}
