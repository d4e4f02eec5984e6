#pragma once
// The one template that users of the binder specialise. What a specialisation calls is in class.h.

namespace SLB3 {

namespace internal {
template <class T>
class Class;
}

/// How a class looks in Lua: specialise it for each bound class, with
///   static constexpr const char* name = "Group.Class";
///   static void Register(internal::Class<T>& definition);   // adds the methods
template <class T>
struct Wrapper;

} // namespace SLB3
