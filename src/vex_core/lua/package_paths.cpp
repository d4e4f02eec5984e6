#include "vex_core/lua/package_paths.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/path_list.h"

#include <initializer_list>

#include <lua.hpp>

namespace VexCore {

namespace {
// The templates of a list that do not look into the current directory.
std::string WithoutCurrentDirectory(const std::string& templates)
{
    std::string kept;
    for (const std::string& item : SplitPathList(templates))
        if (!StartsWith(item, "./"))
            AddToPathList(kept, item);
    return kept;
}

std::string JoinTemplates(std::initializer_list<std::string> parts)
{
    std::string all;
    for (const std::string& part : parts)
        if (!part.empty())
            AddToPathList(all, part);
    return all;
}

std::string PackageField(lua_State* L, const char* field)
{
    lua_getglobal(L, "package");
    lua_getfield(L, -1, field);
    const char* value = lua_tostring(L, -1);
    std::string text = value ? value : "";
    lua_pop(L, 2);
    return text;
}

void SetPackageField(lua_State* L, const char* field, const std::string& value)
{
    lua_getglobal(L, "package");
    lua_pushlstring(L, value.data(), value.size());
    lua_setfield(L, -2, field);
    lua_pop(L, 1);
}

} // namespace

void PackagePaths::ReadDefaults(lua_State* L)
{
    m_path = WithoutCurrentDirectory(PackageField(L, "path"));
    m_cpath = WithoutCurrentDirectory(PackageField(L, "cpath"));
}

void PackagePaths::Set(lua_State* L, const std::string& bin, const std::string& path, const std::string& cpath) const
{
    std::string modules, natives;
    if (!bin.empty()) {
        modules = bin + "/?.lua;" + bin + "/?/init.lua";
        natives = bin + "/lib/?.so";
    }
    SetPackageField(L, "path", JoinTemplates({path, modules, m_path}));
    SetPackageField(L, "cpath", JoinTemplates({cpath, natives, m_cpath}));
}

} // namespace VexCore
