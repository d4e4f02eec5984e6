#pragma once
// What lies beside an agent's executable: packages and markers that wait, packages that were unpacked and what has
// become of their files, and extensions.

#include "vex/apps/vexctl/package_check.h"
#include "vex/apps/vexctl/place.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Vexctl {

/// A file that a package has put beside the executable.
struct InstalledFile
{
    enum class State {
        AsPacked,
        Replaced, ///< it is as another installed package has it
        Changed, ///< it is as no installed package has it
        Missing,
        Unreadable,
    };

    std::string name; ///< below the folder of the executable
    State state = State::AsPacked;
    std::string by; ///< the file name of the package that it is from, where it is replaced
    std::string problem; ///< why it cannot be read
};

const char* StateWord(InstalledFile::State state);

/// A package that was unpacked, and has been renamed since.
struct InstalledPackage
{
    enum class State {
        Installed, ///< all files are as packed, or replaced by another plugin's
        Changed, ///< some file has been changed or is missing
        Replaced, ///< another package of the plugin has brought files of it anew
        Removed, ///< no file is there
        Damaged, ///< the package does not tell what it has brought
        Unreadable,
    };

    PackageName name;
    std::string path;
    State state = State::Installed;
    std::vector<InstalledFile> files;
    std::string problem; ///< of a damaged or unreadable one
    std::int64_t cameNs = 0; ///< when it was renamed, by the clock of its file system; 0: that is not known

    std::size_t Count(InstalledFile::State fileState) const;
};

const char* StateWord(InstalledPackage::State state);

struct Extension
{
    Verdict verdict;
    std::string version; ///< empty: its version file tells none
    std::string package; ///< the file name of the package that it is from; empty: none that is there
};

struct PackagesBeside
{
    std::string folder, extensionFolder;
    std::vector<Verdict> waiting; ///< packages and markers, in the order of ComesBefore
    std::vector<InstalledPackage> installed; ///< the same
    std::vector<Extension> extensions; ///< by name
    std::vector<std::string> problems; ///< what could not be read
};

/// Names that the launcher looks at, in a folder. Throws Failure when it cannot be listed; none where it is missing.
std::vector<PackageName> ListPackages(const std::string& folder);

/// The packages of a folder that were unpacked.
std::vector<InstalledPackage> FindInstalled(const std::string& folder, const VexCore::ZipLimits& limits);

/// `extensionFolder` is below the folder of the executable unless it is absolute.
PackagesBeside FindPackages(const Place& place, const std::string& extensionFolder);

} // namespace Vexctl
