#include "vex_core/base/utf8.h"

#include <string>

#include <gtest/gtest.h>

using VexCore::DecodeUtf8;

namespace {
// The plainest way to write a character, without a look at whether it is one.
std::string Encode(char32_t value)
{
    const auto rest = [value](int shift) { return static_cast<char>(0x80 | (value >> shift & 0x3F)); };
    if (value < 0x80)
        return std::string(1, static_cast<char>(value));
    if (value < 0x800)
        return {static_cast<char>(0xC0 | value >> 6), rest(0)};
    if (value < 0x10000)
        return {static_cast<char>(0xE0 | value >> 12), rest(6), rest(0)};
    return {static_cast<char>(0xF0 | value >> 18), rest(12), rest(6), rest(0)};
}

} // namespace

TEST(Utf8, EveryCharacterIsReadAndSurrogatesAndWhatLiesBeyondAreNone)
{
    for (char32_t value = 0; value < 0x120000; ++value) {
        const std::string bytes = Encode(value);
        const bool valid = value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
        char32_t read = 0xFFFFFFFF;
        ASSERT_EQ(DecodeUtf8(bytes + "\x80", read), valid ? bytes.size() : 0)
            << std::hex << static_cast<std::uint32_t>(value);
        ASSERT_EQ(read, valid ? value : 0xFFFFFFFF) << std::hex << static_cast<std::uint32_t>(value);
    }
}

TEST(Utf8, WhatIsCutIsNoneAndNothingBehindItsEndIsRead)
{
    char32_t read = 0;
    for (const char32_t value : {U'\u00E4', U'\u20AC', U'\U0001F642'}) {
        const std::string whole = Encode(value);
        for (std::size_t size = 1; size < whole.size(); ++size)
            EXPECT_EQ(DecodeUtf8(std::string_view(whole).substr(0, size), read), 0u);
    }
}

TEST(Utf8, LongerFormsThanNeededAreNone)
{
    char32_t read = 0;
    for (const char* bytes :
         {"\xC0\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xE0\x9F\xBF", "\xF0\x80\x80\xAF", "\xF0\x8F\xBF\xBF"})
        EXPECT_EQ(DecodeUtf8(bytes, read), 0u) << bytes;
}

TEST(Utf8, ContinuationsAloneAndLeadsWithoutThemAreNone)
{
    char32_t read = 0;
    for (const char* bytes :
         {"\x80", "\xBF", "\xC3(", "\xE2\x28\xA1", "\xE2\x82\x28", "\xF0\x28\x8C\xBC", "\xF0\x90\x28\xBC",
          "\xF0\x90\x8C\x28", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFE", "\xFF"})
        EXPECT_EQ(DecodeUtf8(bytes, read), 0u) << bytes;
}
