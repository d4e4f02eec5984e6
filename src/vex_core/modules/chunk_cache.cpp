// The cache of one archive: what is on disk, what waits to be written, and how the two are joined.
#include "vex_core/modules/chunk_cache.h"

#include "vex_core/base/hex.h"
#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/name_hash.h"
#include "vex_core/os/files.h"

#include <algorithm>

#include <openssl/sha.h>

namespace VexCore {
namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::uint64_t writeAtBytes = 4096;
#else
constexpr std::uint64_t writeAtBytes = 8 * 1024 * 1024;
#endif
// The same archive may lie at many paths (builds, tests); chunks carry their path, so each path has its own.
constexpr std::size_t maxPathsAFile = 8;

std::size_t BytesOf(const ChunkRecord& record)
{
    return static_cast<std::size_t>(record.nameLength) + record.chunkLength;
}

// False when there are fewer than `size` bytes.
bool ReadAt(const ChunkFile& file, std::uint64_t offset, std::size_t size, std::string& bytes)
{
    bytes.resize(size);
    return file.descriptor
           && os::PReadFull(file.descriptor.Get(), &bytes[0], size, static_cast<off_t>(offset))
                  == static_cast<ssize_t>(size);
}

bool ReadIndex(const ChunkFile& file, const std::string& key, std::vector<ChunkRecord>& records)
{
    using namespace ChunkCacheFormat;
    std::string bytes;
    Header header;
    return ReadAt(file, 0, headerBytes, bytes) && ParseHeader(bytes, key, file.bytes, header)
           && ReadAt(file, headerBytes, static_cast<std::size_t>(header.count) * recordBytes, bytes)
           && ParseIndex(bytes, header, records);
}

// The chunks that a new file gets, first come, first served within the bounds of a file.
class Selection
{
public:
    void Take(const ChunkCacheFormat::Item& item)
    {
        const std::string_view path = item.name.substr(0, item.archiveLength);
        const std::uint64_t size = ChunkCacheFormat::recordBytes + item.name.size() + item.chunk.size();
        const bool newPath = std::find(m_paths.begin(), m_paths.end(), path) == m_paths.end();
        if (m_bytes + size > maxChunkFileBytes || (newPath && m_paths.size() == maxPathsAFile))
            return;
        if (newPath)
            m_paths.push_back(path);
        m_bytes += size;
        m_items.push_back(item);
    }

    const std::vector<ChunkCacheFormat::Item>& Items() const { return m_items; }

private:
    std::vector<ChunkCacheFormat::Item> m_items;
    std::vector<std::string_view> m_paths;
    std::uint64_t m_bytes = ChunkCacheFormat::headerBytes;
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
    if (!search.file || !ReadIndex(*search.file, m_key, m_records))
        return false;
    ChunkCacheFolder::NoteUse(*search.file);
    m_file = std::move(*search.file);
    return true;
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
    const auto waiting = m_waiting.find(name);
    if (waiting == m_waiting.end())
        return false;
    buffer.assign(m_waitingData, waiting->second.offset, waiting->second.length);
    chunk = buffer;
    return true;
}

bool ChunkCache::FindOnDisk(const std::string& name, std::string& buffer, std::string_view& chunk) const
{
    const std::uint64_t hash = HashName(name);
    auto record = std::lower_bound(m_records.begin(), m_records.end(), hash,
                                   [](const ChunkRecord& item, std::uint64_t value) { return item.nameHash < value; });
    for (; record != m_records.end() && record->nameHash == hash; ++record)
        if (ReadAt(m_file, record->offset, BytesOf(*record), buffer)
            && ChunkCacheFormat::ParseRecord(buffer, *record, name, chunk))
            return true;
    return false;
}

void ChunkCache::Add(const std::string& name, std::size_t archiveLength, std::string_view chunk)
{
    const std::lock_guard lock(m_lock);
    if (!m_writable || name.size() + chunk.size() > maxChunkFileBytes / 2)
        return;
    m_waiting[name] = {archiveLength, m_waitingData.size(), chunk.size()};
    m_waitingData.append(chunk);
    CacheRegistry::Process().NoteWaiting();
    if (m_waitingData.size() >= std::max(writeAtBytes, m_file.bytes))
        WriteWaiting();
}

void ChunkCache::Flush()
{
    const std::lock_guard lock(m_lock);
    if (!m_waiting.empty())
        WriteWaiting();
}

// The names and chunks of the file, which begin at `offset` of it.
bool ChunkCache::ReadData(std::string& data, std::uint64_t& offset) const
{
    if (!m_file.descriptor)
        return false;
    offset = ChunkCacheFormat::headerBytes + m_records.size() * ChunkCacheFormat::recordBytes;
    return ReadAt(m_file, offset, static_cast<std::size_t>(m_file.bytes - offset), data);
}

// What waits, and what the file holds already as far as it is whole and wanted.
std::string ChunkCache::FileToWrite() const
{
    Selection selection;
    for (const auto& [name, place] : m_waiting)
        selection.Take({name, static_cast<std::uint32_t>(place.archiveLength),
                        std::string_view(m_waitingData).substr(place.offset, place.length)});
    std::string data;
    std::uint64_t dataAt = 0;
    if (ReadData(data, dataAt)) {
        for (const ChunkRecord& record : m_records) {
            const std::string_view whole = std::string_view(data).substr(record.offset - dataAt, BytesOf(record));
            const std::string_view name = whole.substr(0, record.nameLength);
            std::string_view chunk;
            if (ChunkCacheFormat::ParseRecord(whole, record, name, chunk) && m_waiting.count(std::string(name)) == 0)
                selection.Take({name, record.archiveLength, chunk});
        }
    }
    return ChunkCacheFormat::Build(m_key, selection.Items());
}

void ChunkCache::WriteWaiting()
{
    // What another process has written meanwhile stays.
    LoadIndex();
    if (m_writable && !m_folder.Replace(m_key, FileToWrite()))
        m_writable = false; // the next process tries again
    m_waiting.clear();
    std::string().swap(m_waitingData);
    DropFile();
}

} // namespace VexCore
