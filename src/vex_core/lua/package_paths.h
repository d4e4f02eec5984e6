#pragma once
// package.path and package.cpath of one Lua state.

#include <string>

struct lua_State;

namespace VexCore {

/// The state's thread. Both members may raise a Lua error.
class PackagePaths
{
public:
    /// Keeps what Lua made them, without the templates that look into the current directory. Once, before `Set`.
    void ReadDefaults(lua_State* L);

    /// package.path becomes `path`, what lies in `bin`, the default; package.cpath likewise. Empty texts are left out.
    void Set(lua_State* L, const std::string& bin, const std::string& path, const std::string& cpath) const;

private:
    std::string m_path;
    std::string m_cpath;
};

} // namespace VexCore
