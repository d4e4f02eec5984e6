#include "vex_core/modules/chunk_cache.h"

#include "vex/core/log.h"
#include "vex_core/base/end_steps.h"
#include "vex_core/base/hex.h"
#include "vex_core/base/narrow.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/os/file_calls.h"
#include "vex_core/os/folder_calls.h"
#include "vex_core/os/status_calls.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <unordered_map>

#include <fcntl.h>
#include <libdeflate.h>
#include <openssl/sha.h>

namespace VexCore {
namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::uint64_t writeAtBytes = 4096;
#else
constexpr std::uint64_t writeAtBytes = 8 * 1024 * 1024;
#endif
constexpr std::int64_t writeAfterMs = 2000;
/// A cache file is never larger; where it would be, it starts anew with what is wanted now.
constexpr std::uint64_t maxFileBytes = static_cast<std::uint64_t>(64) << 20;
/// The same archive may lie at many paths (builds, tests); chunks carry their path, so each path has its own.
constexpr std::size_t maxPathsAFile = 8;
constexpr std::size_t maxOpenFiles = 16;
/// What the folder may hold: files that were of no use to anyone for a month go, and the oldest beyond these bounds.
constexpr std::size_t maxFiles = 1000;
constexpr std::uint64_t maxFolderBytes = static_cast<std::uint64_t>(256) << 20;
constexpr std::int64_t maxIdleSeconds = 30 * 24 * 3600;
/// A writer takes milliseconds; what is older was left by one that was killed.
constexpr std::int64_t maxTemporarySeconds = 3600;
/// A file's time tells when it was last of use, to the day.
constexpr std::int64_t touchAfterSeconds = 24 * 3600;

constexpr char fileSuffix[] = ".luac";
constexpr char temporaryPrefix[] = "tmp-";

void Trace(int line, const std::string& folder, const std::string& text)
{
    if (LogTraceIsEnabled("Srvc"))
        LogTrace("Srvc", "vex_core/chunk_cache", line, "ChunkCache",
                 FromForeignBytes(folder) + ": " + FromForeignBytes(text));
}

std::int64_t SteadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::int64_t NowSeconds()
{
    return static_cast<std::int64_t>(std::time(nullptr));
}

/// Ours alone: code that is loaded from there runs with our rights.
bool IsPrivate(const struct stat& status)
{
    return status.st_uid == os::EffectiveUser() && (status.st_mode & 077) == 0;
}

/// The folder when it may be used; a symbolic link, another's folder or one that others may enter may not.
os::Descriptor OpenPrivateFolder(const std::string& folder, bool& missing)
{
    missing = false;
    os::Descriptor descriptor(os::OpenFolderAt(AT_FDCWD, folder.c_str()));
    if (!descriptor) {
        missing = errno == ENOENT;
        if (!missing)
            Trace(__LINE__, folder, "not used: " + os::ErrorText(errno));
        return descriptor;
    }
    struct stat status;
    if (os::FStat(descriptor.Get(), status) != 0 || !IsPrivate(status)) {
        Trace(__LINE__, folder, "not used: it is not ours alone");
        return os::Descriptor(-1);
    }
    return descriptor;
}

std::uint32_t Load32(const char* data)
{
    std::uint32_t value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

std::uint64_t Load64(const char* data)
{
    std::uint64_t value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

void Store32(std::string& bytes, std::uint32_t value)
{
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void Store64(std::string& bytes, std::uint64_t value)
{
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

std::uint32_t Checksum(std::uint32_t seed, std::string_view bytes)
{
    return libdeflate_crc32(seed, bytes.data(), bytes.size());
}

/// All caches of the process, the open files among them, and since when something waits to be written.
class Caches
{
public:
    static Caches& Process()
    {
        static Caches* const instance = new Caches; // never destroyed: the exit handler and late interpreters use it
        return *instance;
    }

    std::shared_ptr<ChunkCache> Get(const std::string& folder, const std::string& key)
    {
        const std::lock_guard lock(m_lock);
        std::shared_ptr<ChunkCache>& cache = m_caches[folder + "/" + key];
        if (!cache)
            cache = std::make_shared<ChunkCache>(folder, key);
        return cache;
    }

    std::vector<std::shared_ptr<ChunkCache>> All()
    {
        const std::lock_guard lock(m_lock);
        std::vector<std::shared_ptr<ChunkCache>> all;
        for (const auto& item : m_caches)
            all.push_back(item.second);
        return all;
    }

    void ForgetUnused()
    {
        const std::lock_guard lock(m_lock);
        for (auto item = m_caches.begin(); item != m_caches.end();) {
            if (item->second.use_count() == 1)
                item = m_caches.erase(item);
            else
                ++item;
        }
    }

    /// Something waits from now on, at the latest until this process exits.
    void StartWaiting()
    {
        std::int64_t nothing = 0;
        m_waitingSinceMs.compare_exchange_strong(nothing, SteadyMs());
        s_waitingIn = os::ProcessId();
    }

    /// Hosts end by `exit` without closing their interpreter. Not in a child that was forked: locks may be held there by threads
    /// that it does not have.
    static void FlushAtExit()
    {
        if (os::ProcessId() != s_waitingIn)
            return;
        try {
            ChunkCache::FlushAll();
        } catch (const std::exception&) { // out of memory while ending: only time is lost
        }
    }

    /// A cache has opened its file. When many are open, the one that has been longest is closed.
    void Opened(const std::shared_ptr<ChunkCache>& cache)
    {
        if (!cache)
            return; // a test's own, on the stack
        std::shared_ptr<ChunkCache> old;
        {
            const std::lock_guard lock(m_lock);
            m_open.push_back(cache);
            if (m_open.size() > maxOpenFiles) {
                old = m_open.front().lock();
                m_open.pop_front();
            }
        }
        if (old && old != cache)
            old->Rest();
    }

    std::atomic<std::int64_t> m_waitingSinceMs{0}; // 0: nothing waits

    /// Whether the folder may be swept: once a process.
    bool FirstSweep(const std::string& folder)
    {
        const std::lock_guard lock(m_lock);
        if (std::find(m_swept.begin(), m_swept.end(), folder) != m_swept.end())
            return false;
        m_swept.push_back(folder);
        return true;
    }

    std::atomic<unsigned> m_temporary{0}; // makes names of temporary files differ

private:
    static std::atomic<pid_t> s_waitingIn;
    std::mutex m_lock;
    std::deque<std::weak_ptr<ChunkCache>> m_open; // guarded by m_lock
    std::unordered_map<std::string, std::shared_ptr<ChunkCache>> m_caches; // guarded by m_lock
    std::vector<std::string> m_swept; // guarded by m_lock
};

std::atomic<pid_t> Caches::s_waitingIn{0};

const EndStepOwner writeChunkCaches(EndStep::WriteChunkCaches, &Caches::FlushAtExit);

struct FoundFile
{
    std::string name;
    std::int64_t seconds = 0; // of its last use
    std::uint64_t bytes = 0;
    bool temporary = false;
};

bool StartsWith(const std::string& text, const char* start)
{
    return text.compare(0, std::strlen(start), start) == 0;
}

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Our files in the folder; others are left alone.
std::vector<FoundFile> FilesIn(int folder)
{
    std::vector<std::string> names;
    os::ListFolder(
        folder,
        [](void* context, const char* name) {
            auto& list = *static_cast<std::vector<std::string>*>(context);
            list.emplace_back(name);
            return list.size() < 10 * maxFiles;
        },
        &names);
    std::vector<FoundFile> files;
    for (const std::string& name : names) {
        const bool temporary = StartsWith(name, temporaryPrefix);
        struct stat status;
        if ((!temporary && !EndsWith(name, fileSuffix)) || os::LStatAt(folder, name.c_str(), status) != 0
            || !S_ISREG(status.st_mode))
            continue;
        files.push_back(
            {name, static_cast<std::int64_t>(status.st_mtime), static_cast<std::uint64_t>(status.st_size), temporary});
    }
    return files;
}

/// Removes what nobody has used for long and what a killed writer left, and the oldest beyond the bounds.
void Sweep(int folder)
{
    std::vector<FoundFile> files = FilesIn(folder);
    std::sort(files.begin(), files.end(), [](const FoundFile& a, const FoundFile& b) { return a.seconds > b.seconds; });
    const std::int64_t now = NowSeconds();
    std::size_t count = 0;
    std::uint64_t bytes = 0;
    for (const FoundFile& file : files) {
        const std::int64_t age = now - file.seconds;
        const bool stale = age > (file.temporary ? maxTemporarySeconds : maxIdleSeconds);
        if (stale || (!file.temporary && (count >= maxFiles || bytes + file.bytes > maxFolderBytes))) {
            (void)os::UnlinkAt(folder, file.name.c_str());
            continue;
        }
        ++count;
        bytes += file.bytes;
    }
}

} // namespace

// --- The format

namespace ChunkCacheFormat {
namespace {
constexpr char magic[] = "VEXCHNK1";
constexpr std::size_t keyBytes = 32;
// Header: magic 8, key 32, count 4, checksum of index 4, bytes of the file 8, reserved 4, checksum of the header 4.
constexpr std::size_t countAt = 8 + keyBytes;
constexpr std::size_t checksumAt = headerBytes - 4;

std::string KeyBytes(std::string_view key)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < key.size(); i += 2) {
        const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
        bytes += static_cast<char>(value(key[i]) * 16 + value(key[i + 1]));
    }
    return bytes;
}

} // namespace

bool ParseHeader(std::string_view header, std::string_view key, std::uint64_t fileBytes, Header& result)
{
    if (header.size() != headerBytes || header.substr(0, 8) != std::string_view(magic, 8)
        || header.substr(8, keyBytes) != KeyBytes(key)
        || Load32(header.data() + checksumAt) != Checksum(0, header.substr(0, checksumAt)))
        return false;
    result.count = Load32(header.data() + countAt);
    result.indexChecksum = Load32(header.data() + countAt + 4);
    result.fileBytes = Load64(header.data() + countAt + 8);
    return result.fileBytes == fileBytes && result.count <= (fileBytes - headerBytes) / recordBytes;
}

bool ParseIndex(std::string_view index, const Header& parsed, std::vector<ChunkRecord>& records)
{
    records.clear();
    if (index.size() != static_cast<std::size_t>(parsed.count) * recordBytes
        || Checksum(0, index) != parsed.indexChecksum)
        return false;
    records.reserve(parsed.count);
    const std::uint64_t dataAt = headerBytes + index.size();
    for (std::size_t i = 0; i < parsed.count; ++i) {
        const char* const at = index.data() + i * recordBytes;
        ChunkRecord record;
        record.nameHash = Load64(at);
        record.offset = Load64(at + 8);
        record.nameLength = Load32(at + 16);
        record.archiveLength = Load32(at + 20);
        record.chunkLength = Load32(at + 24);
        record.checksum = Load32(at + 28);
        const std::uint64_t length = static_cast<std::uint64_t>(record.nameLength) + record.chunkLength;
        const bool inOrder = records.empty() || records.back().nameHash <= record.nameHash;
        if (!inOrder || record.archiveLength > record.nameLength || record.offset < dataAt
            || record.offset > parsed.fileBytes || length > parsed.fileBytes - record.offset) {
            records.clear();
            return false;
        }
        records.push_back(record);
    }
    return true;
}

bool ParseRecord(std::string_view bytes, const ChunkRecord& record, std::string_view name, std::string_view& chunk)
{
    if (bytes.size() != static_cast<std::size_t>(record.nameLength) + record.chunkLength
        || Checksum(0, bytes) != record.checksum || bytes.substr(0, record.nameLength) != name)
        return false;
    chunk = bytes.substr(record.nameLength);
    return true;
}

std::string Build(std::string_view key, const std::vector<Item>& items)
{
    std::vector<std::pair<std::uint64_t, const Item*>> sorted;
    std::uint64_t bytes = headerBytes + items.size() * recordBytes;
    for (const Item& item : items) {
        sorted.emplace_back(HashName(item.name), &item);
        bytes += item.name.size() + item.chunk.size();
    }
    std::sort(sorted.begin(), sorted.end());

    std::string index;
    index.reserve(items.size() * recordBytes);
    std::uint64_t offset = headerBytes + items.size() * recordBytes;
    for (const auto& entry : sorted) {
        const Item& item = *entry.second;
        Store64(index, entry.first);
        Store64(index, offset);
        Store32(index, static_cast<std::uint32_t>(item.name.size()));
        Store32(index, item.archiveLength);
        Store32(index, static_cast<std::uint32_t>(item.chunk.size()));
        Store32(index, Checksum(Checksum(0, item.name), item.chunk));
        offset += item.name.size() + item.chunk.size();
    }

    std::string file;
    file.reserve(bytes);
    file.append(magic, 8);
    file += KeyBytes(key);
    Store32(file, static_cast<std::uint32_t>(items.size()));
    Store32(file, Checksum(0, index));
    Store64(file, bytes);
    Store32(file, 0);
    Store32(file, Checksum(0, file));
    file += index;
    for (const auto& entry : sorted)
        file.append(entry.second->name).append(entry.second->chunk);
    return file;
}

} // namespace ChunkCacheFormat

// --- The cache of one archive

std::string ChunkCache::Key(const std::string& directorySha256, const std::string& luaHeader)
{
    const std::string text = "chunks of " + directorySha256 + " for " + luaHeader;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    return Hex(digest, sizeof digest);
}

std::shared_ptr<ChunkCache> ChunkCache::Get(const std::string& folder, const std::string& key)
{
    return Caches::Process().Get(folder, key);
}

ChunkCache::ChunkCache(std::string folder, std::string key) : m_folder(std::move(folder)), m_key(std::move(key)) {}

ChunkCache::~ChunkCache()
{
    DropFile();
}

void ChunkCache::DropFile()
{
    if (m_descriptor >= 0)
        os::Close(m_descriptor);
    m_descriptor = -1;
    m_loaded = false;
    m_fileBytes = 0;
    m_records.clear();
}

void ChunkCache::Rest()
{
    const std::lock_guard lock(m_lock);
    DropFile();
}

bool ChunkCache::LoadIndex()
{
    DropFile();
    m_loaded = true;
    bool missing = false;
    const os::Descriptor folder = OpenPrivateFolder(m_folder, missing);
    if (!folder) {
        if (!missing)
            m_writable = false;
        return false;
    }
    os::Descriptor file(
        os::OpenAt(folder.Get(), (m_key + fileSuffix).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode) || !IsPrivate(status)
        || static_cast<std::uint64_t>(status.st_size) > maxFileBytes)
        return false;
    const std::uint64_t fileBytes = static_cast<std::uint64_t>(status.st_size);
    char headerData[ChunkCacheFormat::headerBytes];
    ChunkCacheFormat::Header header;
    const std::string_view headerView(headerData, sizeof headerData);
    if (os::PReadFull(file.Get(), headerData, sizeof headerData, 0) != static_cast<ssize_t>(sizeof headerData)
        || !ChunkCacheFormat::ParseHeader(headerView, m_key, fileBytes, header))
        return false;
    std::string index(static_cast<std::size_t>(header.count) * ChunkCacheFormat::recordBytes, '\0');
    if (os::PReadFull(file.Get(), &index[0], index.size(), ChunkCacheFormat::headerBytes)
            != static_cast<ssize_t>(index.size())
        || !ChunkCacheFormat::ParseIndex(index, header, m_records))
        return false;
    if (NowSeconds() - static_cast<std::int64_t>(status.st_mtime) > touchAfterSeconds)
        (void)os::TouchFile(file.Get());
    m_fileBytes = fileBytes;
    m_descriptor = file.Release();
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
        Caches::Process().Opened(weak_from_this().lock());
    return found;
}

bool ChunkCache::FindWaiting(const std::string& name, std::string& buffer, std::string_view& chunk) const
{
    if (m_pending.empty())
        return false;
    const auto waiting = m_pending.find(name);
    if (waiting == m_pending.end())
        return false;
    buffer.assign(m_pendingData, waiting->second.offset, waiting->second.length);
    chunk = buffer;
    return true;
}

bool ChunkCache::FindOnDisk(const std::string& name, std::string& buffer, std::string_view& chunk)
{
    const std::uint64_t hash = HashName(name);
    auto record = std::lower_bound(m_records.begin(), m_records.end(), hash,
                                   [](const ChunkRecord& item, std::uint64_t value) { return item.nameHash < value; });
    for (; record != m_records.end() && record->nameHash == hash; ++record)
        if (ReadRecord(*record, buffer) && ChunkCacheFormat::ParseRecord(buffer, *record, name, chunk))
            return true;
    return false;
}

bool ChunkCache::ReadRecord(const ChunkRecord& record, std::string& bytes)
{
    bytes.resize(static_cast<std::size_t>(record.nameLength) + record.chunkLength);
    return m_descriptor >= 0
           && os::PReadFull(m_descriptor, &bytes[0], bytes.size(), static_cast<off_t>(record.offset))
                  == static_cast<ssize_t>(bytes.size());
}

void ChunkCache::Add(const std::string& name, std::size_t archiveLength, std::string_view chunk)
{
    const std::lock_guard lock(m_lock);
    if (!m_writable || name.size() + chunk.size() > maxFileBytes / 2)
        return;
    m_pending[name] = {archiveLength, m_pendingData.size(), chunk.size()};
    m_pendingData.append(chunk);
    Caches::Process().StartWaiting();
    if (m_pendingData.size() >= std::max(writeAtBytes, m_fileBytes))
        WritePending();
}

void ChunkCache::Flush()
{
    const std::lock_guard lock(m_lock);
    if (!m_pending.empty())
        WritePending();
}

bool ChunkCache::ReadData(std::string& data, std::uint64_t& offset)
{
    offset = ChunkCacheFormat::headerBytes + m_records.size() * ChunkCacheFormat::recordBytes;
    if (m_descriptor < 0)
        return false;
    data.resize(m_fileBytes - offset);
    return os::PReadFull(m_descriptor, &data[0], data.size(), static_cast<off_t>(offset))
           == static_cast<ssize_t>(data.size());
}

/// What waits, and what the file holds already as far as it is whole and wanted.
std::string ChunkCache::FileToWrite()
{
    std::vector<ChunkCacheFormat::Item> items;
    std::vector<std::string_view> paths;
    std::uint64_t bytes = ChunkCacheFormat::headerBytes;
    const auto take = [&](const ChunkCacheFormat::Item& item) {
        const std::string_view path = item.name.substr(0, item.archiveLength);
        const std::uint64_t size = ChunkCacheFormat::recordBytes + item.name.size() + item.chunk.size();
        const bool newPath = std::find(paths.begin(), paths.end(), path) == paths.end();
        if (bytes + size > maxFileBytes || (newPath && paths.size() == maxPathsAFile))
            return;
        if (newPath)
            paths.push_back(path);
        bytes += size;
        items.push_back(item);
    };
    for (const auto& waiting : m_pending) {
        const Pending& place = waiting.second;
        take({waiting.first, static_cast<std::uint32_t>(place.archiveLength),
              std::string_view(m_pendingData).substr(place.offset, place.length)});
    }
    std::string data;
    std::uint64_t dataAt = 0;
    if (ReadData(data, dataAt)) {
        for (const ChunkRecord& record : m_records) {
            const std::string_view whole = std::string_view(data).substr(
                record.offset - dataAt, static_cast<std::size_t>(record.nameLength) + record.chunkLength);
            const std::string_view name = whole.substr(0, record.nameLength);
            std::string_view chunk;
            if (ChunkCacheFormat::ParseRecord(whole, record, name, chunk) && m_pending.count(std::string(name)) == 0)
                take({name, record.archiveLength, chunk});
        }
    }
    return ChunkCacheFormat::Build(m_key, items);
}

void ChunkCache::WritePending()
{
    // What another process has written meanwhile stays.
    LoadIndex();
    if (m_writable && !WriteFile(FileToWrite()))
        m_writable = false; // the next process tries again
    m_pending.clear();
    std::string().swap(m_pendingData);
    DropFile();
}

bool ChunkCache::WriteFile(const std::string& bytes)
{
    bool missing = false;
    os::Descriptor folder = OpenPrivateFolder(m_folder, missing);
    if (missing && os::MkdirAt(AT_FDCWD, m_folder.c_str(), 0700) == 0)
        folder = OpenPrivateFolder(m_folder, missing);
    if (!folder)
        return false;
    Caches& caches = Caches::Process();
    const std::string temporary = temporaryPrefix + std::to_string(os::ProcessId()) + "-" + std::to_string(SteadyMs())
                                  + "-" + std::to_string(caches.m_temporary++);
    os::Descriptor file(os::OpenAt(folder.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!file) {
        Trace(__LINE__, m_folder, "not written: " + os::ErrorText(errno));
        return false;
    }
    // Not flushed to storage: after a power loss the checksums tell what is whole.
    if (os::WriteFull(file.Get(), bytes.data(), bytes.size()) != 0
        || os::RenameAt(folder.Get(), temporary.c_str(), folder.Get(), (m_key + fileSuffix).c_str()) != 0) {
        Trace(__LINE__, m_folder, "not written: " + os::ErrorText(errno));
        (void)os::UnlinkAt(folder.Get(), temporary.c_str());
        return false;
    }
    if (caches.FirstSweep(m_folder))
        Sweep(folder.Get());
    return true;
}

void ChunkCache::FlushAll()
{
    Caches& caches = Caches::Process();
    if (caches.m_waitingSinceMs.exchange(0) == 0)
        return;
    for (const auto& cache : caches.All())
        cache->Flush();
}

void ChunkCache::FlushOld()
{
    const std::int64_t since = Caches::Process().m_waitingSinceMs.load(std::memory_order_relaxed);
    if (since != 0 && SteadyMs() - since > writeAfterMs)
        FlushAll();
}

void ChunkCache::ForgetUnused()
{
    Caches::Process().ForgetUnused();
}

} // namespace VexCore
