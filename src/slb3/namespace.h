#pragma once
// How Lua code reaches what is bound: by tables that the registry of a state keeps by name. Like the state, for one
// thread at a time.

#include "slb3/table.h"

namespace SLB3 {

/// The table that holds what a class (or a group of functions) shows to Lua.
/// The first use of a name in a state makes it.
class SLB3_API Namespace : public Table
{
public:
    /// `name` is a constant text. Raises a Lua error when there is no memory.
    Namespace(lua_State* L, const char* name);

    /// Where the registry keeps all of them.
    static const char* const registryName;
};

} // namespace SLB3
