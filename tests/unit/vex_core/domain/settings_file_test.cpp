#include "vex_core/domain/settings_file.h"

#include "support/joining_thread.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

using Test::TempFolder;
using Test::WriteFile;
using VexCore::SettingsFile;

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

TEST(SettingsFile, ThatOthersMayWriteIsNotBelieved)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    WriteFile(path, "[settings]\na=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "1");
}

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

TEST(SettingsFile, NamesThatBeginAlikeInAnyCaseAreFoundAsTheyAreWritten)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    WriteFile(path, "[settings]\nA.b.Two=2\na.B.one=1\na.c=3\na.b=4\nb=5\n");
    EXPECT_EQ(file.NamesThatBegin(path, "a.b."), (std::vector<std::string>{"a.B.one", "A.b.Two"}));
    EXPECT_EQ(file.NamesThatBegin(path, "x"), std::vector<std::string>());
    EXPECT_EQ(FindIn(file, path, "A.B.TWO"), "2");
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

namespace {
int g_parses = 0;

SettingsFile::Entries CountedParse(std::string_view bytes)
{
    ++g_parses;
    return VexCore::ParseSettings(bytes);
}

} // namespace

TEST(SettingsFile, IsParsedOnceForEachContentHoweverNewItIs)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    g_parses = 0;
    SettingsFile file(CountedParse);
    for (int expected = 1; expected <= 2; ++expected) {
        WriteFile(path, "[settings]\na=" + std::to_string(expected) + "\n");
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(FindIn(file, path, "a"), std::to_string(expected));
        EXPECT_EQ(g_parses, expected);
    }
    MakeOld(path, 100);
    EXPECT_EQ(FindIn(file, path, "a"), "2");
    EXPECT_EQ(g_parses, 2) << "of another age, but the same";
}

TEST(SettingsFile, ContentThatComesBackIsParsedAgain)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    WriteFile(path, "[settings]\na=1\n");
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    std::filesystem::remove(path);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    WriteFile(path, "[settings]\na=1\n");
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    WriteFile(path, "");
    EXPECT_EQ(FindIn(file, path, "a"), "none");
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

TEST(SettingsFile, FileThatTheHostRefusesForItsSizeIsNotReadHereEither)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    const std::string entry = "[settings]\na=1\n;";
    SettingsFile file;
    WriteFile(path, entry + std::string((4 << 20) - entry.size(), 'x'));
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    std::filesystem::resize_file(path, (4 << 20) + 1);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    std::filesystem::resize_file(path, std::uintmax_t(5) << 30);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
}

TEST(SettingsFile, GenerationIsAnotherWhenTheEntriesAre)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file;
    const std::uint64_t none = file.Generation(path);
    WriteFile(path, "[settings]\na=1\n");
    const std::uint64_t one = file.Generation(path);
    EXPECT_NE(one, none);
    WriteFile(path, "; a comment more\n[settings]\na=1\n");
    EXPECT_EQ(file.Generation(path), one);
    WriteFile(path, "[settings]\na=2\n");
    const std::uint64_t two = file.Generation(path);
    EXPECT_NE(two, one);
    std::filesystem::remove(path);
    EXPECT_NE(file.Generation(path), two);
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
