#include "vex/apps/vexctl/tar_writer.h"

#include <gtest/gtest.h>

#include <zlib.h>

using namespace Vexctl;

namespace {
std::string Unpacked(const std::string& packed)
{
    std::string text(8 * 1024 * 1024, '\0');
    z_stream stream = {};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(::inflateInit2(&stream, 15 + 16), Z_OK);
    do { // a part may follow another
        EXPECT_EQ(::inflateReset(&stream), Z_OK);
        EXPECT_EQ(::inflate(&stream, Z_FINISH), Z_STREAM_END);
    } while (stream.avail_in > 0 && !testing::Test::HasFailure());
    text.resize(text.size() - stream.avail_out);
    ::inflateEnd(&stream);
    return text;
}

} // namespace

TEST(TarWriter, PutsEachFileBehindItsHeaderInWholeBlocks)
{
    TarWriter archive("folder", 1700000000123);
    archive.Add("a.txt", "abc");
    archive.Add("empty", "");
    const std::string big(3 * 1024 * 1024, 'x');
    archive.Add("big", big);
    const std::string tar = Unpacked(archive.Finish());
    ASSERT_EQ(tar.size(), 512u * 2 + 512 + 512 + big.size() + 1024);
    EXPECT_EQ(tar.substr(0, 6), std::string("a.txt\0", 6));
    EXPECT_EQ(tar.substr(100, 7), "0000600");
    EXPECT_EQ(tar.substr(124, 11), "00000000003");
    EXPECT_EQ(tar.substr(136, 11), "14524770400");
    EXPECT_EQ(tar.substr(257, 8), std::string("ustar\0"
                                              "00",
                                              8));
    EXPECT_EQ(tar.substr(345, 7), std::string("folder\0", 7));
    EXPECT_EQ(tar.substr(512, 4), std::string("abc\0", 4));
    EXPECT_EQ(tar.substr(1024, 6), std::string("empty\0", 6));
    EXPECT_EQ(tar.substr(1536, 4), std::string("big\0", 4));
    EXPECT_EQ(tar.substr(2048, big.size()), big);
    EXPECT_EQ(tar.find_first_not_of('\0', 2048 + big.size()), std::string::npos);
    unsigned sum = 0;
    for (std::size_t i = 0; i < 512; ++i)
        sum += i >= 148 && i < 156 ? ' ' : static_cast<unsigned char>(tar[i]);
    EXPECT_EQ(std::stoul(tar.substr(148, 6), nullptr, 8), sum);
}

TEST(TarWriter, ALongNameLosesItsBegin)
{
    TarWriter archive("f", 0);
    archive.Add(std::string(50, 'a') + std::string(100, 'b'), "");
    EXPECT_EQ(Unpacked(archive.Finish()).substr(0, 101), std::string(100, 'b') + "0");
}
