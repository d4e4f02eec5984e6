#pragma once
// The temporary files of an `Unzip`. Failures are thrown as UnzipFailure.

#include "vex_core/os/descriptor.h"
#include "vex_core/zip/unzip_folders.h"
#include "vex_core/zip/zip_reader.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace VexCore {

/// Whether an entry's name has a component that is kept for temporary files.
bool IsReservedForUnzip(std::string_view name);

/// The temporary files of one run. Before the first of them is made, a list of the folders that may get some is put on
/// stable storage in the destination, and stays there, locked, while the run lives. A list that nobody holds locked is
/// from a run that was killed: it tells the next run where to sweep, without a search of the whole tree.
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
    os::Descriptor m_list;
    bool m_keepList = false;
    std::uint64_t m_count = 0;
};

} // namespace VexCore
