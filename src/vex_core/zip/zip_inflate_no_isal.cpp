// In builds without ISA-L, in the place of zip_inflate_isal.cpp.
#include "vex_core/zip/zip_inflate.h"

namespace VexCore::Zip {

std::unique_ptr<Inflate> NewIsalInflate()
{
    return nullptr;
}

} // namespace VexCore::Zip
