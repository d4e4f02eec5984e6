#pragma once
// Compiled Lua chunks kept between runs, because nearly all of a `require` is the parser's time. A cache file only
// saves time: whatever is wrong with it, the chunk is compiled again. Format: docs/FORMATS.md, "Compiled chunks".

#include "vex_core/modules/chunk_cache_folder.h"
#include "vex_core/modules/chunk_cache_format.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace VexCore {

/// The compiled chunks of the archives with one and the same directory. Any thread, and any number of processes on one
/// folder: a file only grows, or is replaced whole.
///
/// New chunks wait in memory and are written together: at a lookup two seconds after the last of them came, when an
/// interpreter is closed, when the process exits, and a block of them whenever they fill 256 KiB. Nothing wakes up for
/// them, and nothing is written where nothing is new.
class ChunkCache : public std::enable_shared_from_this<ChunkCache>
{
public:
    /// 64 hexadecimal digits that name the cache of an archive: of its directory's hash and of `luaHeader`, the bytes
    /// that tell this Lua's version and type sizes.
    static std::string Key(const std::string& directorySha256, const std::string& luaHeader);

    /// One of its own; `CacheRegistry` has those that are shared.
    ChunkCache(std::string folder, std::string key, std::uint64_t maxFileBytes = maxChunkFileBytes)
        : m_folder(std::move(folder)), m_key(std::move(key)), m_maxFileBytes(maxFileBytes)
    {}

    /// Whether chunks that are handed in have a chance to be written; false spares the caller their making.
    bool WantsChunks() const { return m_writable.load(std::memory_order_relaxed); }
    /// `name` is the archive's path, "/" and the entry. False when the chunk is not there or its bytes are not whole.
    /// `chunk` points into `buffer`, which the caller keeps from one call to the next: large blocks that come and go
    /// make every later allocation of Lua dearer.
    bool Find(const std::string& name, std::string& buffer, std::string_view& chunk);
    /// Takes a copy of a chunk that was compiled from source; `archiveLength` is how much of the name is the archive's
    /// path. Writes when enough have come together. Does nothing once the file is full of chunks of that archive.
    void Add(const std::string& name, std::size_t archiveLength, std::string_view chunk);
    /// Writes what waits. A failure costs the next start time and is traced.
    void Flush();
    /// Closes the file; the next `Find` opens it again.
    void CloseFile();

private:
    struct Waiting
    {
        std::string name;
        std::size_t archiveLength;
        std::size_t offset; // in m_waitingData
        std::size_t length;
    };

    // With m_lock held.
    bool LoadIndex();
    void LoadBlocks();
    void DropFile();
    bool IsOnePathTooMany(std::uint32_t path) const;
    bool FindWaiting(const std::string& name, std::string& buffer, std::string_view& chunk) const;
    bool FindOnDisk(const std::string& name, std::string& buffer, std::string_view& chunk);
    bool ReadRecord(const ChunkRecord& record, std::string& bytes);
    bool IsFullOf(std::uint32_t path, std::uint64_t moreBytes) const;
    bool IsWritten(const ChunkCacheFormat::Item& item) const;
    void WriteWaiting();
    std::vector<ChunkCacheFormat::Item> NewItems() const;
    AppendResult WriteBehind(const std::vector<ChunkCacheFormat::Item>& items);
    bool WriteAnew(const std::vector<ChunkCacheFormat::Item>& items) const;

    const ChunkCacheFolder m_folder;
    const std::string m_key;
    const std::uint64_t m_maxFileBytes;
    std::atomic<bool> m_writable{true};

    std::mutex m_lock; // guards what follows
    bool m_loaded = false; // whether the file was looked for
    ChunkFile m_file; // without a descriptor when there is none of use
    std::vector<ChunkRecord> m_records; // of the file, block by block
    std::unordered_map<std::uint64_t, std::size_t> m_newest; // places in m_records, by hash of the name
    std::vector<std::uint32_t> m_paths; // of the archives whose chunks are in the file, as checksums
    std::size_t m_blockCount = 0; // of the file
    std::uint64_t m_indexedBytes = 0; // of the file: m_records has those blocks
    bool m_isDamaged = false; // something in the file is not whole: nothing may be written behind it
    bool m_hasDamagedChunk = false; // and it is a chunk, which a look at the blocks does not show
    std::string m_ahead; // what was read along with a chunk
    std::size_t m_aheadSize = 0; // how much of it that is; what room is behind keeps what it had
    std::uint64_t m_aheadAt = 0; // where it lies in the file
    std::uint64_t m_nextAt = 0; // behind the chunk that was read last
    std::vector<Waiting> m_waiting; // in the order in which they came
    std::unordered_map<std::uint64_t, std::size_t> m_waitingByHash; // places in m_waiting, by hash of the name
    std::string m_waitingData; // their chunks, one behind the other
    std::string m_block; // what was written last: its memory is kept until `Flush`
};

} // namespace VexCore
