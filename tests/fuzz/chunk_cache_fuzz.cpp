// The reader of compiled-chunk files: whatever a file holds, records lie inside it and only whole ones are given out.
#include "vex_core/modules/chunk_cache_format.h"

#include <cstdlib>

using namespace VexCore;
using namespace VexCore::ChunkCacheFormat;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view file(reinterpret_cast<const char*>(data), size);
    Header header;
    if (size < headerBytes || !ParseHeader(file.substr(0, headerBytes), std::string(64, 'a'), size, header))
        return 0;
    std::vector<ChunkRecord> records;
    if (!ParseIndex(file.substr(headerBytes, static_cast<std::size_t>(header.count) * recordBytes), header, records))
        return 0;
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
