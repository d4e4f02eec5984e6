#include "vex/core/files.h"

#include "vex_core/base/narrow.h"
#include "vex_core/os/folder_calls.h"
#include "vex_core/process/files_p.h"

#include <cerrno>

#include <fcntl.h>
#include <wx/log.h>
#include <wx/string.h>

namespace VexCore {

namespace {
// A tree deeper than this is not one of ours; each level holds a descriptor.
constexpr int maxDepth = 128;

/// Restricts a file or a tree. Goes on after a failure, so that as much as possible is secured, and remembers the first.
class Securer
{
public:
    explicit Securer(bool recurse) : m_recurse(recurse) {}

    void Secure(int folder, const std::string& name, const std::string& shown, int depth)
    {
        struct stat status = {};
        if (os::LStatAt(folder, name.c_str(), status) != 0)
            return Fail(shown, errno);
        if (S_ISLNK(status.st_mode))
            return Fail(shown, ELOOP);
        if (S_ISDIR(status.st_mode))
            SecureFolder(folder, name, shown, depth);
        else if (os::ChmodAt(folder, name.c_str(), 0600) != 0)
            Fail(shown, errno);
    }

    bool Failed() const { return m_error != 0; }
    const std::string& FailedPath() const { return m_failedPath; }
    int Error() const { return m_error; }

private:
    struct Listing
    {
        Securer& self;
        int folder;
        const std::string& shown;
        int depth;
    };

    void SecureFolder(int folder, const std::string& name, const std::string& shown, int depth)
    {
        // The mode first: without the owner's rights the folder could not be opened.
        if (os::ChmodAt(folder, name.c_str(), 0700) != 0)
            return Fail(shown, errno);
        if (!m_recurse)
            return;
        if (depth >= maxDepth)
            return Fail(shown, ENAMETOOLONG);
        const int descriptor = os::OpenFolderAt(folder, name.c_str());
        if (descriptor < 0)
            return Fail(shown, errno);
        Listing listing{*this, descriptor, shown, depth + 1};
        const auto visit = [](void* context, const char* entry) {
            const Listing& here = *static_cast<Listing*>(context);
            here.self.Secure(here.folder, entry, here.shown + '/' + entry, here.depth);
            return true;
        };
        if (os::ListFolder(descriptor, visit, &listing) != 0)
            Fail(shown, errno);
        os::Close(descriptor);
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

bool MakePrivateFolders(const std::string& path)
{
    if (os::MkdirAt(AT_FDCWD, path.c_str(), 0700) == 0)
        return true;
    if (errno == ENOENT) {
        const std::size_t slash = path.find_last_of('/');
        if (slash == std::string::npos || slash == 0)
            return false;
        if (!MakePrivateFolders(path.substr(0, slash)))
            return false;
        if (os::MkdirAt(AT_FDCWD, path.c_str(), 0700) == 0)
            return true;
    }
    if (errno != EEXIST)
        return false;
    struct stat status = {};
    if (os::StatAt(AT_FDCWD, path.c_str(), status) != 0)
        return false;
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

} // namespace VexCore
