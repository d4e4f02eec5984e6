#pragma once
// A Lua value outside of any state, on its way from one state to another.

#include <string>
#include <utility>
#include <variant>
#include <vector>

struct lua_State;

namespace VexCore {

/// nil, boolean, number, string, or a table of them, copied in depth. A table's metatable is not part of it.
struct LuaValue
{
    using Pairs = std::vector<std::pair<LuaValue, LuaValue>>;
    std::variant<std::monostate, bool, double, std::string, Pairs> value;

    /// Copies the value at a stack index. False, with the reason in `error`, when it holds something that
    /// cannot be copied (function, userdata, thread), a table that contains itself, or more than a hundred
    /// tables in each other, or a million values. Leaves the stack as it was.
    static bool Copy(lua_State* L, int index, LuaValue& copy, std::string& error);

    /// Pushes the value. Raises Lua errors when there is no memory.
    void Push(lua_State* L) const;
};

} // namespace VexCore
