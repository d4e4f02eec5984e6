#pragma once
// The folders below the destination of an `Unzip`, and how its parts fail.
// None of the parts is used by more than one thread at a time.

#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore {

/// Ends an `Unzip`; what() is the reason that the log line gives.
class UnzipFailure : public std::runtime_error
{
public:
    explicit UnzipFailure(const std::string& reason) : std::runtime_error(reason) {}
    /// "`what`: text of the error number".
    UnzipFailure(const std::string& what, int error);
};

/// A component of a path is a symbolic link or no folder.
class UnzipBlocked : public UnzipFailure
{
public:
    using UnzipFailure::UnzipFailure;
};

/// The folders below one destination. Each component is opened for itself and never through a symbolic link; an open
/// folder is kept until `Close`, so that what is done in it stays in it whatever becomes of its name.
class UnzipFolders
{
public:
    /// Opens the destination. Symbolic links on the way to it are followed: they are the operator's.
    explicit UnzipFolders(const std::string& root);
    UnzipFolders(const UnzipFolders&) = delete;
    UnzipFolders& operator=(const UnzipFolders&) = delete;

    /// The descriptor of `path` ("" is the destination; no last slash). -1: it, or a folder before it,
    /// is missing. Throws when a component is a symbolic link or no folder, or no longer the folder that
    /// was opened under that name.
    int Find(std::string_view path);
    /// The same, making what is missing, with mode 0755. What is open is taken as it is: `CheckAll` comes before
    /// anything in it counts.
    int Make(std::string_view path);

    /// Whether somebody else than this user and root can let a name on the way to what lies in this open folder lead
    /// elsewhere, at any moment.
    bool OthersMayExchange(std::string_view path) const;

    /// Notes that names in this open folder changed, so that `Flush` puts them on stable storage.
    void NoteChange(std::string_view path);
    /// The same where temporary names became those of files.
    void NoteRename(std::string_view path);
    /// Throws unless every open folder is still the one that its name leads to.
    void CheckAll();
    void Flush();
    /// Puts on stable storage, at least, that temporary names are none any more; the destination may be left for a
    /// `Flush`, which is to come in any case.
    void FlushRenames();
    /// Flushes the whole file systems that hold these open folders, which beats many single flushes by far. False: the
    /// system cannot do that, or not reliably.
    bool FlushFileSystemsOf(const std::vector<std::string_view>& paths);
    /// Closes all but the destination; what was noted and not flushed is forgotten.
    void Close();
    std::size_t OpenCount() const { return m_open.size(); }

private:
    struct Folder
    {
        os::Descriptor file;
        os::FileIdentity identity;
        bool othersMayExchange = false;
        bool changed = false;
        bool renamed = false; // in it; then it is changed, too

        void SetFlushed() { changed = renamed = false; }
    };
    using Folders = std::map<std::string, Folder, std::less<>>;

    const Folder* Walk(std::string_view path, bool make);
    const Folder* OpenBelow(Folder& parent, std::string_view path, const std::string& name, bool make);
    bool OthersMayWrite(const struct stat& status, std::string_view path);
    void CheckSame(const Folder& parent, std::string_view path, const Folder& folder);

    const std::string m_root;
    Folders m_open; // by path; the destination is ""
};

/// The folder of a path, "" for none; and its last component.
std::string_view FolderOf(std::string_view path);
std::string LastOf(std::string_view path);

} // namespace VexCore
