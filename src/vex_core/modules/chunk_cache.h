#pragma once
// Compiled Lua chunks kept between runs, because nearly all of a `require` is the parser's time. A cache file only saves
// time: whatever is wrong with it, the chunk is compiled again. Format: docs/formats/cache.md.

#include "vex_core/zip/zip_reader.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace VexCore {

/// Where one chunk lies in a cache file.
struct ChunkRecord
{
    std::uint64_t nameHash = 0; ///< `HashName` of the chunk's name
    std::uint64_t offset = 0; ///< in the file: the name's bytes, then the chunk's
    std::uint32_t nameLength = 0;
    std::uint32_t archiveLength = 0; ///< how much of the name is the archive's path
    std::uint32_t chunkLength = 0;
    std::uint32_t checksum = 0; ///< CRC-32 of name and chunk
};

/// Reading and building of the file's bytes. No state, no system.
namespace ChunkCacheFormat {

constexpr std::size_t headerBytes = 64;
constexpr std::size_t recordBytes = 32;

/// What the first `headerBytes` of a file promise.
struct Header
{
    std::uint32_t count = 0; ///< of records
    std::uint32_t indexChecksum = 0;
    std::uint64_t fileBytes = 0; ///< of the whole file
};

/// False when the file is no cache file, belongs to another `key` (64 hexadecimal digits), or promises more than
/// `fileBytes` hold.
bool ParseHeader(std::string_view header, std::string_view key, std::uint64_t fileBytes, Header& result);
/// `index` are the bytes behind the header, all records. False when they are damaged or a record points out of the file.
bool ParseIndex(std::string_view index, const Header& parsed, std::vector<ChunkRecord>& records);
/// The chunk in a record's bytes, when they are whole and carry that name.
bool ParseRecord(std::string_view bytes, const ChunkRecord& record, std::string_view name, std::string_view& chunk);

/// Looks at bytes that the caller keeps.
struct Item
{
    std::string_view name; ///< archive's path, "/" and entry
    std::uint32_t archiveLength = 0;
    std::string_view chunk;
};

/// The bytes of a whole file.
std::string Build(std::string_view key, const std::vector<Item>& items);

} // namespace ChunkCacheFormat

/// The compiled chunks of the archives with one and the same directory. Any thread, and any number of processes on one
/// folder: a file is only ever replaced whole.
///
/// New chunks wait in memory and are written together: at a lookup two seconds later, when an interpreter is closed,
/// when the process exits, and before they fill too much memory. Nothing wakes up for them.
class ChunkCache : public std::enable_shared_from_this<ChunkCache>
{
public:
    /// 64 hexadecimal digits that name the cache of an archive: of its directory's hash and of `luaHeader`, the bytes that
    /// tell this Lua's version and type sizes.
    static std::string Key(const std::string& directorySha256, const std::string& luaHeader);

    /// The cache of that key in `folder` ("…/cache"), one object in a process.
    static std::shared_ptr<ChunkCache> Get(const std::string& folder, const std::string& key);

    ChunkCache(std::string folder, std::string key);
    ~ChunkCache();

    /// Whether chunks that are handed in have a chance to be written; false spares the caller their making.
    bool WantsChunks() const { return m_writable.load(std::memory_order_relaxed); }
    /// `name` is the archive's path, "/" and the entry. False when the chunk is not there or its bytes are not whole. `chunk`
    /// points into `buffer`, which the caller keeps from one call to the next: large blocks that come and go make every
    /// later allocation of Lua dearer.
    bool Find(const std::string& name, std::string& buffer, std::string_view& chunk);
    /// Takes a copy of a chunk that was compiled from source; `archiveLength` is how much of the name is the archive's
    /// path. Writes when enough have come together.
    void Add(const std::string& name, std::size_t archiveLength, std::string_view chunk);
    /// Writes what waits. A failure costs the next start time and is traced.
    void Flush();

    /// `Flush` of every cache of the process.
    static void FlushAll();
    /// `FlushAll` when something has waited for two seconds.
    static void FlushOld();
    /// Closes the files of the caches that nobody holds any more.
    static void ForgetUnused();

    /// Closes the file; the next `Find` opens it again.
    void Rest();

private:
    // With m_lock held.
    bool LoadIndex();
    bool ReadRecord(const ChunkRecord& record, std::string& bytes);
    bool FindWaiting(const std::string& name, std::string& buffer, std::string_view& chunk) const;
    bool FindOnDisk(const std::string& name, std::string& buffer, std::string_view& chunk);
    void DropFile();
    void WritePending();
    bool WriteFile(const std::string& bytes);
    std::string FileToWrite();
    bool ReadData(std::string& data, std::uint64_t& offset);

    const std::string m_folder;
    const std::string m_key;
    std::atomic<bool> m_writable{true};

    std::mutex m_lock; // guards what follows
    bool m_loaded = false; // whether the file was looked for
    int m_descriptor = -1;
    std::uint64_t m_fileBytes = 0;
    std::vector<ChunkRecord> m_records; // sorted by nameHash
    struct Pending
    {
        std::size_t archiveLength;
        std::size_t offset; // in m_pendingData
        std::size_t length;
    };
    std::unordered_map<std::string, Pending> m_pending; // by name
    std::string m_pendingData; // their chunks, in one block
};

} // namespace VexCore
