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

// Reads a whole file the way the cache does. False when not all of it was read.
bool ReadAll(std::string_view file, std::string_view wantedKey, std::vector<ChunkRecord>& records,
             std::vector<std::uint32_t>* paths = nullptr)
{
    for (std::size_t at = 0; at < file.size();) {
        Header header;
        if (file.size() - at < headerBytes
            || !ParseHeader(file.substr(at, headerBytes), wantedKey, file.size() - at, header)
            || !ParseIndex(file.substr(at + headerBytes, header.count * recordBytes), header, at, records))
            return false;
        if (paths)
            paths->push_back(header.pathChecksum);
        at += header.blockBytes;
    }
    return true;
}

} // namespace

TEST(ChunkFile, ABlockThatIsCutShortIsNone)
{
    const std::string block = Build(key, {Items()[0], Items()[1]});
    const std::string_view head = std::string_view(block).substr(0, headerBytes);
    Header header;
    EXPECT_TRUE(ParseHeader(head, key, block.size(), header));
    EXPECT_FALSE(ParseHeader(head, key, block.size() - 1, header));
    EXPECT_TRUE(ParseHeader(head, key, block.size() + 1, header)) << "another may follow";
    EXPECT_EQ(header.blockBytes, block.size());
}

TEST(ChunkFile, ABlockWithoutRecordsIsNone)
{
    std::string block = Build(key, {{"/x.vxe/a.lua", 6, "chunk"}});
    block.resize(headerBytes);
    const auto setHeader = [&block](std::uint32_t count) {
        const std::uint64_t bytes = headerBytes + recordBytes;
        std::memcpy(&block[40], &count, 4);
        std::memcpy(&block[48], &bytes, 8);
        const std::uint32_t checksum = RecordChecksum({std::string_view(block).substr(0, 60), 0, ""});
        std::memcpy(&block[60], &checksum, 4);
    };
    Header header;
    setHeader(1);
    EXPECT_TRUE(ParseHeader(block, key, 1000, header));
    setHeader(0);
    EXPECT_FALSE(ParseHeader(block, key, 1000, header));
}

TEST(ChunkFile, EachPathHasABlockThatKeepsTheOrderOfItsChunks)
{
    const std::string file = Build(key, {{"/x.vxe/z.lua", 6, "1"}, {"/y.vxe/a.lua", 6, "2"}, {"/x.vxe/a.lua", 6, "3"}});
    EXPECT_LT(file.find("/x.vxe/z.lua1"), file.find("/x.vxe/a.lua3"));
    EXPECT_LT(file.find("/x.vxe/a.lua3"), file.find("/y.vxe/a.lua2"));
    std::vector<ChunkRecord> records;
    std::vector<std::uint32_t> paths;
    ASSERT_TRUE(ReadAll(file, key, records, &paths));
    EXPECT_EQ(paths, (std::vector<std::uint32_t>{PathChecksum("/x.vxe"), PathChecksum("/y.vxe")}));
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(file.substr(records[2].offset, 13), "/y.vxe/a.lua2");
}

TEST(ChunkFile, BlocksThatFollowOneAnotherAreRead)
{
    std::string file = Build(key, {Items()[0]});
    file += Build(key, {Items()[2]});
    std::vector<ChunkRecord> records;
    ASSERT_TRUE(ReadAll(file, key, records));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(file.substr(records[0].offset, records[0].nameLength), "/x.vxe/a.lua");
    EXPECT_EQ(file.substr(records[1].offset, records[1].nameLength), "/y.vxe/a.lua");
    EXPECT_FALSE(ReadAll(file + "more", key, records));
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
        const bool all = ReadAll(bad, key, records);
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
        EXPECT_TRUE(!all || whole == 2) << "bit " << i;
    }
}

TEST(ChunkFile, ARecordThatPointsOutOfTheFileIsRefused)
{
    Header header;
    header.count = 1;
    header.blockBytes = headerBytes + recordBytes + 10;
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
        return ParseIndex(index, header, 1000, records);
    };
    const std::uint64_t data = headerBytes + recordBytes;
    EXPECT_TRUE(parses(data, 4, 6));
    EXPECT_FALSE(parses(data, 4, 7));
    EXPECT_FALSE(parses(data - 1, 4, 6));
    EXPECT_FALSE(parses(data + 11, 0, 0));
    EXPECT_FALSE(parses(~static_cast<std::uint64_t>(0), 4, 6));
    EXPECT_FALSE(parses(data, 0xffffffffu, 0xffffffffu));
}
