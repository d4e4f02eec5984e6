#pragma once
// The end of an archive, from which everything else is found.

#include "vex_core/zip/zip_window.h"

#include <cstdint>

namespace VexCore::Zip {

/// Where the directory lies, as the end record, or the pair of ZIP64 records before it, says and as was checked: it
/// ends where the first of these records begins.
struct DirectoryPlace
{
    std::uint64_t offset = 0; ///< in the file
    std::uint64_t size = 0; ///< bytes
    std::uint64_t count = 0; ///< of entries, as it is claimed
    std::uint64_t end = 0; ///< in the file: of the directory
};

/// Throws Refused.
DirectoryPlace FindDirectory(Window& window);

} // namespace VexCore::Zip
