#pragma once
// The definition of a C++ class in a Lua state.

#include "slb3/method.h"
#include "slb3/namespace.h"
#include "slb3/object.h"
#include "slb3/wrapper.h"

#include <cassert>
#include <initializer_list>

namespace SLB3 {
namespace internal {

/// What the binder notes about a defined class.
struct ClassInfo
{
    int typeCode; ///< typeCodeClass
    const char* name; ///< constant text
    int argumentCount; ///< of a constructor that Lua may call; 0: there is none
};

constexpr int typeCodeClass = 3;

/// Announces that the class of the metatable at `index` is being defined.
/// Until `OnClassDefinitionEnds` it counts as unfinished.
SLB3_API void OnClassDefinitionBegins(lua_State* L, int index);
/// The definition is whole.
SLB3_API void OnClassDefinitionEnds(lua_State* L, int index);
/// Notes what a class is, under its metatable at `index`.
SLB3_API void RegisterInfoClass(lua_State* L, int index, const ClassInfo& info);

/// What was noted about the class of the metatable at `index`; null when nothing was.
SLB3_API const ClassInfo* FindClassInfo(lua_State* L, int index);
/// Whether the definition of the class of the metatable at `index` has ended. An error in between leaves it unfinished.
SLB3_API bool ClassIsDefined(lua_State* L, int index);

/// Adds one function to the class table of the metatable at `index`.
SLB3_API void AddMethod(lua_State* L, int index, const char* name, lua_CFunction function);
/// Gives the metatable its fields and the class table its own metatable.
SLB3_API void FillMetatable(lua_State* L, int index, const Table& classTable, const char* name, lua_CFunction collect);

/// A class under definition, on its metatable at a stack index. The metatable is left with "__index" (the class table),
/// "__class" (the name) and "__gc". Raises Lua errors when there is no memory.
template <class T>
class Class
{
public:
    Class(lua_State* L, int metatable) : m_L(L), meta_(lua_absindex(L, metatable))
    {
        assert(lua_istable(L, meta_) && "Invalid metatable");
        const int top = lua_gettop(L);
        const Namespace classTable(L, Wrapper<T>::name);
        OnClassDefinitionBegins(L, meta_);
        FillMetatable(L, meta_, classTable, Wrapper<T>::name, &Collect);
        RegisterInfoClass(L, meta_, ClassInfo{typeCodeClass, Wrapper<T>::name, 0});
        assert(top == lua_gettop(L) && "screwed stack at class creation");
        (void)top;
    }

    /// Adds a method: `&T::Member`, or a function `R (T&, parameters...)` or `int (T&, lua_State*)`. The pointer is
    /// part of the type, so a call goes straight to it.
    template <auto member>
    Class& Method(const char* name)
    {
        AddMethod(m_L, meta_, name, &Invoke<T, member>);
        return *this;
    }

private:
    static int Collect(lua_State* L)
    {
        return Guard(L, [L] {
            // Lua code can reach this function through the metatable and call it with anything, also twice.
            if (ObjectRecord* const record = FindRecordOf<T>(L, 1))
                Destroy<T>(*record);
            return 0;
        });
    }

    lua_State* m_L;
    int meta_;
};

} // namespace internal

/// Pushes the metatable of a bound class, which is defined now when it was not.
template <class T>
void PushMetatable(lua_State* L)
{
    if (!luaL_newmetatable(L, Wrapper<T>::name) && internal::ClassIsDefined(L, -1))
        return;
    internal::Class<T> definition(L, lua_gettop(L));
    Wrapper<T>::Register(definition);
    internal::OnClassDefinitionEnds(L, -1);
}

/// Pushes an object that Lua refers to and never destroys.
template <class T>
void PushReference(lua_State* L, T* object)
{
    PushMetatable<T>(L);
    internal::PushObjectRecord<T>(L, object);
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
}

/// Makes an object that Lua refers to and never destroys the value of globals; null makes them nil.
template <class T>
void SetGlobalReference(lua_State* L, std::initializer_list<const char*> names, T* object)
{
    if (object)
        PushReference(L, object);
    else
        lua_pushnil(L);
    for (const char* const name : names) {
        lua_pushvalue(L, -1);
        lua_setglobal(L, name);
    }
    lua_pop(L, 1);
}

/// Pushes an object made from `arguments` inside the userdata. It is Lua's and dies with the userdata.
template <class T, class... Arguments>
T& PushValue(lua_State* L, Arguments&&... arguments)
{
    static_assert(alignof(T) <= internal::valueAlignment, "Lua does not align userdata that far");
    PushMetatable<T>(L);
    internal::ObjectRecord* record = internal::PushRecord(L, internal::StorageNone, internal::PolicyReference,
                                                          Wrapper<T>::name, &internal::Unpack<T>, nullptr, sizeof(T));
    T* object = new (record + 1) T(std::forward<Arguments>(arguments)...);
    record->pointer = object;
    record->flags = internal::StorageValue;
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
    return *object;
}

} // namespace SLB3
