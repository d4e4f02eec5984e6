#include "vex_core/base/ascii.h"

#include <gtest/gtest.h>

using VexCore::EndsWith;
using VexCore::LowerAscii;
using VexCore::StartsWith;

TEST(Ascii, LettersOfOtherSetsStayAsTheyAre)
{
    EXPECT_EQ(LowerAscii('A'), 'a');
    EXPECT_EQ(LowerAscii('z'), 'z');
    EXPECT_EQ(LowerAscii('['), '[');
    EXPECT_EQ(LowerAscii('\xC4'), '\xC4');
}

TEST(Ascii, TextStartsAndEndsWithItsParts)
{
    EXPECT_TRUE(StartsWith("name.lua", "name"));
    EXPECT_TRUE(StartsWith("name.lua", ""));
    EXPECT_TRUE(StartsWith("", ""));
    EXPECT_FALSE(StartsWith("name.lua", "ame"));
    EXPECT_FALSE(StartsWith("na", "name"));
    EXPECT_TRUE(EndsWith("name.lua", ".lua"));
    EXPECT_TRUE(EndsWith("name.lua", ""));
    EXPECT_FALSE(EndsWith("name.luac", ".lua"));
    EXPECT_FALSE(EndsWith("lua", ".lua"));
}
