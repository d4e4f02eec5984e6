#pragma once
// os.execute and io.popen of a Lua state.

struct lua_State;

namespace VexCore {

/// Puts ours in place of the standard libraries', which are open; arguments and results are the same. Raises Lua
/// errors.
void InstallPrograms(lua_State* L);

} // namespace VexCore
