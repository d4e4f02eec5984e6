#include "slb3/object.h"

#include "slb3/class.h"

namespace SLB3::internal {

const char objectTag = 0;

ObjectRecord* PushRecord(lua_State* L, StorageKind kind, OwnershipPolicy policy, const char* className,
                         UnpackFunction unpack, void* object, std::size_t extraBytes)
{
    const ParentConversion* parents = GetParentsConversionArray(L, className);
    auto* record = static_cast<ObjectRecord*>(lua_newuserdata(L, sizeof(ObjectRecord) + extraBytes));
    record->flags = kind | policy << policyShift;
    record->className = className;
    record->unpack = unpack;
    record->parents = parents;
    record->pointer = object;
    record->tag = &objectTag;
    return record;
}

} // namespace SLB3::internal
