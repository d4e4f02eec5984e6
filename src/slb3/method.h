#pragma once
// Turns a member function, or a function whose first parameter is the object, into a function for Lua.

#include "slb3/error.h"
#include "slb3/object.h"
#include "slb3/stack.h"

#include <tuple>
#include <type_traits>
#include <utility>

namespace SLB3::internal {

/// The object of the running method, by what stands in the object itself.
template <class T>
inline T& Receiver(lua_State* L)
{
    if (const ObjectRecord* const record = FindRecordOf<T>(L, 1))
        if (void* const object = Unpack<T>(*record))
            return *static_cast<T*>(object);
    RaiseReceiverError(L);
}

/// What a parameter is read as.
template <class P>
using Read = Value<std::remove_cv_t<std::remove_reference_t<P>>>;

template <class Result, class Call>
int PushResult(lua_State* L, Call call)
{
    if constexpr (std::is_void_v<Result>) {
        call();
        return 0;
    } else {
        return Read<Result>::Push(L, call());
    }
}

template <class T, auto member, class Result, class... Parameters, std::size_t... I>
int CallWithArguments(lua_State* L, T& self, std::index_sequence<I...>)
{
    // Braces, because they fix the order: the first wrong argument is the one that is reported.
    std::tuple<std::decay_t<Parameters>...> arguments{Read<Parameters>::Get(L, static_cast<int>(I) + 2)...};
    (void)arguments;
    return PushResult<Result>(L, [&]() -> Result {
        if constexpr (std::is_member_function_pointer_v<decltype(member)>)
            return (self.*member)(std::get<I>(arguments)...);
        else
            return member(self, std::get<I>(arguments)...);
    });
}

template <class T, auto member, class Signature>
struct Caller;

template <class T, auto member, class C, class R, class... P>
struct Caller<T, member, R (C::*)(P...)>
{
    static int Call(lua_State* L, T& self)
    {
        return CallWithArguments<T, member, R, P...>(L, self, std::index_sequence_for<P...>());
    }
};
template <class T, auto member, class C, class R, class... P>
struct Caller<T, member, R (C::*)(P...) const> : Caller<T, member, R (C::*)(P...)>
{};
template <class T, auto member, class R, class... P>
struct Caller<T, member, R (*)(T&, P...)>
{
    static int Call(lua_State* L, T& self)
    {
        return CallWithArguments<T, member, R, P...>(L, self, std::index_sequence_for<P...>());
    }
};
/// A function that works on the stack itself. It still has its receiver checked and its exceptions
/// translated.
template <class T, auto member>
struct Caller<T, member, int (*)(T&, lua_State*)>
{
    static int Call(lua_State* L, T& self) { return member(self, L); }
};

/// The function that Lua calls.
template <class T, auto member>
int Invoke(lua_State* L)
{
    return Guard(L, [L] { return Caller<T, member, decltype(member)>::Call(L, Receiver<T>(L)); });
}

} // namespace SLB3::internal
