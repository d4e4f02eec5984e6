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
    Table(lua_State* L, const char* name) : L_(L), name_(name) {}

    lua_State* L_;
    const char* name_; // constant text
};

} // namespace SLB3
