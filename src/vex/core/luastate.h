#pragma once
// What every Lua state of the agent knows before its first chunk, the application's as a worker's. Made of calls of the
// interface alone, so that it holds for whatever core library has these declarations.

#include "slb3/class.h"
#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/wrap_dom.h"

#include <string>

namespace VexCore {

namespace internal {
// Not guarded on purpose: start-up has always made the domain by now.
// A sanitizer's check of the object would be a guard.
__attribute__((no_sanitize("undefined"))) inline void RegisterLoader(CDom* dom, lua_State* L)
{
    dom->RegisterLoader(L);
}

} // namespace internal

/// Sets the package paths by the domain's keys, makes the domain the globals "dom0" and "dom", which refer to it and
/// never own it, and registers its loader of modules. Without a domain the paths are empty and the globals nil. Leaves
/// the stack as it was. The state's thread, before the first chunk. Raises Lua errors.
inline void PrepareLuaState(CLuaInterpreter& lua, CDom* dom)
{
    const std::string cpath = dom ? dom->Get("app.lua.cpath") : std::string();
    const std::string path = dom ? dom->Get("app.lua.path") : std::string();
    const std::string bin = dom ? dom->Get("app.path.bin") : std::string();
    lua.SetPackagePaths(bin.c_str(), path.c_str(), cpath.c_str());
    SLB3::SetGlobalReference(lua.L(), {"dom0", "dom"}, dom);
    internal::RegisterLoader(dom, lua.L());
}

} // namespace VexCore
