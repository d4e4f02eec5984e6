#include "vex/apps/vex/version_file.h"

#include "support/temp_folder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <wx/mstream.h>
#include <wx/wfstream.h>

using Test::TempFolder;
using Test::WriteFile;

namespace {
// What was read, in a word or as the numbers.
std::string Verdict(wxInputStream& stream)
{
    const FileVersion version = ReadVersionFile(stream);
    switch (version.line) {
    case FileVersion::LineKind::Missing:
        return "no line";
    case FileVersion::LineKind::Malformed:
        return "malformed";
    case FileVersion::LineKind::WellFormed:
        break;
    }
    const int* const n = version.numbers;
    return std::to_string(n[0]) + "." + std::to_string(n[1]) + "." + std::to_string(n[2]) + "-" + std::to_string(n[3]);
}

std::string Verdict(const std::string& bytes)
{
    wxMemoryInputStream stream(bytes.data(), bytes.size());
    return Verdict(stream);
}

TEST(VersionFile, HasFourNumbersBehindTheWordAndAnythingBehindThem)
{
    EXPECT_EQ(Verdict("version: 7.1.2-3006"), "7.1.2-3006");
    EXPECT_EQ(Verdict("version:7.1.2-7\n"), "7.1.2-7");
    EXPECT_EQ(Verdict("version:\t 7. 1.\t2- 1\n"), "7.1.2-1");
    EXPECT_EQ(Verdict("version: 7.1.2-3006 release\n"), "7.1.2-3006");
    EXPECT_EQ(Verdict("version: 7.1.2-1.2.3-4"), "7.1.2-1");
    EXPECT_EQ(Verdict("version: +7.01.2--0005"), "7.1.2--5");
}

TEST(VersionFile, NumbersMayBeAnyThatAnIntHolds)
{
    EXPECT_EQ(Verdict("version: 9.5.3-1"), "9.5.3-1");
    EXPECT_EQ(Verdict("version: -7.1.2-1"), "-7.1.2-1");
    EXPECT_EQ(Verdict("version: 2147483647.-2147483648.0-1"), "2147483647.-2147483648.0-1");
}

TEST(VersionFile, WithoutFourNumbersIsMalformed)
{
    for (const char* line :
         {"version:", "version: ", "version: 7", "version: 7.1.2", "version: 7.1.2-", "version: 7.1.2.3006",
          "version: 7.1-2-1", "version: 7 .1.2-1", "version: 7.1.2 -1", "version: 7.1.2-x", "version: x7.1.2-1",
          "version: 7..2-1", "version: - 7.1.2-1", "version: 7,1,2-1", "version:version: 7.1.2-1", "version: 0xA.0.0-1",
          "version: 7.1.2-+", "version: ++7.1.2-1"})
        EXPECT_EQ(Verdict(line), "malformed") << line;
}

TEST(VersionFile, NumberThatDoesNotFitAnIntIsMalformedAndNeverWrapsAround)
{
    EXPECT_EQ(Verdict("version: 4294967306.0.0-1"), "malformed"); // 10 after wrapping at 32 bits
    EXPECT_EQ(Verdict("version: 18446744073709551626.0.0-1"), "malformed"); // and at 64
    EXPECT_EQ(Verdict("version: 7.1.2-2147483648"), "malformed");
    EXPECT_EQ(Verdict("version: 7.1.2--2147483649"), "malformed");
    EXPECT_EQ(Verdict("version: 7.1.2-" + std::string(100000, '9')), "malformed");
    EXPECT_EQ(Verdict("version: " + std::string(100000, '0') + "7.1.2-2147483647"), "7.1.2-2147483647");
}

TEST(VersionFile, OnlyTheFirstVersionLineCounts)
{
    EXPECT_EQ(Verdict("version: 7.1.2\nversion: 7.1.2-1\n"), "malformed");
    EXPECT_EQ(Verdict("version:\n7.1.2-1\n"), "malformed");
    EXPECT_EQ(Verdict("version: 7.1.2-1\nversion: 9.0.0-1\n"), "7.1.2-1");
    EXPECT_EQ(Verdict("name: net\n\nversion: 7.1.2-1\nend\n"), "7.1.2-1");
}

TEST(VersionFile, LineMustBeginWithTheWordInSmallLetters)
{
    for (const char* bytes :
         {"", "\n", " version: 7.1.2-3006\n", "Version: 7.1.2-3006\n", "version 7.1.2-3006\n", "xversion: 7.1.2-1\n",
          "versio\nn: 7.1.2-1\n", "# version: 7.1.2-1\n", "7.1.2-3006\n", "version"})
        EXPECT_EQ(Verdict(bytes), "no line") << bytes;
}

TEST(VersionFile, LinesEndInLineFeedsCarriageReturnsOrBoth)
{
    EXPECT_EQ(Verdict("a\r\nversion: 7.1.2-1\r\nb"), "7.1.2-1");
    EXPECT_EQ(Verdict("a\rversion: 7.1.2-1\rb"), "7.1.2-1");
    EXPECT_EQ(Verdict("a\n\rversion: 7.1.2-1"), "7.1.2-1");
    EXPECT_EQ(Verdict("version: 7.1.2\r-1"), "malformed");
}

std::string Widen(const std::string& text, unsigned width, bool bigEndian)
{
    std::string wide;
    for (const char c : text) {
        std::string unit(width, '\0');
        unit[bigEndian ? width - 1 : 0] = c;
        wide += unit;
    }
    return wide;
}

TEST(VersionFile, EncodingIsKnownByItsMark)
{
    const std::string text = "# x\r\nversion: 7.1.2-1\n";
    EXPECT_EQ(Verdict("\xEF\xBB\xBFversion: 7.1.2-1"), "7.1.2-1");
    EXPECT_EQ(Verdict("\xFF\xFE" + Widen(text, 2, false)), "7.1.2-1");
    EXPECT_EQ(Verdict("\xFE\xFF" + Widen(text, 2, true)), "7.1.2-1");
    EXPECT_EQ(Verdict(std::string("\xFF\xFE\0\0", 4) + Widen(text, 4, false)), "7.1.2-1");
    EXPECT_EQ(Verdict(std::string("\0\0\xFE\xFF", 4) + Widen(text, 4, true)), "7.1.2-1");
    EXPECT_EQ(Verdict("\xFF\xFE" + Widen("version: 10.0.1-1", 2, false)), "10.0.1-1");
    // Cut in the middle of a character.
    EXPECT_EQ(Verdict("\xFF\xFE" + Widen("version: 7.1.2-1", 2, false) + "2"), "7.1.2-1");
    // Without a mark it is not ASCII.
    EXPECT_EQ(Verdict(Widen("version: 7.1.2-1", 2, false)), "no line");
    // A character whose low byte looks like ours.
    EXPECT_EQ(Verdict("\xFF\xFE" + Widen("versio", 2, false) + "n\1" + Widen(": 7.1.2-1", 2, false)), "no line");
    for (const char* marks : {"\xFF", "\xFE", "\xEF\xBB", "\xFF\xFE", "\xEF\xBB\xBF"})
        EXPECT_EQ(Verdict(marks), "no line");
}

TEST(VersionFile, MayComeInPiecesOfAnySize)
{
    const std::string bytes = "\xFF\xFE" + Widen("# x\r\nversion: 7.1.2-1\n", 2, false);
    for (std::size_t piece = 1; piece < 8; ++piece) {
        std::size_t at = 0;
        const FileVersion version = ReadVersionFile([&](void* data, std::size_t size) {
            const std::size_t count = bytes.copy(static_cast<char*>(data), std::min(piece, size), at);
            at += count;
            return count;
        });
        EXPECT_EQ(version.line, FileVersion::LineKind::WellFormed) << piece;
        EXPECT_EQ(version.numbers[0], 7) << piece;
    }
}

TEST(VersionFile, StreamThatFailedIsNotAskedAgain)
{
    struct Failing : wxInputStream
    {
        int reads = 0;
        size_t OnSysRead(void* data, size_t size) override
        {
            m_lasterror = ++reads == 1 ? wxSTREAM_NO_ERROR : wxSTREAM_READ_ERROR;
            const size_t count = reads == 1 ? std::min<size_t>(size, 100) : 0;
            std::memset(data, '\n', count);
            return count;
        }
    } stream;
    EXPECT_EQ(Verdict(stream), "no line");
    EXPECT_EQ(stream.reads, 2); // the framework looks whether there is more
}

TEST(VersionFile, NothingBehindTheLimitIsAskedFor)
{
    constexpr std::size_t limit = std::size_t{256} << 20;
    std::size_t total = 0;
    EXPECT_EQ(ReadVersionFile([&total](void* data, std::size_t size) {
                  const std::size_t count = std::min<std::size_t>(size, 10007);
                  std::memset(data, total == 0 ? 'x' : '\0', count);
                  total += count;
                  return count;
              }).line,
              FileVersion::LineKind::Missing);
    EXPECT_EQ(total, limit);
}

TEST(VersionFile, BytesThatAreNoTextDoNotMatter)
{
    EXPECT_EQ(Verdict(std::string(1000, '\0')), "no line");
    EXPECT_EQ(Verdict(std::string(1000, '\0') + "\nversion: 7.1.2-1"), "7.1.2-1");
    EXPECT_EQ(Verdict("\xC3\x28\x80\xFF\nversion: 7.1.2-1\xFF"), "7.1.2-1");
    EXPECT_EQ(Verdict(std::string("version: 7.1.2-1\0", 17)), "7.1.2-1");
    EXPECT_EQ(Verdict(std::string("version:\0 7.1.2-1", 17)), "malformed");
}

TEST(VersionFile, LineAcrossABlockIsRead)
{
    for (const std::size_t block : {4 << 10, 16 << 10, 64 << 10}) {
        for (std::size_t pad = block - 20; pad < block + 4; ++pad)
            ASSERT_EQ(Verdict(std::string(pad, 'x') + "\nversion: 7.1.2-1\n"), "7.1.2-1") << pad;
        EXPECT_EQ(Verdict(std::string(block, 'x')), "no line");
    }
}

TEST(VersionFile, AHundredMegabytesAreReadWithoutBeingHeld)
{
    const TempFolder folder;
    const std::string file = folder / "x.version";
    WriteFile(file, "x");
    std::filesystem::resize_file(file, 100u << 20);
    std::ofstream(file, std::ios::app) << "\nversion: 7.1.2-1\n";
    wxFFileInputStream stream(wxString::FromUTF8(file), "rb");
    EXPECT_EQ(Verdict(stream), "7.1.2-1");
}

TEST(VersionFile, WhatLiesBehindTheAnswerOrTheLimitIsNotRead)
{
    const TempFolder folder;
    const std::string file = folder / "x.version";
    for (const char* line : {"version: 7.1.2-1\n", "x\n"}) {
        WriteFile(file, line);
        std::filesystem::resize_file(file, std::uintmax_t(1) << 40);
        wxFFileInputStream stream(wxString::FromUTF8(file), "rb");
        EXPECT_EQ(Verdict(stream), line[0] == 'v' ? "7.1.2-1" : "no line");
    }
}

} // namespace
