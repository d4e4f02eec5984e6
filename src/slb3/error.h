#pragma once
// Errors of bound methods, and the one place where C++ exceptions become Lua errors.

#include "slb3/config.h"

#include <cstddef>
#include <exception>

namespace SLB3::internal {

// A bound method is a closure with these upvalues.
constexpr int upvalueMetatable = 1; ///< of its class, whose name messages show
constexpr int upvalueMethodName = 2;

/// Raises "bad argument #P to 'Class:Method' (WANTED expected, got GOT)" for the value at a stack index of
/// the running method; the receiver is index 1, so the first argument, #1, is index 2. Without `got` it is
/// the value's type.
[[noreturn]] SLB3_API void RaiseArgumentError(lua_State* L, int index, const char* wanted, const char* got = nullptr);

/// The same for a receiver that is no object of the method's class, as after a call with "." in place of ":".
[[noreturn]] SLB3_API void RaiseReceiverError(lua_State* L);

/// Raises `text` with the place of the calling Lua code in front.
[[noreturn]] SLB3_API void RaiseText(lua_State* L, const char* text);

constexpr std::size_t exceptionTextBytes = 512;

/// Writes the text of the exception that is being handled, cut to the buffer. False when it is none to
/// translate: Lua's own error, which is an exception in a Lua that was built as C++, or the unwinding of a
/// thread that is being cancelled. Those go on.
SLB3_API bool DescribeException(char (&text)[exceptionTextBytes]) noexcept;

/// Runs `body` and turns an exception that leaves it into a Lua error with its text.
template <class Body>
int Guard(lua_State* L, Body body)
{
    char text[exceptionTextBytes];
    try {
        return body();
    } catch (...) {
        if (!DescribeException(text))
            throw;
    }
    // Outside of the handler, so that the exception is gone before the error unwinds.
    RaiseText(L, text);
}

/// A plain function of Lua under the guard, for a table of such functions.
template <lua_CFunction function>
int Guarded(lua_State* L)
{
    return Guard(L, [L] { return function(L); });
}

} // namespace SLB3::internal
