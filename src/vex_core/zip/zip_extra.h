#pragma once
// The extra fields of a header, and the values that its ZIP64 field holds in place of the header's own.

#include "vex_core/zip/zip_refused.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VexCore::Zip {

/// The headers that an entry has. They differ in what a ZIP64 field may hold.
enum class HeaderKind {
    Directory, ///< the record in the directory: place and disk can be in the field too
    Local, ///< in front of the data: sizes alone
    LocalBeforeDescriptor ///< the same, but the sizes may be 0, because they follow the data
};

/// Sizes and place of an entry as one of its headers gives them. The numbers of a header without place stay 0.
struct EntryExtent
{
    std::uint64_t size = 0; ///< bytes, unpacked
    std::uint64_t packedSize = 0; ///< bytes
    std::uint64_t offset = 0; ///< of the local header in the file
    std::uint32_t disk = 0;
};

/// Checks the `length` bytes of extra fields of entry `name` and puts the values of a ZIP64 field where `extent` is
/// full, which means "see there". Without such a field full numbers mean themselves: what they claim is checked like
/// any other claim. Throws Refused.
void ApplyExtraFields(std::string_view name, const unsigned char* fields, std::size_t length, HeaderKind kind,
                      EntryExtent& extent);

} // namespace VexCore::Zip
