#include "vex_core/domain/config_text.h"

#include "support/log_catcher.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex_core/domain/dom_values.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <wx/convauto.h>
#include <wx/fileconf.h>
#include <wx/log.h>

using Test::TempFolder;
using Test::WriteFile;
using VexCore::DecodeConfig;

namespace {
using Entries = VexCore::SettingsEntries;

Entries ParseSettings(std::string_view bytes)
{
    return VexCore::ParseConfig(bytes).settings;
}

// The ASCII text in characters of `width` bytes, the highest byte first or last.
std::string Wide(std::string_view text, int width, bool highFirst)
{
    std::string bytes;
    for (const char c : text)
        for (int i = 0; i < width; ++i)
            bytes += i == (highFirst ? width - 1 : 0) ? c : '\0';
    return bytes;
}

const std::string utf8Mark = "\xEF\xBB\xBF";
const std::string utf16High = "\xFE\xFF";
const std::string utf16Low = "\xFF\xFE";
const std::string utf32High("\0\0\xFE\xFF", 4);
const std::string utf32Low("\xFF\xFE\0\0", 4);

// The group as the launcher's configuration object has it, which is made from the file itself.
Entries ByTheLauncher(const std::string& path)
{
    const wxLogNull silence;
    wxFileConfig config("vx_agent", "vendor", path, wxString(), wxCONFIG_USE_LOCAL_FILE, wxConvAuto());
    Entries entries;
    config.SetPath("/settings");
    wxString name;
    long cookie = 0;
    for (bool more = config.GetFirstEntry(name, cookie); more; more = config.GetNextEntry(name, cookie)) {
        wxString value;
        if (!name.empty() && config.Read(name, &value))
            entries.emplace(VexCore::BytesFromText(name), VexCore::BytesFromText(value));
    }
    return entries;
}

} // namespace

TEST(ConfigText, EachEncodingAndLineEndGivesTheSameText)
{
    for (const std::string end : {"\n", "\r\n", "\r"}) {
        const std::string text = "Trace=x" + end + "[settings]" + end + "a=1" + end + "b=2" + end;
        const struct
        {
            const char* encoding;
            std::string bytes;
        } rows[] = {
            {"UTF-8", text},
            {"UTF-8 with a mark", utf8Mark + text},
            {"UTF-16, highest first", utf16High + Wide(text, 2, true)},
            {"UTF-16, lowest first", utf16Low + Wide(text, 2, false)},
            {"UTF-32, highest first", utf32High + Wide(text, 4, true)},
            {"UTF-32, lowest first", utf32Low + Wide(text, 4, false)},
        };
        for (const auto& row : rows) {
            EXPECT_EQ(DecodeConfig(row.bytes), wxString(text)) << row.encoding;
            EXPECT_EQ(ParseSettings(row.bytes), (Entries{{"a", "1"}, {"b", "2"}})) << row.encoding;
        }
    }
}

TEST(ConfigText, CharactersBeyondAsciiAreReadInEachEncoding)
{
    const wxString expected = wxString::FromUTF8("\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(DecodeConfig("\xC3\xA9\xE2\x82\xAC"), expected);
    EXPECT_EQ(DecodeConfig(utf16High + std::string("\x00\xE9\x20\xAC", 4)), expected);
    EXPECT_EQ(DecodeConfig(utf16Low + std::string("\xE9\x00\xAC\x20", 4)), expected);
    EXPECT_EQ(DecodeConfig(utf32High + std::string("\0\0\x00\xE9\0\0\x20\xAC", 8)), expected);
    EXPECT_EQ(DecodeConfig(utf32Low + std::string("\xE9\x00\0\0\xAC\x20\0\0", 8)), expected);
    EXPECT_EQ(DecodeConfig(utf16High + std::string("\xD8\x3D\xDE\x00", 4)), wxString::FromUTF8("\xF0\x9F\x98\x80"))
        << "a pair";
}

TEST(ConfigText, BytesThatAreNoUtf8AreLatin1)
{
    EXPECT_EQ(DecodeConfig("a\xE9"), wxString::FromUTF8("a\xC3\xA9"));
    EXPECT_EQ(DecodeConfig("\xC3\xA9 \xE9"), wxString::FromUTF8("\xC3\x83\xC2\xA9 \xC3\xA9")) << "all of it";
    EXPECT_EQ(ParseSettings("[settings]\na=\xE9\n"), (Entries{{"a", "\xC3\xA9"}}));
}

TEST(ConfigText, MarkThatTheBytesBelieGivesNothing)
{
    EXPECT_EQ(DecodeConfig(""), wxString());
    EXPECT_EQ(DecodeConfig(utf32High + Wide("[settings]\na=1\n", 4, true) + "xyz"), wxString()) << "odd size";
    EXPECT_EQ(DecodeConfig(utf16High + Wide("a=1", 2, true) + std::string("\xD8\x00", 2)), wxString()) << "half a pair";
    EXPECT_EQ(ParseSettings(utf16High + Wide("[settings]\na=1\n", 2, true) + "x"), Entries()) << "odd size";
}

TEST(ConfigText, GrammarOfTheLauncherAndOfTheSettingsIsOne)
{
    const ::Test::AssertionsAreQuiet quiet;
    ::setenv("VEX_TEST_X", "value", 1);
    ::unsetenv("VEX_TEST_NONE");
    const struct
    {
        std::string lines; // behind [settings]
        Entries entries;
    } rows[] = {
        {"a=1\n[other]\na=3\n[Settings]\nb=4\n[settings/x]\na=5\n", {{"a", "1"}, {"b", "4"}}},
        {"[ settings ]\na=1\n", {}},
        {"[SETTINGS]x\na=1\n", {{"a", "1"}}},
        {"[x]\n[settings\na=1\n", {}},
        {"\ta  =  1 2", {{"a", "1 2"}}},
        {"a=1 \t", {{"a", "1 \t"}}},
        {" ; a = 9\n# a = 8\nb=\nc = x=y\nd = a ; b\n", {{"b", ""}, {"c", "x=y"}, {"d", "a ; b"}}},
        {"App.Log.Size=1\napp.log.size=2\n", {{"App.Log.Size", "2"}}},
        {"a b=1", {{"a b", "1"}}},
        {"a\\ b=1\nc\\=d=2", {{"a b", "1"}, {"c=d", "2"}}},
        {"=x\na=1", {{"a", "1"}}},
        {"no equals sign\na=1", {{"a", "1"}}},
        {"a/b=1\n/c=2\n../d=3", {}},
        {"!a=1\na=2", {{"a", "1"}}},
        {"a=\" x \"", {{"a", " x "}}},
        {"a=\"x\" y", {{"a", "x y"}}},
        {"a=\"x\\\"y\"", {{"a", "x\"y"}}},
        {"a=x\"y\"", {{"a", "x\"y\""}}},
        {"a=\"", {{"a", ""}}},
        {"a=\"\"", {{"a", ""}}},
        {"a=x\\ty\\\\z", {{"a", "x\ty\\z"}}},
        {"a=1\\\nb=2", {{"a", "1"}, {"b", "2"}}},
        {"a=$VEX_TEST_X/a", {{"a", "value/a"}}},
        {"a=${VEX_TEST_X}s", {{"a", "values"}}},
        {"a=$(VEX_TEST_X)", {{"a", "value"}}},
        {"a=$$VEX_TEST_X", {{"a", "$value"}}},
        {"a=\\\\$VEX_TEST_X", {{"a", "$VEX_TEST_X"}}},
        {"a=$VEX_TEST_NONE", {{"a", "$VEX_TEST_NONE"}}},
        {"a=100$", {{"a", "100$"}}},
        {std::string("a=1\0x\nb=2", 9), {{"a", "1"}, {"b", "2"}}},
        {std::string(1000, '\0'), {}},
        {std::string(1000, '\n'), {}},
    };
    const TempFolder folder;
    for (const auto& row : rows) {
        const std::string text = "[settings]\n" + row.lines;
        EXPECT_EQ(ParseSettings(text), row.entries) << row.lines;
        WriteFile(folder / "x.ini", text);
        EXPECT_EQ(ByTheLauncher(folder / "x.ini"), row.entries) << "the launcher: " << row.lines;
    }
    ::unsetenv("VEX_TEST_X");
}

TEST(ConfigText, EntriesWithAMarkAreLocked)
{
    const VexCore::ConfigContents contents =
        VexCore::ParseConfig("Trace=a\n!DumpLevel=1\n[settings]\n!a=1\na=2\nb=3\n\\!c=4\n");
    EXPECT_EQ(contents.settings, (Entries{{"a", "1"}, {"b", "3"}, {"c", "4"}}));
    EXPECT_EQ(contents.lockedSettings, (Entries{{"a", "1"}, {"c", "4"}}));
    EXPECT_EQ(contents.top, (Entries{{"Trace", "a"}, {"DumpLevel", "1"}}));
    EXPECT_EQ(contents.lockedTop, (Entries{{"DumpLevel", "1"}}));
}

TEST(ConfigText, LinesTellWhereEachGroupAndEntryStands)
{
    const auto describe = [](const std::string& text) {
        std::string all;
        for (const VexCore::ConfigLine& line : VexCore::ConfigLines(text)) {
            all += std::to_string(line.number) + ' ';
            all += line.kind == VexCore::ConfigLine::Kind::Group ? "[" + line.group + "]"
                   : line.kind == VexCore::ConfigLine::Kind::Entry
                       ? line.group + '/' + (line.locked ? "!" : "") + line.name
                       : "?";
            all += '|';
        }
        return all;
    };
    EXPECT_EQ(describe("a=1\n\n; x=1\n [settings] ; x\n!b = 2\n"), "1 /a|4 [settings]|5 settings/!b|");
    EXPECT_EQ(describe("a=1\rb=1\r\nc=1\n\rd=1"), "1 /a|2 /b|3 /c|5 /d|");
    EXPECT_EQ(describe("[x/../settings/]\n[/a//b]\n[]\nc=1\n"), "1 [settings]|2 [a/b]|3 []|4 /c|");
    EXPECT_EQ(describe("[x\nno\nk\\\n[a\\]b]\nd\\=e\\  =1\n"), "1 ?|2 ?|3 ?|4 [a]b]|5 a]b/d=e|");
    EXPECT_EQ(describe(std::string("a\0=1\nb=2\n", 9)), "1 ?|2 /b|");
    EXPECT_EQ(describe("\xE2\x80\x83 a\xE2\x80\x83=1\nb\x0B=2\n"), "1 /a\xE2\x80\x83|2 /b|") << "blanks beyond ASCII";
    EXPECT_EQ(describe(utf16High + Wide("\n[s]\n", 2, true)), "2 [s]|");
    EXPECT_EQ(describe(std::string(100001, '\n') + "a=1"), "");
}

TEST(ConfigText, ReadingSettingsSaysNothing)
{
    const ::Test::LogCatcher log;
    const ::Test::AssertionsAreQuiet quiet;
    ParseSettings("[settings\nno equals sign\na=\"x\" y\na=1\na=${\n");
    VexCore::ParseConfig("[settings]\n!a=1\na=2\n");
    VexCore::ConfigLines("[../settings]\n");
    EXPECT_EQ(log.All(), "");
}

TEST(ConfigText, FileWithTooManyLinesHasNoSettings)
{
    const std::string entry = "[settings]\na=1\n";
    EXPECT_EQ(ParseSettings(entry + std::string(99998, '\n')), (Entries{{"a", "1"}}));
    EXPECT_EQ(ParseSettings(entry + std::string(99999, '\n')), Entries());
}
