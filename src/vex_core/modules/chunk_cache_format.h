#pragma once
// The bytes of a file of compiled chunks: reading and building. No state, no system; any thread. A file is a header,
// the records of all chunks in the order of their names' hashes, and then name and chunk of each. Numbers are in the
// machine's byte order, because compiled chunks are too. See docs/FORMATS.md for the page that operators read.

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
    std::uint64_t offset = 0; ///< in the file: the name's bytes, then the chunk's
    std::uint32_t nameLength = 0;
    std::uint32_t archiveLength = 0; ///< how much of the name is the archive's path
    std::uint32_t chunkLength = 0;
    std::uint32_t checksum = 0; ///< CRC-32 of name and chunk
};

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
/// `index` are the bytes behind the header, all records.
/// False when they are damaged or a record points out of the file.
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

} // namespace VexCore
