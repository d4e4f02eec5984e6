// The reader of compiled-chunk files: whatever a file holds, records lie inside it and only whole ones are given out.
#include "vex_core/modules/chunk_cache_format.h"

#include <cstdlib>

using namespace VexCore;
using namespace VexCore::ChunkCacheFormat;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view file(reinterpret_cast<const char*>(data), size);
    std::vector<ChunkRecord> records;
    for (std::size_t at = 0; size - at >= headerBytes;) {
        Header header;
        if (!ParseHeader(file.substr(at, headerBytes), std::string(64, 'a'), size - at, header))
            break;
        const std::size_t indexBytes = static_cast<std::size_t>(header.count) * recordBytes;
        if (header.blockBytes > size - at || headerBytes + indexBytes > header.blockBytes)
            std::abort();
        if (!ParseIndex(file.substr(at + headerBytes, indexBytes), header, at, records))
            break;
        at += static_cast<std::size_t>(header.blockBytes);
    }
    for (const ChunkRecord& record : records) {
        const std::uint64_t length = static_cast<std::uint64_t>(record.nameLength) + record.chunkLength;
        if (record.offset > size || length > size - record.offset || record.archiveLength > record.nameLength)
            std::abort();
        const std::string_view bytes = file.substr(record.offset, length);
        std::string_view chunk;
        if (ParseRecord(bytes, record, bytes.substr(0, record.nameLength), chunk) && chunk.size() != record.chunkLength)
            std::abort();
    }
    return 0;
}
