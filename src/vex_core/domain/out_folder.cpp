// The temporary file lies in the folder itself under a name of its own, so that the rename never leaves the file
// system. Who is killed meanwhile leaves it to the next write.

#include "vex_core/domain/out_folder.h"

#include "vex_core/base/steady_ms.h"
#include "vex_core/domain/group_cache.h"
#include "vex_core/domain/settings.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <cerrno>
#include <optional>

#include <fcntl.h>

namespace VexCore {
namespace {
constexpr char outFolderName[] = "out";

// Who may read, and nothing where the process's own group is to stay.
struct Readers
{
    mode_t folderMode = 0;
    std::optional<gid_t> group;
};

Readers ReadersOf(const CDom& dom, std::string& problem)
{
    Readers readers;
    readers.folderMode = static_cast<mode_t>(IntSetting(dom, "app.out.mode"));
    std::string name;
    if (!dom.GetSetting("app.out.group", name) || name.empty())
        return readers;
    static GroupCache& s_groups = *new GroupCache; // threads may come here while the process ends
    readers.group = s_groups.Get(name, SteadyMs(), os::FindGroup);
    if (!readers.group)
        problem = "the group '" + name
                  + "' of the setting app.out.group is not known to the system: make it, or name "
                    "another";
    return readers;
}

// Gives an open folder or file to its readers. False with the last error.
bool Admit(int descriptor, const std::optional<gid_t>& group, mode_t mode)
{
    struct stat status = {};
    if (os::FStat(descriptor, status) != 0)
        return false;
    if (group && status.st_gid != *group && os::FChownToGroup(descriptor, *group) != 0) {
        const os::KeepError error;
        os::FChmod(descriptor, mode); // the mode counts nevertheless
        return false;
    }
    return (status.st_mode & 07777) == mode || os::FChmod(descriptor, mode) == 0;
}

// Whether the path is the open folder itself and no link to it: where the operator leads us elsewhere, the folder is
// not ours to change.
bool IsFolderItself(const std::string& path, int folder)
{
    struct stat named = {};
    struct stat opened = {};
    return os::LStat(path.c_str(), named) == 0 && S_ISDIR(named.st_mode) && os::FStat(folder, opened) == 0
           && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

} // namespace

bool WriteOutFile(const CDom& dom, const std::string& name, std::string_view content, std::string& problem)
{
    problem.clear();
    const std::string work = dom.Get("app.path.work");
    const std::string path = work + '/' + outFolderName;
    if (work.empty() || !IsPlainName(name)) {
        problem = "'" + path + '/' + name + "' is no place below a work folder";
        return false;
    }
    os::GuardedPlace place(work, outFolderName);
    const os::Descriptor folder = place.OpenFolder(true);
    if (!folder) {
        problem = place.Breach().empty() ? path + ": " + place.Reason() : place.Breach();
        return false;
    }
    const Readers readers = ReadersOf(dom, problem);
    const auto note = [&problem](const std::string& what) {
        const std::string reason = os::ErrorText(os::LastError());
        if (problem.empty())
            problem = what + " cannot have the rights of the settings app.out.mode and app.out.group: " + reason;
    };
    if (IsFolderItself(path, folder.Get()) && !Admit(folder.Get(), readers.group, readers.folderMode))
        note("'" + path + "'");

    const std::string temporary = name + ".tmp";
    const auto fail = [&] {
        const int error = os::LastError();
        os::UnlinkAt(folder.Get(), temporary.c_str());
        problem = path + '/' + name + ": " + os::ErrorText(error);
        return false;
    };
    if (os::UnlinkAt(folder.Get(), temporary.c_str()) != 0 && os::LastError() != ENOENT)
        return fail();
    os::Descriptor file(os::OpenAt(folder.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!file || !os::WriteAll(file.Get(), content.data(), content.size()))
        return fail();
    if (!Admit(file.Get(), readers.group, readers.folderMode & 0666))
        note("'" + path + '/' + name + "'");
    // Without a flush: after a power cut an old file, or none, is as good, because the next beat writes another; and a
    // disk that has to wait for us each minute on each host is too dear for that.
    if (!file.Close() || os::RenameAt(folder.Get(), temporary.c_str(), folder.Get(), name.c_str()) != 0)
        return fail();
    return true;
}

} // namespace VexCore
