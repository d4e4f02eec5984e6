#include "vex_core/modules/chunk_cache_format.h"

#include "vex_core/modules/name_hash.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <libdeflate.h>

namespace VexCore::ChunkCacheFormat {
namespace {
constexpr std::string_view magic("VEXCHNK1", 8);
constexpr std::size_t keyBytes = 32;
// Where the fields of the header lie: magic, key, then these.
constexpr std::size_t keyAt = 8;
constexpr std::size_t countAt = keyAt + keyBytes;
constexpr std::size_t indexChecksumAt = countAt + 4;
constexpr std::size_t blockBytesAt = indexChecksumAt + 4;
constexpr std::size_t pathChecksumAt = blockBytesAt + 8;
constexpr std::size_t checksumAt = pathChecksumAt + 4;
static_assert(checksumAt + 4 == headerBytes);

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

std::string KeyBytes(std::string_view key)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < key.size(); i += 2) {
        const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
        bytes += static_cast<char>(value(key[i]) * 16 + value(key[i + 1]));
    }
    return bytes;
}

ChunkRecord LoadRecord(const char* at)
{
    ChunkRecord record;
    record.nameHash = Load64(at);
    record.offset = Load64(at + 8);
    record.nameLength = Load32(at + 16);
    record.archiveLength = Load32(at + 20);
    record.chunkLength = Load32(at + 24);
    record.checksum = Load32(at + 28);
    return record;
}

void StoreRecord(std::string& bytes, const ChunkRecord& record)
{
    Store64(bytes, record.nameHash);
    Store64(bytes, record.offset);
    Store32(bytes, record.nameLength);
    Store32(bytes, record.archiveLength);
    Store32(bytes, record.chunkLength);
    Store32(bytes, record.checksum);
}

// One block, behind what `file` has already.
void AddBlock(std::string& file, std::string_view key, const std::vector<const Item*>& items)
{
    std::vector<ChunkRecord> records;
    records.reserve(items.size());
    std::uint64_t end = headerBytes + items.size() * recordBytes;
    for (const Item* const item : items) {
        ChunkRecord record;
        record.nameHash = HashName(item->name);
        record.offset = end;
        record.nameLength = static_cast<std::uint32_t>(item->name.size());
        record.archiveLength = item->archiveLength;
        record.chunkLength = static_cast<std::uint32_t>(item->chunk.size());
        record.checksum = RecordChecksum(*item);
        records.push_back(record);
        end += item->name.size() + item->chunk.size();
    }
    std::stable_sort(records.begin(), records.end(),
                     [](const ChunkRecord& left, const ChunkRecord& right) { return left.nameHash < right.nameHash; });
    std::string index;
    index.reserve(items.size() * recordBytes);
    for (const ChunkRecord& record : records)
        StoreRecord(index, record);

    const std::size_t begin = file.size();
    file.reserve(begin + static_cast<std::size_t>(end));
    file.append(magic).append(KeyBytes(key));
    Store32(file, static_cast<std::uint32_t>(items.size()));
    Store32(file, Checksum(0, index));
    Store64(file, end);
    Store32(file, PathChecksum(items.front()->name.substr(0, items.front()->archiveLength)));
    Store32(file, Checksum(0, std::string_view(file).substr(begin)));
    file += index;
    for (const Item* const item : items)
        file.append(item->name).append(item->chunk);
}

} // namespace

std::uint32_t RecordChecksum(const Item& item)
{
    return Checksum(Checksum(0, item.name), item.chunk);
}

std::uint32_t PathChecksum(std::string_view archive)
{
    return Checksum(0, archive);
}

bool ParseHeader(std::string_view header, std::string_view key, std::uint64_t bytesLeft, Header& result)
{
    if (header.size() != headerBytes || header.substr(0, keyAt) != magic
        || header.substr(keyAt, keyBytes) != KeyBytes(key)
        || Load32(header.data() + checksumAt) != Checksum(0, header.substr(0, checksumAt)))
        return false;
    result.count = Load32(header.data() + countAt);
    result.indexChecksum = Load32(header.data() + indexChecksumAt);
    result.blockBytes = Load64(header.data() + blockBytesAt);
    result.pathChecksum = Load32(header.data() + pathChecksumAt);
    return result.blockBytes <= bytesLeft && result.blockBytes >= headerBytes && result.count > 0
           && result.count <= (result.blockBytes - headerBytes) / recordBytes;
}

bool ParseIndex(std::string_view index, const Header& parsed, std::uint64_t blockAt, std::vector<ChunkRecord>& records)
{
    if (index.size() != static_cast<std::size_t>(parsed.count) * recordBytes
        || Checksum(0, index) != parsed.indexChecksum)
        return false;
    const std::size_t before = records.size();
    records.reserve(before + parsed.count);
    const std::uint64_t dataAt = headerBytes + index.size();
    for (std::size_t i = 0; i < parsed.count; ++i) {
        ChunkRecord record = LoadRecord(index.data() + i * recordBytes);
        const std::uint64_t length = static_cast<std::uint64_t>(record.nameLength) + record.chunkLength;
        const bool inOrder = records.size() == before || records.back().nameHash <= record.nameHash;
        if (!inOrder || record.archiveLength > record.nameLength || record.offset < dataAt
            || record.offset > parsed.blockBytes || length > parsed.blockBytes - record.offset) {
            records.resize(before);
            return false;
        }
        record.offset += blockAt;
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
    std::string file;
    Build(key, items, file);
    return file;
}

void Build(std::string_view key, const std::vector<Item>& items, std::string& file)
{
    std::vector<std::pair<std::string_view, std::vector<const Item*>>> blocks; // by path; seldom more than one
    for (const Item& item : items) {
        const std::string_view path = item.name.substr(0, item.archiveLength);
        auto block =
            std::find_if(blocks.begin(), blocks.end(), [path](const auto& known) { return known.first == path; });
        if (block == blocks.end())
            block = blocks.insert(block, {path, {}});
        block->second.push_back(&item);
    }
    file.clear();
    for (const auto& [path, ofPath] : blocks)
        AddBlock(file, key, ofPath);
}

} // namespace VexCore::ChunkCacheFormat
