#include "vex/apps/vexctl/package_maker.h"

#include "vex/apps/vexctl/archive_writer.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/os/surroundings.h"

#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/zip/unzip_check.h"
#include "vex_core/zip/zip_names.h"

#include <algorithm>
#include <iterator>

#include <fcntl.h>

namespace Vexctl {

namespace {
[[noreturn]] void Fail(const std::string& path)
{
    throw Failure(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
}

// Goes through a folder and what is below it.
class Walk
{
public:
    Walk(const std::string& folder, std::vector<std::string> excluded, const std::string& output)
        : m_root(folder), m_excluded(std::move(excluded))
    {
        for (std::string& path : m_excluded)
            path.erase(path.find_last_not_of('/') + 1);
        struct stat status = {};
        if (VexCore::os::Stat(output.c_str(), status) != 0)
            Fail(output);
        m_output = VexCore::os::IdentityOf(status);
        if (VexCore::os::Stat(folder.c_str(), status) != 0)
            Fail(folder);
        if (!S_ISDIR(status.st_mode))
            throw Failure(folder + " is no folder");
        GoThrough(std::string(), status);
        std::sort(content.files.begin(), content.files.end(),
                  [](const PackedFile& a, const PackedFile& b) { return a.name < b.name; });
        for (std::vector<std::string>* const texts : {&content.hidden, &content.reasons})
            std::sort(texts->begin(), texts->end());
    }

    FolderContent content;

private:
    // `below` is the folder's path in the tree with a slash behind it, or empty.
    void GoThrough(const std::string& below, const struct stat& status)
    {
        if (m_output.IsFileOf(status))
            throw Failure("the package would be put into the folder that is packed; name another with --output");
        std::vector<std::string> names;
        const std::string path = m_root + "/" + below;
        const auto note = [&names](const char* name) {
            names.emplace_back(name);
            return true;
        };
        if (VexCore::os::ListFolder(path.c_str(), note) != 0)
            Fail(path);
        for (const std::string& name : names)
            Look(below + name, name.front() == '.');
    }

    void Look(const std::string& name, bool isHidden)
    {
        if (std::find(m_excluded.begin(), m_excluded.end(), name) != m_excluded.end())
            return;
        if (isHidden) {
            content.hidden.push_back(name);
            return;
        }
        const std::string path = m_root + "/" + name;
        struct stat status = {};
        if (VexCore::os::LStat(path.c_str(), status) != 0)
            Fail(path);
        // Before what lies in it, so that the depth is bounded.
        if (const char* const why = VexCore::Zip::WhyNameIsRefused(name))
            content.reasons.push_back(path + ": " + why);
        else if (S_ISDIR(status.st_mode))
            GoThrough(name + "/", status);
        else if (S_ISREG(status.st_mode))
            content.files.push_back({name, path, (status.st_mode & S_IXUSR) != 0 ? 0755u : 0644u});
        else
            content.reasons.push_back(path + ": it is neither a regular file nor a folder");
    }

    const std::string m_root;
    std::vector<std::string> m_excluded;
    VexCore::os::FileIdentity m_output;
};

// The content of a file, piece by piece.
class FileSource
{
public:
    explicit FileSource(const std::string& path) : m_path(path), m_buffer(128 * 1024)
    {
        struct stat status = {};
        m_file =
            VexCore::os::Descriptor(VexCore::os::Open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
        if (!m_file || VexCore::os::FStat(m_file.Get(), status) != 0)
            Fail(path);
        if (!S_ISREG(status.st_mode))
            throw Failure(path + " was replaced meanwhile");
    }

    std::string_view Next()
    {
        const ssize_t count = VexCore::os::Read(m_file.Get(), m_buffer.data(), m_buffer.size());
        if (count < 0)
            Fail(m_path);
        return {m_buffer.data(), static_cast<std::size_t>(count)};
    }

private:
    const std::string m_path;
    std::vector<char> m_buffer;
    VexCore::os::Descriptor m_file;
};

} // namespace

FolderContent ReadFolder(const std::string& folder, const std::vector<std::string>& excluded, const std::string& output)
{
    return Walk(folder, excluded, output).content;
}

void WriteArchive(NewFile& archive, const std::vector<PackedFile>& files, Progress& progress)
{
    ArchiveWriter writer([&archive](const char* data, std::size_t size) { archive.Write({data, size}); });
    const std::string ofAll = " of " + Counted(files.size(), "file") + ": ";
    std::size_t at = 0;
    for (const PackedFile& file : files) {
        ++at;
        const auto tell = [&] {
            if (progress.IsDue())
                progress.Show("packing " + std::to_string(at) + ofAll + file.name);
        };
        tell();
        if (file.path.empty()) {
            writer.Add(file.name, file.mode, [] { return std::string_view(); });
            continue;
        }
        FileSource source(file.path);
        writer.Add(file.name, file.mode, [&] {
            tell();
            return source.Next();
        });
    }
    writer.Finish();
    archive.Close();
}

std::vector<std::string> WhyRefused(const std::string& path, const VexCore::ZipLimits& limits)
{
    std::vector<std::string> reasons;
    const auto archive = VexCore::OpenToUnzip(path, limits, reasons);
    if (archive) {
        std::vector<std::string> damaged = VexCore::DamagedEntries(*archive);
        std::move(damaged.begin(), damaged.end(), std::back_inserter(reasons));
    }
    return reasons;
}

std::string RealPath(const std::string& path)
{
    const std::string real = Vexctl::os::RealPath(path);
    if (real.empty())
        Fail(path);
    return real;
}

} // namespace Vexctl
