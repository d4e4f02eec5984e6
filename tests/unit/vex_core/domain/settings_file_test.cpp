#include "vex_core/domain/settings_file.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

using Test::TempFolder;
using Test::WriteFile;
using VexCore::ParseSettings;
using VexCore::SettingsFile;

using Entries = std::map<std::string, std::string>;

TEST(ParseSettings, OnlyTheGroupCounts)
{
    EXPECT_EQ((Entries{{"a", "2"}, {"b", "4"}}),
              ParseSettings("a=1\n[settings]\na=2\n[other]\na=3\n[Settings]\nb=4\n[settings.x]\nb=5\n"));
}

TEST(ParseSettings, LinesAreTrimmedAndCommentsPassedOver)
{
    EXPECT_EQ((Entries{{"a", "1 2"}, {"b", ""}, {"c", "x=y"}, {"d", "a ; b"}}),
              ParseSettings("\xEF\xBB\xBF [settings] \r\n ; a = 9\n# a = 8\n\ta  =  1 2 \r\nb=\nc = x=y\nd = a ; b\n"));
}

TEST(ParseSettings, NamesAreTheSameInAnyCaseAndTheLastWins)
{
    EXPECT_EQ((Entries{{"app.log.size", "2"}}), ParseSettings("[SETTINGS]\nApp.Log.Size=1\napp.log.size=2\n"));
}

TEST(ParseSettings, RubbishIsPassedOver)
{
    EXPECT_EQ(Entries(), ParseSettings(""));
    EXPECT_EQ(Entries(), ParseSettings("[settings"));
    EXPECT_EQ((Entries{{"a", "1"}}), ParseSettings("[settings]\n=x\nno equals sign\n[\n[settings]\na=1"));
    EXPECT_EQ(Entries(), ParseSettings(std::string(1000, '\0')));
    EXPECT_EQ(Entries(), ParseSettings(std::string(1000, '\n')));
}

TEST(ParseSettings, QuotesAroundAValueGo)
{
    EXPECT_EQ((Entries{{"a", " x "}, {"b", "\"x\" y"}, {"c", "\""}, {"d", ""}}),
              ParseSettings("[settings]\na=\" x \"\nb=\"x\" y\nc=\"\nd=\"\"\n"));
}

TEST(ParseSettings, VariablesAreReplacedAsInTheRestOfTheFile)
{
    ::setenv("VEX_TEST_X", "value", 1);
    ::unsetenv("VEX_TEST_NONE");
    const struct
    {
        const char* in;
        const char* out;
    } rows[] = {
        {"$VEX_TEST_X", "value"},
        {"${VEX_TEST_X}s", "values"},
        {"$(VEX_TEST_X)/a", "value/a"},
        {"\\$VEX_TEST_X", "$VEX_TEST_X"},
        {"$VEX_TEST_NONE", "$VEX_TEST_NONE"},
        {"100$", "100$"},
        {"${VEX_TEST_X", "${VEX_TEST_X"},
        {"$", "$"},
        {"$$VEX_TEST_X", "$value"},
        {"a\\b", "a\\b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ((Entries{{"a", row.out}}), ParseSettings(std::string("[settings]\na=") + row.in)) << row.in;
}

namespace {
std::string FindIn(SettingsFile& file, const std::string& path, const char* name)
{
    std::string value = "none";
    file.Find(path, name, value);
    return value;
}

void MakeOld(const std::string& path, int seconds)
{
    const std::time_t time = std::time(nullptr) - seconds;
    const struct utimbuf times = {time, time};
    ASSERT_EQ(0, ::utime(path.c_str(), &times));
}

} // namespace

TEST(SettingsFile, IsReadAgainWhenItChanged)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    EXPECT_EQ("none", FindIn(file, path, "a"));
    WriteFile(path, "[settings]\na=1\n");
    EXPECT_EQ("1", FindIn(file, path, "A"));
    WriteFile(path, "[settings]\na=2\n");
    EXPECT_EQ("2", FindIn(file, path, "a")) << "same size, perhaps the same time";
    MakeOld(path, 100);
    EXPECT_EQ("2", FindIn(file, path, "a"));
    WriteFile(path, "[settings]\na=3\n");
    MakeOld(path, 50);
    EXPECT_EQ("3", FindIn(file, path, "a"));
    WriteFile(folder / "y.ini", "[settings]\na=4\n");
    MakeOld(folder / "y.ini", 50);
    std::filesystem::rename(folder / "y.ini", path);
    EXPECT_EQ("4", FindIn(file, path, "a")) << "another file under that name";
    std::filesystem::remove(path);
    EXPECT_EQ("none", FindIn(file, path, "a"));
}

TEST(SettingsFile, ChangeWithinOneTickOfTheFilesTimeIsSeen)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    std::string value;
    WriteFile(path, "[settings]\na=1\n");
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    ASSERT_TRUE(file.Find(path, "a", value));
    WriteFile(path, "[settings]\na=2\n");
    const struct timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    ASSERT_TRUE(file.Find(path, "a", value));
    EXPECT_EQ(value, "2");
}

TEST(SettingsFile, IsNotReadAgainWhileItStaysAsItIs)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    const struct timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
    WriteFile(path, "[settings]\na=1\n");
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), longAgo, 0));
    SettingsFile file;
    EXPECT_EQ("1", FindIn(file, path, "a"));
    {
        std::fstream inPlace(path, std::ios::in | std::ios::out);
        inPlace << "[settings]\na=2\n";
    }
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), longAgo, 0));
    EXPECT_EQ("1", FindIn(file, path, "a")) << "all that is looked at is as before";
}

TEST(SettingsFile, EachPathIsAFileOfItsOwn)
{
    const TempFolder folder;
    for (const char* name : {"1", "2"}) {
        WriteFile(folder / name, std::string("[settings]\na=") + name);
        MakeOld(folder / name, 100);
    }
    SettingsFile file;
    EXPECT_EQ("1", FindIn(file, folder / "1", "a"));
    EXPECT_EQ("2", FindIn(file, folder / "2", "a"));
    EXPECT_EQ("1", FindIn(file, folder / "1", "a"));
}

TEST(SettingsFile, WhatIsNoRegularFileHasNoSettingsAndDoesNotHang)
{
    const TempFolder folder;
    ASSERT_EQ(0, ::mkfifo((folder / "fifo").c_str(), 0600));
    SettingsFile file;
    EXPECT_EQ("none", FindIn(file, folder / "fifo", "a"));
    EXPECT_EQ("none", FindIn(file, folder.Path(), "a"));
    EXPECT_EQ("none", FindIn(file, "/dev/zero", "a"));
    EXPECT_EQ("none", FindIn(file, "", "a"));
}

TEST(SettingsFile, HugeFileIsReadToItsFirstFourMebibytes)
{
    const TempFolder folder;
    std::string bytes = "[settings]\na=1\n;";
    bytes.resize((4 << 20) - 4, 'x');
    WriteFile(folder / "x.ini", bytes + "\nb=2\nc=3\n");
    std::filesystem::resize_file(folder / "x.ini", std::uintmax_t(5) << 30);
    SettingsFile file;
    EXPECT_EQ("1", FindIn(file, folder / "x.ini", "a"));
    EXPECT_EQ("2", FindIn(file, folder / "x.ini", "b"));
    EXPECT_EQ("none", FindIn(file, folder / "x.ini", "c"));
}

TEST(SettingsFile, ThreadsMayAskWhileItChanges)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    WriteFile(path, "[settings]\na=1\n");
    SettingsFile file;
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&] {
            while (!done) {
                const std::string value = FindIn(file, path, "a");
                if (value != "1" && value != "2")
                    ++wrong;
            }
        });
    for (int i = 0; i < 200; ++i) {
        WriteFile(folder / "new", i % 2 ? "[settings]\na=1\n" : "[settings]\na=2\n");
        std::filesystem::rename(folder / "new", path);
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(0, wrong);
}
