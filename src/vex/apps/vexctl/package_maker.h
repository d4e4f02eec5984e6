#pragma once
// Making packages: what is in a folder, and an archive of it.

#include "vex/apps/vexctl/new_file.h"
#include "vex/apps/vexctl/package_check.h"
#include "vex/apps/vexctl/progress.h"

#include <string>
#include <vector>

namespace Vexctl {

struct PackedFile
{
    std::string name; ///< in the archive
    std::string path; ///< whose content it has; empty: none
    unsigned mode = 0644; ///< 0755 for what its owner may execute
};

struct FolderContent
{
    std::vector<PackedFile> files; ///< in the order of the bytes of their names
    std::vector<std::string> hidden; ///< left out, because their names begin with a dot
    std::vector<std::string> reasons; ///< why the launcher would refuse a package of it, as far as names and kinds tell
};

/// All regular files at any depth. `excluded` are paths in it; `output` must not lie in it. Throws Failure when
/// something cannot be read.
FolderContent ReadFolder(const std::string& folder, const std::vector<std::string>& excluded,
                         const std::string& output);

/// Writes an archive of these files and closes it; tells the file that it is at. Throws Failure.
void WriteArchive(NewFile& archive, const std::vector<PackedFile>& files, Progress& progress);

/// Every reason for which the launcher would refuse an archive that has no name of its own yet.
std::vector<std::string> WhyRefused(const std::string& path, const VexCore::ZipLimits& limits);

/// The path without links, "." and "..". Throws Failure when there is nothing.
std::string RealPath(const std::string& path);

} // namespace Vexctl
