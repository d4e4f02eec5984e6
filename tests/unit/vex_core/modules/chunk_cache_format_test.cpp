#include "vex_core/modules/chunk_cache_format.h"

#include "vex_core/modules/name_hash.h"

#include <cstring>

#include <gtest/gtest.h>

using namespace VexCore;
using namespace VexCore::ChunkCacheFormat;

namespace {
const std::string key(64, 'a');

std::vector<Item> Items()
{
    return {{"/x.vxe/a.lua", 6, "chunk a"}, {"/x.vxe/b.lua", 6, std::string_view("\0b", 2)}, {"/y.vxe/a.lua", 6, ""}};
}

// Reads a whole file the way the cache does.
bool ReadAll(const std::string& file, std::string_view wantedKey, std::vector<ChunkRecord>& records)
{
    Header header;
    if (file.size() < headerBytes
        || !ParseHeader(std::string_view(file).substr(0, headerBytes), wantedKey, file.size(), header))
        return false;
    return ParseIndex(std::string_view(file).substr(headerBytes, header.count * recordBytes), header, records);
}

} // namespace

TEST(ChunkFile, FileThatIsNotAsLongAsItSaysIsNone)
{
    const std::string file = Build(key, Items());
    const std::string_view head = std::string_view(file).substr(0, headerBytes);
    Header header;
    EXPECT_TRUE(ParseHeader(head, key, file.size(), header));
    EXPECT_FALSE(ParseHeader(head, key, file.size() - 1, header));
    EXPECT_FALSE(ParseHeader(head, key, file.size() + 1, header));
}

TEST(ChunkFile, WhatIsBuiltIsRead)
{
    const std::string file = Build(key, Items());
    std::vector<ChunkRecord> records;
    ASSERT_TRUE(ReadAll(file, key, records));
    ASSERT_EQ(records.size(), 3u);
    for (const Item& item : Items()) {
        bool found = false;
        for (const ChunkRecord& record : records) {
            std::string_view view;
            const auto bytes = std::string_view(file).substr(record.offset, record.nameLength + record.chunkLength);
            if (record.nameHash == HashName(item.name) && ParseRecord(bytes, record, item.name, view)) {
                found = true;
                EXPECT_EQ(view, item.chunk);
                EXPECT_EQ(record.archiveLength, 6u);
            }
        }
        EXPECT_TRUE(found) << item.name;
    }
}

TEST(ChunkFile, AFileOfAnotherKeyIsRefused)
{
    std::vector<ChunkRecord> records;
    EXPECT_FALSE(ReadAll(Build(key, Items()), std::string(64, 'b'), records));
}

TEST(ChunkFile, EveryFlippedBitIsNoticed)
{
    const std::string good = Build(key, Items());
    for (std::size_t i = 0; i < good.size() * 8; ++i) {
        std::string bad = good;
        bad[i / 8] = static_cast<char>(bad[i / 8] ^ (1 << (i % 8)));
        std::vector<ChunkRecord> records;
        if (!ReadAll(bad, key, records))
            continue;
        int whole = 0;
        for (const ChunkRecord& record : records) {
            const auto bytes = std::string_view(bad).substr(record.offset, record.nameLength + record.chunkLength);
            for (const Item& item : Items()) {
                std::string_view view;
                if (ParseRecord(bytes, record, item.name, view)) {
                    ++whole;
                    EXPECT_EQ(view, item.chunk);
                }
            }
        }
        EXPECT_EQ(whole, 2) << "bit " << i;
    }
}

TEST(ChunkFile, ARecordThatPointsOutOfTheFileIsRefused)
{
    Header header;
    header.count = 1;
    header.fileBytes = headerBytes + recordBytes + 10;
    const auto parses = [&header](std::uint64_t offset, std::uint32_t nameLength, std::uint32_t chunkLength) {
        std::string index(recordBytes, '\0');
        std::memcpy(&index[8], &offset, 8);
        std::memcpy(&index[16], &nameLength, 4);
        std::memcpy(&index[24], &chunkLength, 4);
        // The checksum of the index as the header promises it: taken from a file that was built with it.
        const std::string built = Build(key, {{"", 0, ""}});
        std::vector<ChunkRecord> records;
        header.indexChecksum = 0;
        for (std::uint32_t table[256] = {}, i = 0; i < 1; ++i) {
            for (std::uint32_t n = 0; n < 256; ++n) {
                table[n] = n;
                for (int bit = 0; bit < 8; ++bit)
                    table[n] = table[n] & 1 ? 0xedb88320u ^ (table[n] >> 1) : table[n] >> 1;
            }
            std::uint32_t crc = 0xffffffffu;
            for (const char character : index)
                crc = table[(crc ^ static_cast<unsigned char>(character)) & 0xff] ^ (crc >> 8);
            header.indexChecksum = crc ^ 0xffffffffu;
        }
        return ParseIndex(index, header, records);
    };
    const std::uint64_t data = headerBytes + recordBytes;
    EXPECT_TRUE(parses(data, 4, 6));
    EXPECT_FALSE(parses(data, 4, 7));
    EXPECT_FALSE(parses(data - 1, 4, 6));
    EXPECT_FALSE(parses(data + 11, 0, 0));
    EXPECT_FALSE(parses(~static_cast<std::uint64_t>(0), 4, 6));
    EXPECT_FALSE(parses(data, 0xffffffffu, 0xffffffffu));
}
