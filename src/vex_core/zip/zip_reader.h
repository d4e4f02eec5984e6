#pragma once
// One strict reader of ZIP archives, for `Unzip` and for the module loader; the one header of this room that others
// include. Format and limits: docs/FORMATS.md, "ZIP archives".

#include "vex_core/domain/known_settings.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

struct ZipLimits
{
    std::uint64_t maxBytes = StandardOf("app.unzip.maxbytes"); ///< of all entries together, unpacked
    std::uint64_t maxEntries = StandardOf("app.unzip.maxentries");
};

struct ZipEntry
{
    std::string name; ///< UTF-8, as stored, forward slashes; a folder's ends in "/"
    bool isFolder = false;
    unsigned mode = 0644; ///< what its file gets: the rights of its Unix mode within 0755, and always the owner's own
    std::uint16_t method = 0; ///< 0 stored, 8 deflate
    std::uint32_t crc32 = 0;
    std::uint64_t packedSize = 0; ///< bytes
    std::uint64_t size = 0; ///< bytes, unpacked
    std::uint64_t headerOffset = 0; ///< of the local header in the file
    std::uint64_t dataOffset = 0; ///< of the packed bytes in the file
    std::uint16_t flags = 0; ///< of its headers, as stored
};

/// What reading keeps from one entry to the next: its buffers, and bytes that were read along. For who reads many
/// entries of one archive, mostly in the order in which they lie in the file. One thread.
class ZipReading
{
public:
    ZipReading();
    ~ZipReading();
    ZipReading(const ZipReading&) = delete;
    ZipReading& operator=(const ZipReading&) = delete;

private:
    friend class ZipArchive;
    struct Kept;
    std::unique_ptr<Kept> m_kept;
};

/// An archive that passed every check of its headers. Immutable after `Open`; any number of threads may read.
class ZipArchive
{
public:
    /// Opens the file of that name (bytes of the file system), checks all headers and indexes the names. Null when it
    /// is no regular file (a FIFO does not block), cannot be read, or breaks any rule; `error` then has one line that
    /// tells the reason and, escaped, the entry, but not the archive.
    static std::shared_ptr<const ZipArchive> Open(const std::string& path, const ZipLimits& limits, std::string& error);
    /// The same for who wants to know every rule that is broken, as far as one does not hide another: a line each.
    static std::shared_ptr<const ZipArchive> Open(const std::string& path, const ZipLimits& limits,
                                                  std::vector<std::string>& reasons);

    const std::string& Path() const { return m_path; }
    const os::FileIdentity& Identity() const { return m_identity; }
    /// Entries in the order of the directory.
    const std::vector<ZipEntry>& Entries() const { return m_entries; }
    /// Null when there is none.
    const ZipEntry* Find(std::string_view name) const;
    /// The entry at that place of the directory when it has this name, else null.
    const ZipEntry* EntryNamed(std::size_t number, std::string_view name) const
    {
        return number < m_entries.size() && m_entries[number].name == name ? &m_entries[number] : nullptr;
    }
    /// The directory's bytes from first record to end record, as a SHA-256 in lower-case hex: names what the archive
    /// holds (the directory has every entry's checksum and size). Reads the directory again, as most who open an
    /// archive do not ask. Empty when it cannot be read or is another one by now.
    std::string DirectorySha256() const;

    /// Gets chunks of an entry in order; false stops the reading.
    using Sink = std::function<bool(const char* data, std::size_t size)>;
    /// Reads one entry and compares length and checksum with the directory. False with one line in `error` when they
    /// differ, the packed data is damaged or has bytes behind its end, or the file was cut short meanwhile. With a sink
    /// memory use does not grow with the entry's size; a sink that answers false ends it with an empty `error`.
    bool Read(const ZipEntry& entry, const Sink& sink, std::string& error) const;
    /// The same for one of many entries.
    bool Read(const ZipEntry& entry, ZipReading& reading, const Sink& sink, std::string& error) const;
    /// The same for an entry as a whole. After false `data` may hold anything.
    bool Read(const ZipEntry& entry, std::string& data, std::string& error) const;

private:
    ZipArchive() = default;
    // Null where it is refused: for the one reason that is thrown, or for all that are told.
    static std::shared_ptr<const ZipArchive> OpenChecked(const std::string& path, const ZipLimits& limits,
                                                         std::vector<std::string>* reasons);

    std::string m_path;
    os::Descriptor m_file;
    os::FileIdentity m_identity;
    static inline std::atomic<unsigned> s_opened{0};
    const unsigned m_number = s_opened++; // of all that were opened
    std::vector<ZipEntry> m_entries;
    std::vector<std::uint32_t> m_byName; // indexes of m_entries, in the order of ComparePaths
    std::uint64_t m_directoryOffset = 0; // in the file
    std::uint64_t m_directoryEnd = 0;
    std::uint32_t m_directoryChecksum = 0; // of its bytes when they were checked
};

} // namespace VexCore
