#include "slb3/table.h"

#include "slb3/namespace.h"

void SLB3::Table::push() const
{
    lua_getfield(L_, LUA_REGISTRYINDEX, Namespace::RegistryName);
    lua_getfield(L_, -1, name_);
    lua_remove(L_, -2);
}
