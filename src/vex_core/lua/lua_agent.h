#pragma once
// The native module vex.agent: facts about this process, and files for collectors. docs/LUA-API.md lists its functions.

struct lua_State;

namespace VexCore {

/// Pushes the module's table; for package.preload.
int OpenLuaAgent(lua_State* L);

} // namespace VexCore
