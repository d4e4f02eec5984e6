#pragma once
// The launcher's verdict on a package before it has it: the launcher's own rules of names and versions, and the core
// library's own reader.

#include "vex/apps/vexctl/package_file.h"
#include "vex/apps/vexctl/place.h"

#include "vex_core/zip/zip_reader.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Vexctl {

struct Verdict
{
    std::string path;
    std::optional<PackageName> name; ///< absent: the launcher does not look at a file of this name
    std::size_t files = 0;
    std::uint64_t bytes = 0; ///< unpacked
    std::vector<std::string> reasons; ///< why it is refused, every rule; empty: it is taken
    std::string unread; ///< why nothing can be said: it is not there, or cannot be read
    std::shared_ptr<const VexCore::ZipArchive> archive; ///< null where it cannot be opened

    bool Accepted() const { return reasons.empty() && unread.empty(); }
    /// A line that says what the next start does with it, or that it is refused.
    std::string Summary() const;
};

/// Of packages and markers, as the agent's settings have them ("app.unzip.*").
VexCore::ZipLimits LimitsOf(const Place& place);

/// `name` is the file's name without folder where it is to have another one than it has.
Verdict CheckPackage(const std::string& path, const VexCore::ZipLimits& limits = VexCore::ZipLimits(),
                     const std::string& name = std::string());

/// "1 file", "2 files".
std::string Counted(std::size_t count, const char* singular);

} // namespace Vexctl
