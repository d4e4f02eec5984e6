#pragma once
// The domain as Lua sees it: class "SLB.Dom". docs/LUA-API.md describes the methods.

#include "slb3/class.h"
#include "vex/core/export.h"

namespace VexCore {
class CDom;
}

namespace SLB3 {

template <>
struct VEX_CORE_API Wrapper<VexCore::CDom>
{
    static constexpr const char* name = "SLB.Dom";
    /// Adds the domain's methods to a class under definition. Raises Lua errors when there is no memory.
    static void Register(internal::Class<VexCore::CDom>& definition);
};

} // namespace SLB3
