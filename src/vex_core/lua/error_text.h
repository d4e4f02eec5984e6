#pragma once
// What an error value says.

struct lua_State;

namespace VexCore {

/// Pushes the text of the error value at `index`, by its `__tostring`, else by its type. May raise a Lua error.
void PushErrorText(lua_State* L, int index);

} // namespace VexCore
