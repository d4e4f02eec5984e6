#pragma once
// Native modules for Lua code: what the standard libraries lack.
//
//   vex.fs        folders, kinds of files, terminals
//   vex.host      facts about this host, from the system's own interfaces
//   vex.settings  settings with their fallback in the configuration file
//   vex.db        SQLite databases
//   vex.agent     facts about this process, and files for collectors
//
// A failure of the system is nil and a message; a fact that cannot be had is absent. docs/LUA-API.md, "Modules", lists
// the functions.

struct lua_State;

namespace VexCore {

/// Puts the modules into package.preload of a state whose standard libraries are open; each is made when it
/// is first required. May raise a Lua error.
void RegisterNativeModules(lua_State* L);

} // namespace VexCore
