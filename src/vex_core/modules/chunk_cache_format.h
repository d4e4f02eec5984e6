#pragma once
// The bytes of a file of compiled chunks: reading and building. No state, no system; any thread. A file is a row of
// blocks, each written at once behind those before it: a header, the records of its chunks in the order of their names'
// hashes, and then name and chunk of each in the order in which they came. Numbers are in the machine's byte order,
// because compiled chunks are too. See docs/FORMATS.md for the page that operators read.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

/// Where one chunk lies in a cache file.
struct ChunkRecord
{
    std::uint64_t nameHash = 0; ///< `HashName` of the chunk's name
    std::uint64_t offset = 0; ///< in the file, or in the block while it is there: the name's bytes, then the chunk's
    std::uint32_t nameLength = 0;
    std::uint32_t archiveLength = 0; ///< how much of the name is the archive's path
    std::uint32_t chunkLength = 0;
    std::uint32_t checksum = 0; ///< CRC-32 of name and chunk
};

namespace ChunkCacheFormat {

constexpr std::size_t headerBytes = 64;
constexpr std::size_t recordBytes = 32;

/// What the first `headerBytes` of a block promise.
struct Header
{
    std::uint32_t count = 0; ///< of records
    std::uint32_t indexChecksum = 0;
    std::uint64_t blockBytes = 0; ///< of the whole block
    std::uint32_t pathChecksum = 0; ///< CRC-32 of the archive's path, which is one in a block
};

/// False when there is no such block, it belongs to another `key` (64 hexadecimal digits), has no records, or promises
/// more than `bytesLeft`, the bytes from its header to the end of the file, hold.
bool ParseHeader(std::string_view header, std::string_view key, std::uint64_t bytesLeft, Header& result);
/// `index` are the bytes behind the header, all records of the block, which begins at `blockAt` of the file. Adds them
/// to `records`. False, and nothing added, when they are damaged or one points out of the block.
bool ParseIndex(std::string_view index, const Header& parsed, std::uint64_t blockAt, std::vector<ChunkRecord>& records);
/// The chunk in a record's bytes, when they are whole and carry that name.
bool ParseRecord(std::string_view bytes, const ChunkRecord& record, std::string_view name, std::string_view& chunk);

/// Looks at bytes that the caller keeps.
struct Item
{
    std::string_view name; ///< archive's path, "/" and entry
    std::uint32_t archiveLength = 0;
    std::string_view chunk;
};

/// CRC-32 of name and chunk, as records have it.
std::uint32_t RecordChecksum(const Item& item);
/// CRC-32 of an archive's path, as headers have it.
std::uint32_t PathChecksum(std::string_view archive);

/// The bytes of a row of blocks, one for each archive's path.
std::string Build(std::string_view key, const std::vector<Item>& items);
/// The same into memory that the caller keeps: to find so much anew each time takes as long as to fill it.
void Build(std::string_view key, const std::vector<Item>& items, std::string& file);

} // namespace ChunkCacheFormat

} // namespace VexCore
