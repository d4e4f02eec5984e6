#include "slb3/error.h"

#include "slb3/object.h"

#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <new>
#include <typeinfo>

namespace SLB3::internal {

namespace {
// "Class:Method" of the running closure, on the stack.
const char* PushMethodName(lua_State* L)
{
    lua_getfield(L, lua_upvalueindex(upvalueMetatable), "__class");
    const char* className = lua_tostring(L, -1);
    return lua_pushfstring(L, "%s:%s", className ? className : "?",
                           lua_tostring(L, lua_upvalueindex(upvalueMethodName)));
}

// The type of a value; for objects the name of their class.
const char* TypeGot(lua_State* L, int index)
{
    const ObjectRecord* const record = FindRecord(L, index);
    return record ? record->className : luaL_typename(L, index);
}

// What Lua throws is a pointer to a type that its headers do not show.
constexpr const char* luaErrorTypeName = "P11lua_longjmp";

} // namespace

void RaiseArgumentError(lua_State* L, int index, const char* wanted, const char* got)
{
    luaL_checkstack(L, 8, "argument error");
    if (!got)
        got = TypeGot(L, index);
    luaL_error(L, "bad argument #%d to '%s' (%s expected, got %s)", index - 1, PushMethodName(L), wanted, got);
    std::terminate(); // luaL_error does not return, but is not declared so
}

void RaiseReceiverError(lua_State* L)
{
    luaL_checkstack(L, 8, "argument error");
    const char* got = TypeGot(L, 1);
    lua_getfield(L, lua_upvalueindex(upvalueMetatable), "__class");
    const char* wanted = lua_tostring(L, -1);
    if (got && wanted && std::strcmp(got, wanted) == 0)
        luaL_error(L, "bad argument #0 (self) to '%s' (%s expected, got one that was collected)", PushMethodName(L),
                   wanted);
    luaL_error(L, "bad argument #0 (self) to '%s' (%s expected, got %s; methods are called with ':')",
               PushMethodName(L), wanted, got);
    std::terminate();
}

void RaiseText(lua_State* L, const char* text)
{
    luaL_error(L, "%s", text);
    std::terminate();
}

bool DescribeException(char (&text)[exceptionTextBytes]) noexcept
{
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (!type || std::strcmp(type->name(), luaErrorTypeName) == 0)
        return false;
    try {
        throw;
    } catch (const std::bad_alloc&) {
        std::snprintf(text, sizeof(text), "not enough memory"); // as Lua itself says it
    } catch (const std::exception& e) {
        std::snprintf(text, sizeof(text), "%s", e.what());
    } catch (const char* message) {
        std::snprintf(text, sizeof(text), "%s", message);
    } catch (...) {
        std::snprintf(text, sizeof(text), "C++ exception of type %s", type->name());
    }
    return true;
}

} // namespace SLB3::internal
