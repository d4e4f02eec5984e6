#include "vex_core/domain/settings_file.h"

#include "support/joining_thread.h"
#include "support/process_guards.h"
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

TEST(SettingsText, OnlyTheGroupCounts)
{
    EXPECT_EQ(ParseSettings("a=1\n[settings]\na=2\n[other]\na=3\n[Settings]\nb=4\n[settings.x]\nb=5\n"),
              (Entries{{"a", "2"}, {"b", "4"}}));
}

TEST(SettingsText, LinesAreTrimmedAndCommentsPassedOver)
{
    EXPECT_EQ(ParseSettings("\xEF\xBB\xBF [settings] \r\n ; a = 9\n# a = 8\n\ta  =  1 2 \r\nb=\nc = x=y\nd = a ; b\n"),
              (Entries{{"a", "1 2"}, {"b", ""}, {"c", "x=y"}, {"d", "a ; b"}}));
}

TEST(SettingsText, NamesAreTheSameInAnyCaseAndTheLastWins)
{
    EXPECT_EQ(ParseSettings("[SETTINGS]\nApp.Log.Size=1\napp.log.size=2\n"), (Entries{{"app.log.size", "2"}}));
}

TEST(SettingsText, RubbishIsPassedOver)
{
    EXPECT_EQ(ParseSettings(""), Entries());
    EXPECT_EQ(ParseSettings("[settings"), Entries());
    EXPECT_EQ(ParseSettings("[settings]\n=x\nno equals sign\n[\n[settings]\na=1"), (Entries{{"a", "1"}}));
    EXPECT_EQ(ParseSettings(std::string(1000, '\0')), Entries());
    EXPECT_EQ(ParseSettings(std::string(1000, '\n')), Entries());
}

TEST(SettingsText, QuotesAroundAValueGo)
{
    EXPECT_EQ(ParseSettings("[settings]\na=\" x \"\nb=\"x\" y\nc=\"\nd=\"\"\n"),
              (Entries{{"a", " x "}, {"b", "\"x\" y"}, {"c", "\""}, {"d", ""}}));
}

TEST(SettingsText, VariablesAreReplacedAsInTheRestOfTheFile)
{
    const ::Test::Variable variable("VEX_TEST_X", "value");
    const ::Test::Variable none("VEX_TEST_NONE", std::nullopt);
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
        EXPECT_EQ(ParseSettings(std::string("[settings]\na=") + row.in), (Entries{{"a", row.out}})) << row.in;
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
    ASSERT_EQ(::utime(path.c_str(), &times), 0);
}

} // namespace

TEST(SettingsFile, IsReadAgainWhenItChanged)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    WriteFile(path, "[settings]\na=1\n");
    EXPECT_EQ(FindIn(file, path, "A"), "1");
    WriteFile(path, "[settings]\na=2\n");
    EXPECT_EQ(FindIn(file, path, "a"), "2") << "same size, perhaps the same time";
    MakeOld(path, 100);
    EXPECT_EQ(FindIn(file, path, "a"), "2");
    WriteFile(path, "[settings]\na=3\n");
    MakeOld(path, 50);
    EXPECT_EQ(FindIn(file, path, "a"), "3");
    WriteFile(folder / "y.ini", "[settings]\na=4\n");
    MakeOld(folder / "y.ini", 50);
    std::filesystem::rename(folder / "y.ini", path);
    EXPECT_EQ(FindIn(file, path, "a"), "4") << "another file under that name";
    std::filesystem::remove(path);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
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
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
    SettingsFile file;
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    {
        std::fstream inPlace(path, std::ios::in | std::ios::out);
        inPlace << "[settings]\na=2\n";
    }
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "1") << "all that is looked at is as before";
}

TEST(SettingsFile, EachPathIsAFileOfItsOwn)
{
    const TempFolder folder;
    for (const char* name : {"1", "2"}) {
        WriteFile(folder / name, std::string("[settings]\na=") + name);
        MakeOld(folder / name, 100);
    }
    SettingsFile file;
    EXPECT_EQ(FindIn(file, folder / "1", "a"), "1");
    EXPECT_EQ(FindIn(file, folder / "2", "a"), "2");
    EXPECT_EQ(FindIn(file, folder / "1", "a"), "1");
}

TEST(SettingsFile, WhatIsNoRegularFileHasNoSettingsAndDoesNotHang)
{
    const TempFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    SettingsFile file;
    EXPECT_EQ(FindIn(file, folder / "fifo", "a"), "none");
    EXPECT_EQ(FindIn(file, folder.Path(), "a"), "none");
    EXPECT_EQ(FindIn(file, "/dev/zero", "a"), "none");
    EXPECT_EQ(FindIn(file, "", "a"), "none");
}

TEST(SettingsFile, HugeFileIsReadToItsFirstFourMebibytes)
{
    const TempFolder folder;
    std::string bytes = "[settings]\na=1\n;";
    bytes.resize((4 << 20) - 4, 'x');
    WriteFile(folder / "x.ini", bytes + "\nb=2\nc=3\n");
    std::filesystem::resize_file(folder / "x.ini", std::uintmax_t(5) << 30);
    SettingsFile file;
    EXPECT_EQ(FindIn(file, folder / "x.ini", "a"), "1");
    EXPECT_EQ(FindIn(file, folder / "x.ini", "b"), "2");
    EXPECT_EQ(FindIn(file, folder / "x.ini", "c"), "none");
}

TEST(SettingsFile, ThreadsMayAskWhileItChanges)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    WriteFile(path, "[settings]\na=1\n");
    SettingsFile file;
    std::vector<::Test::JoiningThread> readers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&](const std::atomic<bool>& stop) {
            while (!stop) {
                const std::string value = FindIn(file, path, "a");
                if (value != "1" && value != "2")
                    ++wrong;
            }
        });
    for (int i = 0; i < 200; ++i) {
        WriteFile(folder / "new", i % 2 ? "[settings]\na=1\n" : "[settings]\na=2\n");
        std::filesystem::rename(folder / "new", path);
    }
    for (::Test::JoiningThread& reader : readers)
        reader.Stop();
    EXPECT_EQ(wrong, 0);
}
