#pragma once
// The folder `out` below the work folder: files for collectors of other makers, who read them at any time.

#include "vex/core/dom.h"

#include <string>
#include <string_view>

namespace VexCore {

/// Puts a file with this content in the place of the one of that name in `out`, so that a reader finds the old one or
/// the new one and never a part. The folder is made, and kept, with the rights of "app.out.mode" and the group of
/// "app.out.group"; the file has the same but for the right to run it. Not flushed to the disk.
///
/// True: the file is there. `problem` is a sentence on what is not as the settings want it, most often empty. False:
/// what was there is as it was, and `problem` says why. Any thread, but one at a time for a name.
bool WriteOutFile(const CDom& dom, const std::string& name, std::string_view content, std::string& problem);

} // namespace VexCore
