#pragma once
// How C++ values travel over the Lua stack: `Value<T>::Get` reads an argument of a bound method or raises an argument
// error, `Value<T>::Push` pushes results and returns how many.

#include "slb3/error.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace SLB3 {

namespace internal {

template <class T, class Enable = void>
struct Value;

template <>
struct Value<bool>
{
    static bool Get(lua_State* L, int index)
    {
        if (lua_type(L, index) != LUA_TBOOLEAN)
            RaiseArgumentError(L, index, "boolean");
        return lua_toboolean(L, index) != 0;
    }
    static int Push(lua_State* L, bool value)
    {
        lua_pushboolean(L, value);
        return 1;
    }
};

/// Integers: a Lua number without fraction and in range. Texts are not taken for numbers.
template <class T>
struct Value<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
{
    static T Get(lua_State* L, int index)
    {
        if (lua_type(L, index) != LUA_TNUMBER)
            RaiseArgumentError(L, index, "integer");
        const lua_Number number = lua_tonumber(L, index);
        if (number != std::floor(number))
            RaiseArgumentError(L, index, "integer", "number with a fraction");
        // The upper limit is not a double, but one more than it is.
        constexpr lua_Number end = 2.0 * static_cast<lua_Number>(std::numeric_limits<T>::max() / 2 + 1);
        if (number < static_cast<lua_Number>(std::numeric_limits<T>::min()) || number >= end)
            RaiseArgumentError(L, index, "integer", "number out of range");
        return static_cast<T>(number);
    }
    static int Push(lua_State* L, T value)
    {
        lua_pushnumber(L, static_cast<lua_Number>(value));
        return 1;
    }
};

template <>
struct Value<double>
{
    static double Get(lua_State* L, int index)
    {
        if (lua_type(L, index) != LUA_TNUMBER)
            RaiseArgumentError(L, index, "number");
        return lua_tonumber(L, index);
    }
    static int Push(lua_State* L, double value)
    {
        lua_pushnumber(L, value);
        return 1;
    }
};

/// Bytes of a string; a number is taken in its text form, as Lua's own library does. Lives as long as the argument.
template <>
struct Value<std::string_view>
{
    static std::string_view Get(lua_State* L, int index)
    {
        std::size_t length = 0;
        const char* bytes = lua_tolstring(L, index, &length);
        if (!bytes)
            RaiseArgumentError(L, index, "string");
        return std::string_view(bytes, length);
    }
    static int Push(lua_State* L, std::string_view value)
    {
        lua_pushlstring(L, value.data(), value.size());
        return 1;
    }
};

template <>
struct Value<std::string>
{
    static std::string Get(lua_State* L, int index) { return std::string(Value<std::string_view>::Get(L, index)); }
    static int Push(lua_State* L, const std::string& value) { return Value<std::string_view>::Push(L, value); }
};

/// Text that ends at its first zero byte: a string with one inside would be cut silently, so it is refused.
template <>
struct Value<const char*>
{
    static const char* Get(lua_State* L, int index) { return GetWithSize(L, index).data(); }
    /// The same, for who would measure it again.
    static std::string_view GetWithSize(lua_State* L, int index)
    {
        const std::string_view text = Value<std::string_view>::Get(L, index);
        if (std::memchr(text.data(), 0, text.size()))
            RaiseArgumentError(L, index, "string", "string with a zero byte");
        return text;
    }
    static int Push(lua_State* L, const char* value)
    {
        lua_pushstring(L, value); // null becomes nil
        return 1;
    }
};

/// An argument that may be left out or nil; a result that may be nil.
template <class T>
struct Value<std::optional<T>>
{
    static std::optional<T> Get(lua_State* L, int index)
    {
        if (lua_isnoneornil(L, index))
            return std::nullopt;
        return Value<T>::Get(L, index);
    }
    static int Push(lua_State* L, const std::optional<T>& value)
    {
        if (value)
            return Value<T>::Push(L, *value);
        lua_pushnil(L);
        return 1;
    }
};

/// A result that is an array.
template <class T>
struct Value<std::vector<T>>
{
    static int Push(lua_State* L, const std::vector<T>& values)
    {
        lua_createtable(L, static_cast<int>(values.size()), 0);
        int at = 0;
        for (const T& value : values) {
            Value<T>::Push(L, value);
            lua_rawseti(L, -2, ++at);
        }
        return 1;
    }
};

} // namespace internal
} // namespace SLB3
