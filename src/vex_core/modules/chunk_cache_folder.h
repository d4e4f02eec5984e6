#pragma once
// The folder that the files of compiled chunks lie in: which of them are trusted, how one grows or is replaced, and
// what becomes of those that nobody uses any more. What the files hold: chunk_cache_format.h.

#include "vex_core/os/descriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace VexCore {

/// No file is larger.
constexpr std::uint64_t maxChunkFileBytes = static_cast<std::uint64_t>(256) << 20;

/// A file of compiled chunks, open for reading.
struct ChunkFile
{
    os::Descriptor descriptor;
    std::uint64_t bytes = 0;
    std::int64_t lastUsed = 0; ///< seconds since the epoch
};

enum class FolderState {
    Usable,
    Missing, ///< will be made with its first file
    Refused, ///< may not be used, so that a new file would be made in vain
};

/// What was found when a file was looked for.
struct ChunkFileSearch
{
    FolderState folder = FolderState::Missing;
    std::optional<ChunkFile> file; ///< nothing when it is missing, is too large or may not be used
};

enum class AppendResult {
    Written,
    Changed, ///< another writer came first: nothing was written, and the file is to be looked at again
    Failed, ///< the file is missing or may not be used, or there is no room for all of it
};

/// One folder. Only used when it is no symbolic link, ours, and nobody else may enter it, and likewise for
/// the files: code that is loaded from there runs with our rights. What is not used, and what fails, is
/// traced and no error. Any thread.
class ChunkCacheFolder
{
public:
    explicit ChunkCacheFolder(std::string path) : m_path(std::move(path)) {}

    /// Opens the file of a cache.
    ChunkFileSearch Open(const std::string& key) const;
    /// Renews the file's time, which tells when it was last of use, to the day.
    static void NoteUse(const ChunkFile& file);
    /// Makes or replaces the file of a cache as a whole, and the folder where it is missing. The first time in a
    /// process, and whenever the folder may be beyond its bounds, sweeps it: removes what was of no use to anyone for a
    /// month, what killed writers left, and the oldest beyond the bounds.
    bool Replace(const std::string& key, const std::string& bytes) const;
    /// Writes behind the end of the file of a cache, by one call: what two processes write at once lies one behind the
    /// other. Changed when it is another file by now than `file`, or has another length; once written, `file` has the
    /// new one. Sweeps as `Replace` does.
    AppendResult Append(const std::string& key, ChunkFile& file, const std::string& bytes) const;

private:
    const std::string m_path;
};

} // namespace VexCore
