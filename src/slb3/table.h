#pragma once
// Tables that the binder keeps in the registry of a state, found by name.

#include "slb3/config.h"

namespace SLB3 {

/// A named table of a state. Holds nothing itself: the table lives in the state's registry, as long as the state.
class SLB3_API Table
{
public:
    /// Pushes the table.
    void push() const;

protected:
    Table(lua_State* L, const char* name) : m_L(L), m_name(name) {}

    lua_State* m_L;
    const char* m_name; // constant text
};

} // namespace SLB3
