#include "slb3/class.h"

namespace SLB3::internal {

namespace {
// Registry table: metatable -> userdata with a ClassEntry.
constexpr const char* classesName = "SLB3.classes";

struct ClassEntry
{
    ClassInfo info;
    bool hasInfo;
    bool isDefined;
};

// The entry of the metatable at `index`, null when it has none. The entry is kept alive by the registry.
ClassEntry* FindEntry(lua_State* L, int index)
{
    index = lua_absindex(L, index);
    luaL_getsubtable(L, LUA_REGISTRYINDEX, classesName);
    lua_pushvalue(L, index);
    lua_rawget(L, -2);
    auto* entry = static_cast<ClassEntry*>(lua_touserdata(L, -1));
    lua_pop(L, 2);
    return entry;
}

} // namespace

void OnClassDefinitionBegins(lua_State* L, int index)
{
    index = lua_absindex(L, index);
    luaL_getsubtable(L, LUA_REGISTRYINDEX, classesName);
    lua_pushvalue(L, index);
    auto* entry = static_cast<ClassEntry*>(lua_newuserdata(L, sizeof(ClassEntry)));
    *entry = ClassEntry{};
    lua_rawset(L, -3);
    lua_pop(L, 1);
}

void OnClassDefinitionEnds(lua_State* L, int index)
{
    ClassEntry* entry = FindEntry(L, index);
    assert(entry && entry->hasInfo && "class definition ends that did not begin");
    entry->isDefined = true;
}

void RegisterInfoClass(lua_State* L, int index, const ClassInfo& info)
{
    ClassEntry* entry = FindEntry(L, index);
    assert(entry && "class information outside of a definition");
    entry->info = info;
    entry->hasInfo = true;
}

const ClassInfo* FindClassInfo(lua_State* L, int index)
{
    const ClassEntry* entry = FindEntry(L, index);
    return entry && entry->hasInfo ? &entry->info : nullptr;
}

bool ClassIsDefined(lua_State* L, int index)
{
    const ClassEntry* entry = FindEntry(L, index);
    return entry && entry->isDefined;
}

const ParentConversion* GetParentsConversionArray(lua_State*, const char*)
{
    // No class declares a parent, so every class has the same array: the end mark.
    static const ParentConversion none[] = {{nullptr, nullptr}};
    return none;
}

void AddMethod(lua_State* L, int index, const char* name, lua_CFunction function)
{
    index = lua_absindex(L, index);
    lua_getfield(L, index, "__index");
    lua_pushstring(L, name);
    lua_pushvalue(L, index);
    lua_pushvalue(L, -2);
    lua_pushcclosure(L, function, 2);
    lua_rawset(L, -3);
    lua_pop(L, 1);
}

void FillMetatable(lua_State* L, int index, const Table& classTable, const char* name, lua_CFunction collect)
{
    index = lua_absindex(L, index);
    classTable.push();
    lua_newtable(L);
    lua_setmetatable(L, -2);
    lua_setfield(L, index, "__index");
    lua_pushstring(L, name);
    lua_setfield(L, index, "__class");
    lua_pushvalue(L, index);
    lua_pushcclosure(L, collect, 1);
    lua_setfield(L, index, "__gc");
}

} // namespace SLB3::internal
