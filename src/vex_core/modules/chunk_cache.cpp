// The cache of one archive: what is on disk, what waits to be written, and how the two are joined. Mostly by writing
// behind what is there; a small file is written anew with all that is whole in it where that would not do.
#include "vex_core/modules/chunk_cache.h"

#include "vex_core/base/hex.h"
#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/name_hash.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <unordered_set>

#include <openssl/sha.h>

namespace VexCore {

using ChunkCacheFormat::Item;

namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::uint64_t writeAtBytes = 4096;
constexpr std::uint64_t aheadBytes = 256;
#else
// To write so much takes less than to find memory for more.
constexpr std::uint64_t writeAtBytes = 256 * 1024;
constexpr std::uint64_t aheadBytes = 32 * 1024;
#endif
// A larger file is not read back as a whole: what it held is compiled again.
constexpr std::uint64_t maxJoinedBytes = 32 * 1024 * 1024;
// A start reads the index of each block. A small file with more of them becomes one of few.
constexpr std::size_t maxBlocks = 64;
constexpr std::uint64_t smallBytes = 8 * 1024 * 1024;
// The same archive may lie at many paths (builds, tests); chunks carry their path, so each path has its own.
constexpr std::size_t maxPathsAFile = 8;
// Writers that come first one after the other are few. Who loses so often leaves its chunks to the next process.
constexpr int maxWriteTries = 8;

std::size_t BytesOf(const ChunkRecord& record)
{
    return static_cast<std::size_t>(record.nameLength) + record.chunkLength;
}

std::uint64_t BytesOf(const Item& item)
{
    return ChunkCacheFormat::recordBytes + item.name.size() + item.chunk.size();
}

std::string_view PathOf(const Item& item)
{
    return item.name.substr(0, item.archiveLength);
}

template <class Value>
void AddOnce(std::vector<Value>& values, const Value& value)
{
    if (std::find(values.begin(), values.end(), value) == values.end())
        values.push_back(value);
}

// False when there are fewer than `size` bytes.
bool ReadAt(const ChunkFile& file, std::uint64_t offset, std::size_t size, std::string& bytes)
{
    bytes.resize(size);
    return file.descriptor
           && os::PReadFull(file.descriptor.Get(), &bytes[0], size, static_cast<off_t>(offset))
                  == static_cast<ssize_t>(size);
}

// The chunks that a new file gets: of one name the first that comes, within the bounds of a file.
class Selection
{
public:
    explicit Selection(std::uint64_t maxBytes) : m_maxBytes(maxBytes) {}

    void Take(const Item& item)
    {
        const bool newPath = std::find(m_paths.begin(), m_paths.end(), PathOf(item)) == m_paths.end();
        const std::uint64_t size = BytesOf(item) + (newPath ? ChunkCacheFormat::headerBytes : 0);
        if (m_bytes + size > m_maxBytes || (newPath && m_paths.size() == maxPathsAFile)
            || !m_names.insert(item.name).second)
            return;
        if (newPath)
            m_paths.push_back(PathOf(item));
        m_bytes += size;
        m_items.push_back(item);
    }

    const std::vector<Item>& Items() const { return m_items; }

private:
    const std::uint64_t m_maxBytes;
    std::vector<Item> m_items;
    std::unordered_set<std::string_view> m_names;
    std::vector<std::string_view> m_paths;
    std::uint64_t m_bytes = 0;
};

} // namespace

std::string ChunkCache::Key(const std::string& directorySha256, const std::string& luaHeader)
{
    const std::string text = "chunks of " + directorySha256 + " for " + luaHeader;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    return Hex(digest, sizeof digest);
}

void ChunkCache::DropFile()
{
    m_loaded = false;
    m_file = ChunkFile();
    m_records.clear();
    m_newest.clear();
    m_paths.clear();
    m_blockCount = 0;
    m_indexedBytes = 0;
    m_isDamaged = false;
    m_hasDamagedChunk = false;
    std::string().swap(m_ahead);
    m_aheadSize = 0;
    m_nextAt = 0;
}

void ChunkCache::CloseFile()
{
    const std::lock_guard lock(m_lock);
    DropFile();
}

bool ChunkCache::LoadIndex()
{
    DropFile();
    m_loaded = true;
    ChunkFileSearch search = m_folder.Open(m_key);
    if (search.folder == FolderState::Refused)
        m_writable = false;
    if (!search.file)
        return false;
    m_file = std::move(*search.file);
    LoadBlocks();
    if (m_blockCount == 0) {
        m_file = ChunkFile();
        return false;
    }
    ChunkCacheFolder::NoteUse(m_file);
    return true;
}

// From the last one that is known to the first that is not whole: where the next one begins is not known then. That one
// may just be written by another process: a writer looks again before it takes it for damage.
void ChunkCache::LoadBlocks()
{
    using namespace ChunkCacheFormat;
    std::string bytes;
    while (m_indexedBytes < m_file.bytes) {
        const std::uint64_t at = m_indexedBytes;
        const std::size_t first = m_records.size();
        Header header;
        if (!ReadAt(m_file, at, headerBytes, bytes) || !ParseHeader(bytes, m_key, m_file.bytes - at, header)
            || IsOnePathTooMany(header.pathChecksum)
            || !ReadAt(m_file, at + headerBytes, static_cast<std::size_t>(header.count) * recordBytes, bytes)
            || !ParseIndex(bytes, header, at, m_records)) {
            m_isDamaged = true;
            return;
        }
        for (std::size_t i = first; i < m_records.size(); ++i)
            m_newest[m_records[i].nameHash] = i;
        m_indexedBytes += header.blockBytes;
        ++m_blockCount;
        AddOnce(m_paths, header.pathChecksum);
    }
}

bool ChunkCache::IsOnePathTooMany(std::uint32_t path) const
{
    return m_paths.size() >= maxPathsAFile && std::find(m_paths.begin(), m_paths.end(), path) == m_paths.end();
}

bool ChunkCache::Find(const std::string& name, std::string& buffer, std::string_view& chunk)
{
    bool opened = false;
    bool found = false;
    {
        const std::lock_guard lock(m_lock);
        if (!m_loaded)
            opened = LoadIndex();
        found = FindWaiting(name, buffer, chunk) || FindOnDisk(name, buffer, chunk);
    }
    if (opened)
        CacheRegistry::Process().NoteOpened(weak_from_this().lock());
    return found;
}

bool ChunkCache::FindWaiting(const std::string& name, std::string& buffer, std::string_view& chunk) const
{
    if (m_waiting.empty())
        return false;
    const auto place = m_waitingByHash.find(HashName(name));
    if (place == m_waitingByHash.end() || m_waiting[place->second].name != name)
        return false;
    const Waiting& waiting = m_waiting[place->second];
    buffer.assign(m_waitingData, waiting.offset, waiting.length);
    chunk = buffer;
    return true;
}

bool ChunkCache::FindOnDisk(const std::string& name, std::string& buffer, std::string_view& chunk)
{
    const auto newest = m_newest.find(HashName(name));
    if (newest == m_newest.end())
        return false;
    const ChunkRecord& record = m_records[newest->second];
    if (ReadRecord(record, buffer) && ChunkCacheFormat::ParseRecord(buffer, record, name, chunk))
        return true;
    m_isDamaged = true;
    m_hasDamagedChunk = true;
    return false;
}

// The next start asks for most chunks in the order in which this one has written them: what follows one that is read is
// read along when it followed the one before.
bool ChunkCache::ReadRecord(const ChunkRecord& record, std::string& bytes)
{
    const std::size_t size = BytesOf(record);
    const auto isAhead = [&] { return record.offset >= m_aheadAt && record.offset + size <= m_aheadAt + m_aheadSize; };
    const bool follows = record.offset == m_nextAt;
    m_nextAt = record.offset + size;
    if (!isAhead()) {
        if (!follows || size > aheadBytes)
            return ReadAt(m_file, record.offset, size, bytes);
        m_aheadSize = 0; // what it held lies elsewhere, should there be no memory for the new
        m_aheadAt = record.offset;
        const std::size_t wanted = static_cast<std::size_t>(std::min(aheadBytes, m_file.bytes - m_aheadAt));
        if (!ReadAt(m_file, m_aheadAt, wanted, m_ahead))
            return false;
        m_aheadSize = wanted;
    }
    bytes.assign(m_ahead, static_cast<std::size_t>(record.offset - m_aheadAt), size);
    return true;
}

// Whether there is no room for so many bytes more, and nothing in the file could make room.
bool ChunkCache::IsFullOf(std::uint32_t path, std::uint64_t moreBytes) const
{
    return m_file.bytes + moreBytes > m_maxFileBytes && !m_isDamaged && m_paths.size() == 1 && m_paths.front() == path;
}

void ChunkCache::Add(const std::string& name, std::size_t archiveLength, std::string_view chunk)
{
    const std::lock_guard lock(m_lock);
    if (IsFullOf(ChunkCacheFormat::PathChecksum(std::string_view(name).substr(0, archiveLength)),
                 std::min(writeAtBytes, m_maxFileBytes / 16))) // what comes together until the next writing
        m_writable = false;
    if (!m_writable || name.size() + chunk.size() > m_maxFileBytes / 2)
        return;
    const std::uint64_t hash = HashName(name);
    const auto known = m_waitingByHash.find(hash);
    if (known != m_waitingByHash.end() && m_waiting[known->second].name != name)
        return; // another name has the hash: it is compiled each time
    // In this order, so that nothing points to bytes of another chunk when memory runs out in between.
    const std::size_t offset = m_waitingData.size();
    m_waitingData.append(chunk);
    if (known != m_waitingByHash.end()) {
        m_waiting[known->second].offset = offset;
        m_waiting[known->second].length = chunk.size();
    } else {
        m_waiting.push_back({name, archiveLength, offset, chunk.size()});
        m_waitingByHash.emplace(hash, m_waiting.size() - 1);
    }
    CacheRegistry::Process().NoteWaiting();
    if (m_waitingData.size() >= writeAtBytes)
        WriteWaiting();
}

void ChunkCache::Flush()
{
    const std::lock_guard lock(m_lock);
    if (!m_waiting.empty())
        WriteWaiting();
    std::string().swap(m_waitingData);
    std::string().swap(m_block);
}

// Whether another process has written the same chunk meanwhile.
bool ChunkCache::IsWritten(const Item& item) const
{
    const auto newest = m_newest.find(HashName(item.name));
    if (newest == m_newest.end())
        return false;
    const ChunkRecord& record = m_records[newest->second];
    return record.nameLength == item.name.size() && record.chunkLength == item.chunk.size()
           && record.checksum == ChunkCacheFormat::RecordChecksum(item);
}

std::vector<Item> ChunkCache::NewItems() const
{
    std::vector<Item> items;
    items.reserve(m_waiting.size());
    for (const Waiting& waiting : m_waiting) {
        const Item item{waiting.name, static_cast<std::uint32_t>(waiting.archiveLength),
                        std::string_view(m_waitingData).substr(waiting.offset, waiting.length)};
        if (m_isDamaged || !IsWritten(item))
            items.push_back(item);
    }
    return items;
}

// Failed when the file cannot grow by these.
AppendResult ChunkCache::WriteBehind(const std::vector<Item>& items)
{
    if (!m_file.descriptor || m_isDamaged || (m_blockCount >= maxBlocks && m_file.bytes <= smallBytes))
        return AppendResult::Failed;
    std::vector<std::uint32_t> paths = m_paths;
    for (const Item& item : items)
        AddOnce(paths, ChunkCacheFormat::PathChecksum(PathOf(item)));
    if (paths.size() > maxPathsAFile)
        return AppendResult::Failed;
    ChunkCacheFormat::Build(m_key, items, m_block);
    if (m_file.bytes + m_block.size() > m_maxFileBytes)
        return AppendResult::Failed;
    const AppendResult result = m_folder.Append(m_key, m_file, m_block);
    if (result == AppendResult::Written)
        LoadBlocks();
    return result;
}

// These, and what a small file holds already as far as it is whole and there is room.
bool ChunkCache::WriteAnew(const std::vector<Item>& items) const
{
    Selection selection(m_maxFileBytes);
    for (const Item& item : items)
        selection.Take(item);
    std::string data;
    if (m_file.bytes <= maxJoinedBytes && ReadAt(m_file, 0, static_cast<std::size_t>(m_file.bytes), data)) {
        for (auto newest = m_records.rbegin(); newest != m_records.rend(); ++newest) {
            const ChunkRecord& record = *newest;
            const std::string_view whole =
                std::string_view(data).substr(static_cast<std::size_t>(record.offset), BytesOf(record));
            const std::string_view name = whole.substr(0, record.nameLength);
            std::string_view chunk;
            if (ChunkCacheFormat::ParseRecord(whole, record, name, chunk))
                selection.Take({name, record.archiveLength, chunk});
        }
    }
    return m_folder.Replace(m_key, ChunkCacheFormat::Build(m_key, selection.Items()));
}

void ChunkCache::WriteWaiting()
{
    const bool wasOpen = static_cast<bool>(m_file.descriptor);
    if (!m_loaded)
        LoadIndex();
    std::vector<Item> items = NewItems();
    for (int tries = 1; m_writable && !items.empty() && tries <= maxWriteTries; ++tries) {
        const AppendResult result = WriteBehind(items);
        if (result == AppendResult::Written)
            break;
        if (result == AppendResult::Failed && tries > 1) { // with the file as it is now
            std::uint64_t bytes = ChunkCacheFormat::headerBytes;
            for (const Item& item : items)
                bytes += BytesOf(item);
            const bool isFull = IsFullOf(ChunkCacheFormat::PathChecksum(PathOf(items.front())), bytes);
            m_writable = !isFull && WriteAnew(items); // if not, the next process tries again
            DropFile();
            break;
        }
        const bool hadDamagedChunk = m_hasDamagedChunk;
        LoadIndex(); // what another process has written meanwhile stays
        m_hasDamagedChunk = hadDamagedChunk;
        m_isDamaged = m_isDamaged || hadDamagedChunk;
        items = NewItems();
    }
    m_waiting.clear();
    m_waitingByHash.clear();
    m_waitingData.clear();
    if (!wasOpen)
        DropFile(); // nobody counts it as open
}

} // namespace VexCore
