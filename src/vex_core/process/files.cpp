#include "vex/core/files.h"

#include "vex_core/base/text.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/guarded_place.h"

#include <cerrno>

#include <fcntl.h>
#include <wx/log.h>
#include <wx/string.h>

namespace VexCore {

namespace {
// A tree deeper than this is not one of ours; each level holds a descriptor.
constexpr int maxDepth = 128;

// Restricts a file or a tree. Goes on after a failure, so that as much as possible is secured, and remembers the first.
class Securer
{
public:
    explicit Securer(bool recurse) : m_recurse(recurse) {}

    void Secure(int folder, const std::string& name, const std::string& shown, int depth)
    {
        struct stat status = {};
        if (os::LStatAt(folder, name.c_str(), status) != 0)
            return Fail(shown, os::LastError());
        if (S_ISLNK(status.st_mode))
            return Fail(shown, ELOOP);
        if (S_ISDIR(status.st_mode))
            SecureFolder(folder, name, shown, depth);
        else if (os::ChmodAt(folder, name.c_str(), 0600) != 0)
            Fail(shown, os::LastError());
    }

    bool Failed() const { return m_error != 0; }
    const std::string& FailedPath() const { return m_failedPath; }
    int Error() const { return m_error; }

private:
    void SecureFolder(int folder, const std::string& name, const std::string& shown, int depth)
    {
        // The mode first: without the owner's rights the folder could not be opened.
        if (os::ChmodAt(folder, name.c_str(), 0700) != 0)
            return Fail(shown, os::LastError());
        if (!m_recurse)
            return;
        if (depth >= maxDepth)
            return Fail(shown, ENAMETOOLONG);
        const os::Descriptor opened(os::OpenFolderAt(folder, name.c_str()));
        if (!opened)
            return Fail(shown, os::LastError());
        const auto secure = [&](const char* entry) {
            Secure(opened.Get(), entry, shown + '/' + entry, depth + 1);
            return true;
        };
        if (os::ListFolder(opened.Get(), secure) != 0)
            Fail(shown, os::LastError());
    }

    void Fail(const std::string& path, int error)
    {
        if (m_error != 0)
            return;
        m_error = error;
        m_failedPath = path;
    }

    const bool m_recurse;
    int m_error = 0;
    std::string m_failedPath;
};

} // namespace

bool SecureFileOrDirectory(const wxString& path, bool recurse)
{
    std::string name = ToSystemBytes(path);
    // "x/" would look through a link named x.
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    Securer securer(recurse);
    securer.Secure(AT_FDCWD, name, name, 0);
    if (!securer.Failed())
        return true;
    const std::string& failed = securer.FailedPath();
    wxLogError(wxS("Can't restrict the access rights of %s (error %d: %s)"), FromForeignBytes(failed), securer.Error(),
               wxString::FromUTF8(os::ErrorText(securer.Error()).c_str()));
    return false;
}

bool MayBelieveFile(const wxString& path)
{
    os::GuardedPlace place(ToSystemBytes(path));
    place.OpenFile(O_RDONLY);
    if (place.Breach().empty())
        return true;
    WarnOfBreach(place);
    return false;
}

} // namespace VexCore
