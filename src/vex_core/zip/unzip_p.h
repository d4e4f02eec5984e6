#pragma once
// The parts of `Unzip`: the folders below the destination, the record of temporary files, and the writer of files. They
// report failure by throwing UnzipFailure; none of it is used by more than one thread at a time.

#include "vex_core/zip/zip_reader.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

/// Ends an `Unzip`; what() is the reason that the log line gives.
class UnzipFailure : public std::runtime_error
{
public:
    explicit UnzipFailure(const std::string& reason) : std::runtime_error(reason) {}
    /// "`what`: text of the errno value".
    UnzipFailure(const std::string& what, int error);
};

/// A component of a path is a symbolic link or no folder.
class UnzipBlocked : public UnzipFailure
{
public:
    using UnzipFailure::UnzipFailure;
};

/// The folders below one destination. Each component is opened for itself and never through a symbolic link; an open folder
/// is kept until `Close`, so that what is done in it stays in it whatever becomes of its name.
class UnzipFolders
{
public:
    /// Opens the destination. Symbolic links on the way to it are followed: they are the operator's.
    explicit UnzipFolders(const std::string& root);
    ~UnzipFolders();
    UnzipFolders(const UnzipFolders&) = delete;
    UnzipFolders& operator=(const UnzipFolders&) = delete;

    /// The descriptor of `path` ("" is the destination; no last slash). -1: it, or a folder before it, is missing. Throws
    /// when a component is a symbolic link or no folder, or no longer the folder that was opened under that name.
    int Find(std::string_view path);
    /// The same, making what is missing, with mode 0755.
    int Make(std::string_view path);

    /// Notes that names in this open folder changed, so that `Flush` puts them on stable storage.
    void NoteChange(std::string_view path);
    /// Throws unless every open folder is still the one that its name leads to.
    void CheckAll();
    void Flush();
    /// Flushes the whole file systems that hold these open folders, which beats many single flushes by far. False: the system
    /// cannot do that, or not reliably.
    bool FlushFileSystemsOf(const std::vector<std::string_view>& paths);
    /// Closes all but the destination; what was noted and not flushed is forgotten.
    void Close();
    std::size_t OpenCount() const { return m_open.size(); }

private:
    struct Folder
    {
        int descriptor = -1;
        dev_t device = 0;
        ino_t inode = 0;
        bool changed = false;
    };
    using Folders = std::map<std::string, Folder, std::less<>>;

    const Folder* Walk(std::string_view path, bool make);
    const Folder* OpenBelow(Folder& parent, std::string_view path, const std::string& name, bool make);
    void CheckSame(const Folder& parent, std::string_view path, const Folder& folder);

    Folders m_open; // by path; the destination is ""
};

/// Whether an entry's name has a component that is kept for temporary files.
bool IsReservedForUnzip(std::string_view name);

/// The temporary files of one run. Before the first of them is made, a list of the folders that may get some is put on
/// stable storage in the destination, and stays there, locked, while the run lives. A list that nobody holds locked is from a
/// run that was killed: it tells the next run where to sweep, without a search of the whole tree.
class UnzipTemporaries
{
public:
    UnzipTemporaries(UnzipFolders& folders, const ZipArchive& archive) : m_folders(folders), m_archive(archive) {}
    ~UnzipTemporaries();
    UnzipTemporaries(const UnzipTemporaries&) = delete;
    UnzipTemporaries& operator=(const UnzipTemporaries&) = delete;

    /// Removes what killed runs left in this destination.
    void SweepOldRuns();
    /// A new temporary name for a file in one of the archive's folders. The first call makes the list.
    std::string NewName();
    /// Notes that a temporary file could not be removed: the list stays and leads the next run to it.
    void KeepList() { m_keepList = true; }
    /// Removes the list; all temporary files must be gone.
    void RemoveList();

private:
    void MakeList();
    bool TryMakeList(const std::string& text);
    void SweepRun(const std::string& listName);
    void SweepFolder(const std::string& path, const std::string& prefix);

    UnzipFolders& m_folders;
    const ZipArchive& m_archive;
    std::string m_id; // empty: no list was made
    int m_list = -1;
    bool m_keepList = false;
    std::uint64_t m_count = 0;
};

/// Writes files under temporary names and gives them their own names in groups: waiting for storage once a group, and not once
/// a file, is what makes a thousand small files take a tenth of a second and not three.
class UnzipWriter
{
public:
    UnzipWriter(UnzipFolders& folders, UnzipTemporaries& temporaries) : m_folders(folders), m_temporaries(temporaries)
    {}

    /// Writes one file under a temporary name, making the folders before it. On failure its temporary file is gone, and
    /// earlier ones go on waiting for `Commit`.
    void Write(const ZipArchive& archive, const ZipEntry& entry);
    /// Whether so much waits that it is time for `Commit`.
    bool IsFull() const;
    /// Flushes all files that wait and gives them their names; the folders are to be flushed after it. On failure the
    /// temporary files are gone and each file is old or new.
    void Commit();

private:
    struct Waiting
    {
        std::string path;
        int folder;
        std::string temporary;
    };

    void Fill(int file, const ZipArchive& archive, const ZipEntry& entry);
    void FlushWaiting();
    void RenameWaiting();
    void Drop(const Waiting& waiting) noexcept;

    UnzipFolders& m_folders;
    UnzipTemporaries& m_temporaries;
    std::vector<Waiting> m_waiting;
    std::uint64_t m_waitingBytes = 0;
};

/// The folder of a path, "" for none; and its last component.
std::string_view FolderOf(std::string_view path);
std::string LastOf(std::string_view path);

} // namespace VexCore
