#pragma once
// What an error value says, and from where it came.

#include <string>

struct lua_State;

namespace VexCore {

/// Pushes the text of the error value at `index`, by its `__tostring`, else by its type. May raise a Lua error.
void PushErrorText(lua_State* L, int index);

/// The calls that are under way, innermost first, in the words of Lua's own traceback but without the names that C
/// functions have in their modules. Takes no memory of the state's and raises nothing, so it serves where Lua has run
/// out of it; empty when there is none at all.
std::string Traceback(lua_State* L) noexcept;

} // namespace VexCore
