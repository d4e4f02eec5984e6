#pragma once
// The files of an `Unzip`. Failures are thrown as UnzipFailure.

#include "vex_core/zip/unzip_folders.h"
#include "vex_core/zip/unzip_temporaries.h"
#include "vex_core/zip/zip_reader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VexCore {

/// Writes files under temporary names and gives them their own names in groups: waiting for storage once a group, and
/// not once a file, is what makes a thousand small files take a tenth of a second and not three.
class UnzipWriter
{
public:
    UnzipWriter(UnzipFolders& folders, UnzipTemporaries& temporaries) : m_folders(folders), m_temporaries(temporaries)
    {}

    /// Writes one file under a temporary name, making the folders before it. On failure its temporary file is gone, and
    /// earlier ones go on waiting for `Commit`, until which archive and entry must live.
    void Write(const ZipArchive& archive, const ZipEntry& entry);
    /// Whether so much waits that it is time for `Commit`.
    bool IsFull() const;
    /// Flushes all files that wait and gives them their names; the folders are to be flushed after it. In this order: a
    /// name never leads to data that a power failure could take back. On failure the
    /// temporary files are gone and each file is old or new.
    void Commit();

private:
    struct Waiting
    {
        const ZipEntry* entry;
        int folder;
        std::string temporary;
    };

    void Fill(int file, const ZipArchive& archive, const ZipEntry& entry);
    void FlushWaiting();
    void FlushEach(std::size_t begin, std::size_t end);
    void RenameWaiting();
    void Drop(const Waiting& waiting) noexcept;

    UnzipFolders& m_folders;
    UnzipTemporaries& m_temporaries;
    std::vector<Waiting> m_waiting;
    std::uint64_t m_waitingBytes = 0;
    ZipReading m_reading;
};

} // namespace VexCore
