// Copies out of one state and into another. Each is used by its own thread, so the two never meet: what lies between is
// plain C++. What no other state could use, such as a function, is refused with its place in the value.

#include "vex_core/lua/lua_value.h"

#include <cmath>
#include <cstdio>

#include <lua.hpp>

namespace VexCore {

namespace {
constexpr std::size_t maxDepth = 100;
constexpr std::size_t maxValues =
    1000000; // a table that is shared is copied each time: a small graph can be a huge tree

class Copier
{
public:
    Copier(lua_State* L, std::string& error) : m_L(L), m_error(error) {}

    bool Copy(int index, LuaValue& copy)
    {
        if (++m_values > maxValues)
            return Refuse("more than a million values");
        switch (lua_type(m_L, index)) {
        case LUA_TNIL:
        case LUA_TNONE:
            return true;
        case LUA_TBOOLEAN:
            copy.value = lua_toboolean(m_L, index) != 0;
            return true;
        case LUA_TNUMBER:
            copy.value = static_cast<double>(lua_tonumber(m_L, index));
            return true;
        case LUA_TSTRING: {
            std::size_t length = 0;
            const char* bytes = lua_tolstring(m_L, index, &length);
            copy.value = std::string(bytes, length);
            return true;
        }
        case LUA_TTABLE:
            return CopyTable(lua_absindex(m_L, index), copy);
        default:
            return Refuse(luaL_typename(m_L, index));
        }
    }

private:
    bool CopyTable(int index, LuaValue& copy)
    {
        const void* const table = lua_topointer(m_L, index);
        for (const void* outer : m_open) {
            if (outer == table)
                return Refuse("table that contains itself");
        }
        if (m_open.size() >= maxDepth)
            return Refuse("tables nested too deep");
        luaL_checkstack(m_L, 8, "value to copy");
        m_open.push_back(table);
        LuaValue::Pairs pairs;
        lua_pushnil(m_L);
        while (lua_next(m_L, index)) {
            const std::size_t pathLength = m_path.size();
            AppendKey();
            pairs.emplace_back();
            if (!CopyKey(pairs.back().first) || !Copy(-1, pairs.back().second))
                return false;
            m_path.resize(pathLength);
            lua_pop(m_L, 1);
        }
        m_open.pop_back();
        copy.value = std::move(pairs);
        return true;
    }

    bool CopyKey(LuaValue& copy)
    {
        const int type = lua_type(m_L, -2);
        if (type != LUA_TSTRING && type != LUA_TNUMBER && type != LUA_TBOOLEAN)
            return Refuse((std::string(lua_typename(m_L, type)) + " as a key").c_str());
        return Copy(-2, copy);
    }

    // The key below the value on top, for messages. It is not converted in place: that would confuse lua_next.
    void AppendKey()
    {
        char number[64];
        switch (lua_type(m_L, -2)) {
        case LUA_TSTRING:
            m_path += '.';
            m_path += lua_tostring(m_L, -2);
            break;
        case LUA_TNUMBER:
            std::snprintf(number, sizeof(number), "[%.14g]", static_cast<double>(lua_tonumber(m_L, -2)));
            m_path += number;
            break;
        default:
            m_path += "[?]";
        }
    }

    bool Refuse(const char* what)
    {
        m_error = what;
        if (!m_path.empty())
            m_error += " at " + m_path;
        return false;
    }

    lua_State* m_L;
    std::string& m_error;
    std::string m_path;
    std::vector<const void*> m_open; // tables that are being copied, outermost first
    std::size_t m_values = 0;
};

} // namespace

bool LuaValue::Copy(lua_State* L, int index, LuaValue& copy, std::string& error)
{
    const int top = lua_gettop(L);
    const bool copied = Copier(L, error).Copy(lua_absindex(L, index), copy);
    lua_settop(L, top);
    return copied;
}

void LuaValue::Push(lua_State* L) const
{
    luaL_checkstack(L, 8, "copied value");
    if (const bool* boolean = std::get_if<bool>(&value)) {
        lua_pushboolean(L, *boolean);
    } else if (const double* number = std::get_if<double>(&value)) {
        lua_pushnumber(L, *number);
    } else if (const std::string* text = std::get_if<std::string>(&value)) {
        lua_pushlstring(L, text->data(), text->size());
    } else if (const Pairs* pairs = std::get_if<Pairs>(&value)) {
        lua_createtable(L, 0, static_cast<int>(pairs->size()));
        for (const auto& [key, element] : *pairs) {
            key.Push(L);
            element.Push(L);
            lua_rawset(L, -3);
        }
    } else {
        lua_pushnil(L);
    }
}

} // namespace VexCore
