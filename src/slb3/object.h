#pragma once
// The record at the start of every userdata of the binder: how Lua holds a C++ object, and who owns it.

#include "slb3/config.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace SLB3 {

template <class T>
struct Wrapper;

namespace internal {

/// Where the object is. The low two bits of `ObjectRecord::flags`.
enum StorageKind : std::uint32_t {
    StorageNone = 0, ///< nowhere: not made yet, or destroyed by the collector
    StorageValue = 1, ///< inside the userdata, behind the record; dies with it
    StoragePointer = 2, ///< elsewhere, held by pointer
};

/// Who destroys an object that is held by pointer. The bits of `ObjectRecord::flags` above the kind.
enum OwnershipPolicy : std::uint32_t {
    PolicyReference = 0, ///< never Lua: the object outlives the state
    PolicyOwned = 1, ///< Lua, with `delete`, when the userdata is collected
};

constexpr std::uint32_t storageMask = 3;
constexpr unsigned policyShift = 2;

/// A step from a class to one of its parents. Arrays of them end with an entry without a name.
struct ParentConversion
{
    const char* parentName;
    void* (*convert)(void* object);
};

struct ObjectRecord;
/// Gives the object that a record stands for, null when it has none any more.
using UnpackFunction = void* (*)(const ObjectRecord& record);

struct ObjectRecord
{
    std::uint32_t flags; ///< StorageKind, and OwnershipPolicy << policyShift
    const char* className; ///< constant text
    UnpackFunction unpack;
    const ParentConversion* parents; ///< what `GetParentsConversionArray` gave
    void* pointer;
    const void* tag; ///< `&objectTag`

    StorageKind Kind() const { return static_cast<StorageKind>(flags & storageMask); }
    OwnershipPolicy Policy() const { return static_cast<OwnershipPolicy>(flags >> policyShift); }
};

/// Its address marks what is a record: the metatable does not, since Lua's debug library gives any metatable to any
/// userdata.
SLB3_API extern const char objectTag;

/// The record of the value at `index`; null when that is no object of the binder.
inline ObjectRecord* FindRecord(lua_State* L, int index)
{
    auto* const record = static_cast<ObjectRecord*>(lua_touserdata(L, index));
    return record && lua_rawlen(L, index) >= sizeof(ObjectRecord) && record->tag == &objectTag ? record : nullptr;
}

/// The same for objects of one class only.
template <class T>
ObjectRecord* FindRecordOf(lua_State* L, int index)
{
    ObjectRecord* const record = FindRecord(L, index);
    const char* const name = Wrapper<T>::name; // may have another address in another library
    return record && (record->className == name || std::strcmp(record->className, name) == 0) ? record : nullptr;
}

/// The conversions of the class's parents, for records of its objects. Never null; a class without parents,
/// or one that is not known in this state, has only the end mark. Lives as long as the program.
SLB3_API const ParentConversion* GetParentsConversionArray(lua_State* L, const char* className);

/// Pushes a userdata with a filled record and, behind it, `extraBytes` for a value. It has no metatable yet.
SLB3_API ObjectRecord* PushRecord(lua_State* L, StorageKind kind, OwnershipPolicy policy, const char* className,
                                  UnpackFunction unpack, void* object, std::size_t extraBytes);

/// What a value in a userdata may ask for: Lua aligns its blocks for a pointer or a double, not for more.
constexpr std::size_t valueAlignment = alignof(double) > alignof(void*) ? alignof(double) : alignof(void*);

template <class T>
void* Unpack(const ObjectRecord& record)
{
    return record.Kind() == StorageNone ? nullptr : record.pointer;
}

/// Pushes a userdata that refers to `object`. The caller gives it the class's metatable. With PolicyReference
/// the object must outlive the state; with PolicyOwned it is Lua's from the moment that the metatable is set.
template <class T>
ObjectRecord* PushObjectRecord(lua_State* L, T* object, OwnershipPolicy policy = PolicyReference)
{
    return PushRecord(L, StoragePointer, policy, Wrapper<T>::name, &Unpack<T>, object, 0);
}

/// Ends the life of what a record owns. The record stays, empty: a script may have kept the userdata alive.
template <class T>
void Destroy(ObjectRecord& record)
{
    const ObjectRecord old = record;
    record.flags = StorageNone;
    record.pointer = nullptr;
    if constexpr (std::is_destructible_v<T>) {
        if (old.Kind() == StorageValue)
            static_cast<T*>(old.pointer)->~T();
        else if (old.Kind() == StoragePointer && old.Policy() == PolicyOwned)
            delete static_cast<T*>(old.pointer);
    }
}

} // namespace internal
} // namespace SLB3
