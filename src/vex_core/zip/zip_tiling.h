#pragma once
// What lies before the directory: local headers, data and descriptors.

#include "vex_core/zip/zip_end_record.h"
#include "vex_core/zip/zip_reader.h"
#include "vex_core/zip/zip_refused.h"

#include <vector>

namespace VexCore::Zip {

/// Compares the local header of each entry, and the descriptor behind its data where there is one, with the directory,
/// sees that these follow each other without overlap or gap from the first byte of the file to the directory, and notes
/// where each entry's data begin. Throws Refused, or tells each entry for which that does not hold.
void CheckTiling(Window& window, const DirectoryPlace& directory, std::vector<ZipEntry>& entries, Reasons* reasons);

} // namespace VexCore::Zip
