#pragma once
// The directory of an archive: one record an entry, each held against every rule that can be seen from it alone.

#include "vex_core/zip/zip_end_record.h"
#include "vex_core/zip/zip_reader.h"
#include "vex_core/zip/zip_refused.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VexCore::Zip {

struct Directory
{
    std::vector<ZipEntry> entries; ///< in the order of the records; `dataOffset` is not known from here
    std::uint32_t checksum = 0; ///< of all records' bytes: a CRC-32
};

/// Throws Refused. With `reasons`, records that break a rule are told there and left out.
Directory ReadDirectory(Window& window, const DirectoryPlace& place, const ZipLimits& limits, Reasons* reasons);

/// The indexes of the entries in the order of ComparePaths. Throws Refused where two of them cannot both be unpacked,
/// or tells each that cannot.
std::vector<std::uint32_t> OrderByName(const std::vector<ZipEntry>& entries, Reasons* reasons);

} // namespace VexCore::Zip
