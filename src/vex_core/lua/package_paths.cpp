#include "vex_core/lua/package_paths.h"

#include <initializer_list>

#include <lua.hpp>

namespace VexCore {

namespace {
// The templates of a list that do not look into the current directory.
std::string WithoutCurrentDirectory(const std::string& templates)
{
    std::string kept;
    for (std::size_t begin = 0; begin <= templates.size();) {
        std::size_t end = templates.find(';', begin);
        if (end == std::string::npos)
            end = templates.size();
        if (end > begin && templates.compare(begin, 2, "./") != 0) {
            kept += kept.empty() ? "" : ";";
            kept.append(templates, begin, end - begin);
        }
        begin = end + 1;
    }
    return kept;
}

std::string JoinTemplates(std::initializer_list<std::string> parts)
{
    std::string all;
    for (const std::string& part : parts) {
        if (!part.empty())
            all += (all.empty() ? "" : ";") + part;
    }
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
