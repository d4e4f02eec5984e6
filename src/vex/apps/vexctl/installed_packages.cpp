#include "vex/apps/vexctl/installed_packages.h"

#include "vex/apps/vexctl/command.h"

#include "vex/apps/vex/version_file.h"
#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/zip/unzip_check.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include <fcntl.h>
#include <wx/filefn.h>
#include <wx/log.h>
#include <wx/wfstream.h>

namespace Vexctl {

namespace {
using VexCore::ZipArchive;
using VexCore::ZipEntry;
using FileState = InstalledFile::State;
using PackageState = InstalledPackage::State;

// Compares a file with what an entry holds, byte by byte.
class Comparison
{
public:
    Comparison(const std::string& folder, const ZipArchive& archive) : m_folder(folder), m_archive(archive) {}

    // Throws Failure when the package's own data is damaged.
    InstalledFile Compare(const ZipEntry& entry) const
    {
        InstalledFile found;
        found.name = entry.name;
        const std::string path = m_folder + "/" + entry.name;
        const VexCore::os::Descriptor file(
            VexCore::os::Open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
        struct stat status = {};
        if (!file || VexCore::os::FStat(file.Get(), status) != 0) {
            found.state = StateOfError(VexCore::os::LastError());
            if (found.state == FileState::Unreadable)
                found.problem = VexCore::os::ErrorText(VexCore::os::LastError());
            return found;
        }
        if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) != entry.size)
            found.state = FileState::Changed;
        else
            CompareData(entry, file.Get(), found);
        return found;
    }

private:
    static FileState StateOfError(int error)
    {
        if (error == ENOENT || error == ENOTDIR)
            return FileState::Missing;
        // A link, a socket or a device that is not there stands in its place.
        return error == ELOOP || error == ENXIO ? FileState::Changed : FileState::Unreadable;
    }

    void CompareData(const ZipEntry& entry, int file, InstalledFile& found) const
    {
        std::vector<char> own;
        off_t at = 0;
        const auto compare = [&](const char* data, std::size_t size) {
            own.resize(size);
            const ssize_t count = VexCore::os::PReadFull(file, own.data(), size, at);
            at += static_cast<off_t>(size);
            if (count < 0) {
                found.state = FileState::Unreadable;
                found.problem = VexCore::os::ErrorText(VexCore::os::LastError());
            } else if (static_cast<std::size_t>(count) != size || std::memcmp(own.data(), data, size) != 0) {
                found.state = FileState::Changed;
            }
            return found.state == FileState::AsPacked;
        };
        std::string error;
        if (!m_archive.Read(entry, compare, error) && !error.empty())
            throw Failure("entry \"" + entry.name + "\": " + error);
    }

    const std::string& m_folder;
    const ZipArchive& m_archive;
};

InstalledPackage LookAt(const std::string& folder, const PackageName& name, const VexCore::ZipLimits& limits)
{
    InstalledPackage package;
    package.name = name;
    package.path = folder + "/" + name.file;
    std::vector<std::string> reasons;
    const auto archive = VexCore::OpenToUnzip(package.path, limits, reasons);
    if (!archive) {
        const VexCore::os::Descriptor file(VexCore::os::Open(package.path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
        package.state = file ? PackageState::Damaged : PackageState::Unreadable;
        package.problem = reasons.front();
        return package;
    }
    package.cameNs = archive->Identity().ctimeNs;
    const Comparison comparison(folder, *archive);
    try {
        for (const ZipEntry& entry : archive->Entries())
            if (!entry.isFolder)
                package.files.push_back(comparison.Compare(entry));
    } catch (const Failure& failure) {
        package.state = PackageState::Damaged;
        package.problem = failure.what();
    }
    return package;
}

// A file that several packages have brought is from the one as which it is. One that is as none of them has it has been
// changed since the last of them came; to the others it is replaced.
void FindReplaced(std::vector<InstalledPackage>& packages)
{
    std::map<std::string, const InstalledPackage*> sameAs;
    std::map<std::string, const InstalledPackage*> lastWith;
    for (const InstalledPackage& package : packages)
        for (const InstalledFile& file : package.files) {
            const InstalledPackage*& last = lastWith[file.name];
            if (!last || package.cameNs >= last->cameNs)
                last = &package;
            if (file.state == FileState::AsPacked)
                sameAs[file.name] = &package;
        }
    for (InstalledPackage& package : packages)
        for (InstalledFile& file : package.files) {
            if (file.state != FileState::Changed)
                continue;
            const auto same = sameAs.find(file.name);
            const InstalledPackage* const from = same != sameAs.end() ? same->second : lastWith[file.name];
            if (from != &package) {
                file.state = FileState::Replaced;
                file.by = from->name.file;
                if (from->name.plugin == package.name.plugin && package.state == PackageState::Installed)
                    package.state = PackageState::Replaced;
            }
        }
}

PackageState StateOf(const InstalledPackage& package)
{
    if (package.state != PackageState::Installed)
        return package.state;
    if (package.Count(FileState::Unreadable) != 0)
        return PackageState::Unreadable;
    const std::size_t missing = package.Count(FileState::Missing);
    if (missing != 0 && missing == package.files.size())
        return PackageState::Removed;
    const std::size_t replaced = package.Count(FileState::Replaced);
    if (replaced != 0 && replaced + missing == package.files.size())
        return PackageState::Replaced;
    return missing != 0 || package.Count(FileState::Changed) != 0 ? PackageState::Changed : PackageState::Installed;
}

std::string VersionBeside(const std::string& archive)
{
    const wxString file = VexCore::FromSystemBytes(archive + ".version");
    if (!wxFileExists(file))
        return std::string();
    const wxLogNull silence;
    wxFFileInputStream stream(file, "rb");
    const FileVersion version = stream.IsOk() ? ReadVersionFile(stream) : FileVersion();
    if (version.line != FileVersion::LineKind::WellFormed)
        return std::string();
    const auto number = [&version](int index) { return std::to_string(version.numbers[index]); };
    return number(0) + "." + number(1) + "." + number(2) + "-" + number(3);
}

// The package of which the file is, or was before it was changed.
std::string PackageOf(const std::vector<InstalledPackage>& packages, const std::string& name)
{
    std::string last;
    for (const InstalledPackage& package : packages)
        for (const InstalledFile& file : package.files)
            if (file.name == name && file.state != FileState::Replaced && file.state != FileState::Missing)
                last = package.name.file;
    return last;
}

void TellProblem(PackagesBeside& found, const std::string& path, const std::string& problem)
{
    found.problems.push_back(path + ": " + problem);
}

void AddExtensions(PackagesBeside& found, const std::string& below)
{
    for (const PackageName& name : ListPackages(found.extensionFolder)) {
        if (name.kind != PackageKind::Extension)
            continue;
        Extension extension;
        extension.verdict = CheckPackage(found.extensionFolder + "/" + name.file);
        extension.verdict.archive.reset();
        extension.version = VersionBeside(extension.verdict.path);
        extension.package = PackageOf(found.installed, below + name.file);
        if (!extension.verdict.unread.empty())
            TellProblem(found, extension.verdict.path, extension.verdict.unread);
        found.extensions.push_back(std::move(extension));
    }
}

} // namespace

const char* StateWord(InstalledFile::State state)
{
    switch (state) {
    case FileState::AsPacked:
        return "as packed";
    case FileState::Replaced:
        return "replaced";
    case FileState::Changed:
        return "changed";
    case FileState::Missing:
        return "missing";
    case FileState::Unreadable:
        break;
    }
    return "unreadable";
}

const char* StateWord(InstalledPackage::State state)
{
    switch (state) {
    case PackageState::Installed:
        return "installed";
    case PackageState::Changed:
        return "changed";
    case PackageState::Replaced:
        return "replaced";
    case PackageState::Removed:
        return "removed";
    case PackageState::Damaged:
        return "damaged";
    case PackageState::Unreadable:
        break;
    }
    return "unreadable";
}

std::size_t InstalledPackage::Count(InstalledFile::State fileState) const
{
    return static_cast<std::size_t>(std::count_if(
        files.begin(), files.end(), [fileState](const InstalledFile& file) { return file.state == fileState; }));
}

std::vector<PackageName> ListPackages(const std::string& folder)
{
    std::vector<PackageName> names;
    const auto look = [&](const char* file) {
        struct stat status = {};
        std::optional<PackageName> name = ParsePackageName(file);
        // The launcher lists everything but folders.
        if (name && !(VexCore::os::Stat((folder + "/" + file).c_str(), status) == 0 && S_ISDIR(status.st_mode)))
            names.push_back(std::move(*name));
        return true;
    };
    if (VexCore::os::ListFolder(folder.c_str(), look) != 0 && VexCore::os::LastError() != ENOENT)
        throw Failure(folder + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    std::sort(names.begin(), names.end(), ComesBefore);
    return names;
}

std::vector<InstalledPackage> FindInstalled(const std::string& folder, const VexCore::ZipLimits& limits)
{
    std::vector<InstalledPackage> packages;
    for (const PackageName& name : ListPackages(folder))
        if (name.kind == PackageKind::Done)
            packages.push_back(LookAt(folder, name, limits));
    FindReplaced(packages);
    for (InstalledPackage& package : packages)
        package.state = StateOf(package);
    return packages;
}

PackagesBeside FindPackages(const Place& place, const std::string& extensionFolder)
{
    PackagesBeside found;
    found.folder = place.binFolder;
    const VexCore::ZipLimits limits = LimitsOf(place);
    const bool isAbsolute = VexCore::StartsWith(extensionFolder, "/");
    found.extensionFolder = isAbsolute ? extensionFolder : found.folder + "/" + extensionFolder;
    for (const PackageName& name : ListPackages(found.folder))
        if (name.kind == PackageKind::Package || name.kind == PackageKind::Marker) {
            found.waiting.push_back(CheckPackage(found.folder + "/" + name.file, limits));
            found.waiting.back().archive.reset(); // there may be more of them than descriptors
            if (!found.waiting.back().unread.empty())
                TellProblem(found, found.waiting.back().path, found.waiting.back().unread);
        }
    found.installed = FindInstalled(found.folder, limits);
    for (const InstalledPackage& package : found.installed) {
        if (!package.problem.empty())
            TellProblem(found, package.path, package.problem);
        for (const InstalledFile& file : package.files)
            if (file.state == FileState::Unreadable)
                TellProblem(found, found.folder + "/" + file.name, file.problem);
    }
    const std::string prefix = found.folder + "/";
    const std::string below = VexCore::StartsWith(found.extensionFolder, prefix)
                                  ? found.extensionFolder.substr(prefix.size()) + "/"
                                  : "/"; // of which no package has a file
    AddExtensions(found, below);
    return found;
}

} // namespace Vexctl
