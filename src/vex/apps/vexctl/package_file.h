#pragma once
// Files of packages beside an agent's executable: what their names tell, by the launcher's own rules.

#include <optional>
#include <string>
#include <string_view>

namespace Vexctl {

enum class PackageKind {
    Package, ///< *.vxp: unpacked by the next start that installs
    Done, ///< *.vxp.done: has been unpacked
    Marker, ///< *.vxu: its files are deleted by that start
    Extension, ///< *.vxe: an archive of modules
};

/// "package", "installed package", "marker", "extension".
const char* KindWord(PackageKind kind);

struct PackageName
{
    std::string file; ///< without folder
    PackageKind kind = PackageKind::Package;
    std::string base; ///< without what tells the kind
    std::string plugin;
    std::string version, build; ///< empty where the name carries none
    bool fits = true; ///< whether the launcher takes a package of this version

    /// Version and build with a dash between them, or "-".
    std::string VersionText() const;
};

/// Absent for a name that the launcher does not look at: of another kind, or hidden.
std::optional<PackageName> ParsePackageName(std::string_view file);

/// Below 0, 0, above 0: runs of digits count as numbers, so that 4015 comes behind 999.
int CompareInNumberOrder(std::string_view left, std::string_view right);

/// By plugin, then version, then build, then the whole name.
bool ComesBefore(const PackageName& left, const PackageName& right);

} // namespace Vexctl
