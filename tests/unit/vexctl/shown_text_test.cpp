#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/text_table.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace Vexctl;
using namespace std::string_literals;

TEST(ShownText, NothingThatATerminalObeysIsLeft)
{
    EXPECT_EQ(Shown("\x1b[31mred\x07"), "\\x1B[31mred\\x07");
    EXPECT_EQ(Shown("a\0b"s), "a\\x00b");
    EXPECT_EQ(Shown("a\nb\rc\x7f"), "a\\x0Ab\\x0Dc\\x7F");
    EXPECT_EQ(Shown("\xc2\x9b"), "\\xC2\\x9B");
    EXPECT_EQ(Shown("\x9b"), "\\x9B");
    EXPECT_EQ(Shown("\xe2\x80\xa8"), "\\xE2\\x80\\xA8");
}

TEST(ShownText, OtherTextStaysAsItIs)
{
    EXPECT_EQ(Shown("agent é 漢 \xff"), "agent é 漢 \xff");
    EXPECT_EQ(Shown("a\tb"), "a\\x09b");
    EXPECT_EQ(Shown("a\tb", true), "a\tb");
}

TEST(ShownText, ColumnsAreThoseOfCharactersAndNotOfBytes)
{
    EXPECT_EQ(Columns("abc"), 3u);
    EXPECT_EQ(Columns("é"), 1u);
    EXPECT_EQ(Columns(""), 0u);
}

TEST(ShownText, WhatIsTooWideIsCutWithAMark)
{
    EXPECT_EQ(CutToColumns("abcdef", 6), "abcdef");
    EXPECT_EQ(CutToColumns("abcdef", 5), "abcd…");
    EXPECT_EQ(CutToColumns("ééé", 2), "é…");
    EXPECT_EQ(CutToColumns("abc", 1), "…");
    EXPECT_EQ(CutToColumns("abc", 0), "");
}

TEST(JsonOutput, EscapesWhatATerminalObeysAndReplacesWhatIsNoText)
{
    EXPECT_EQ(JsonText(Json{{"b", "\x1b[m"}, {"a", "é"}}), R"({"b":"\u001b[m","a":"é"})");
    EXPECT_EQ(JsonText(Json("\xc2\x9b\x7f\xe2\x80\xa8")), R"("\u009b\u007f\u2028")");
    EXPECT_EQ(JsonText(Json("\xff")), "\"\xef\xbf\xbd\"");
    EXPECT_EQ(JsonText(Json{{"a", 1}}, 2), "{\n  \"a\": 1\n}");
}

TEST(TextTable, AlignsColumnsByWhatIsSeen)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "out";
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    {
        Output out(file);
        TextTable table({{"NAME"}, {"SIZE", TextTable::Align::Right}, {"TEXT"}});
        table.AddRow({{"é"}, {"7"}, {"one"}});
        table.AddRow({{"longer"}, {"1000"}, {"two\x1b"}});
        table.AddRow({{"x"}, {"1"}, {""}});
        table.Print(out);
        out.Flush();
    }
    ::close(file);
    EXPECT_EQ(::Test::ReadFile(path), "NAME    SIZE  TEXT\n"
                                      "é          7  one\n"
                                      "longer  1000  two\\x1B\n"
                                      "x          1\n");
}

TEST(CommandOutput, TellsAReaderThatIsGoneFromADiskThatIsFull)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    const auto previous = std::signal(SIGPIPE, SIG_IGN);
    Output toNobody(ends[1]);
    EXPECT_THROW(toNobody.Write("x"), ReaderGone);
    std::signal(SIGPIPE, previous);
    ::close(ends[1]);

    const int full = ::open("/dev/full", O_WRONLY);
    if (full < 0)
        GTEST_SKIP() << "NO /dev/full here";
    Output toFullDisk(full);
    EXPECT_THROW(toFullDisk.Write("x"), OutputFailed);
    ::close(full);
}

TEST(CommandOutput, TheFirstTextIsWrittenAtOnce)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "out";
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    Output out(file);
    out.Write("first\n");
    EXPECT_EQ(::Test::ReadFile(path), "first\n");
    out.Write("second\n");
    EXPECT_EQ(::Test::ReadFile(path), "first\n");
    out.Flush();
    EXPECT_EQ(::Test::ReadFile(path), "first\nsecond\n");
    ::close(file);
}
