#include "vex_core/domain/settings_file.h"

#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex_core/os/call_observer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

using Test::TempFolder;
using Test::WriteFile;
using VexCore::SettingsFile;

namespace {
std::string FindIn(SettingsFile& file, const std::string& path, const char* name)
{
    file.Look(path);
    const auto found = file.Contents().settings.find(std::string_view(name));
    return found == file.Contents().settings.end() ? "none" : found->second;
}

SettingsFile OfWorkFolder()
{
    return SettingsFile(SettingsFile::Place::WorkFolder);
}

SettingsFile OfSystem()
{
    return SettingsFile(SettingsFile::Place::System);
}

void MakeOld(const std::string& path, int seconds)
{
    const std::time_t time = std::time(nullptr) - seconds;
    const struct utimbuf times = {time, time};
    ASSERT_EQ(::utime(path.c_str(), &times), 0);
}

} // namespace

TEST(SettingsFile, ThatOthersMayWriteIsNotBelievedInTheWorkFolder)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    WriteFile(path, "[settings]\na=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    EXPECT_FALSE(file.IsRead());
    EXPECT_EQ(
        file.Refused(),
        "'" + path
            + "' is not used, because others may write it (mode 0666): take that right from them with chmod go-w");
    EXPECT_EQ(FindIn(ofSystem, path, "a"), "1");
    EXPECT_EQ(ofSystem.Refused(), "");
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    EXPECT_EQ(file.Refused(), "");
}

TEST(SettingsFile, ThatIsNotThereHasNoFaultWhereverItWouldLie)
{
    const TempFolder folder;
    ASSERT_EQ(::chmod(folder.Path().c_str(), 0777), 0);
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    for (SettingsFile* each : {&file, &ofSystem}) {
        EXPECT_FALSE(each->Look(folder / "x.ini"));
        EXPECT_FALSE(each->IsRead());
        EXPECT_EQ(each->Refused(), "");
    }
}

namespace {
std::vector<std::string> g_readingCalls;

int NoteCall(const VexCore::os::Call& call)
{
    g_readingCalls.emplace_back(call.name);
    return 0;
}

int RefuseOpening(const VexCore::os::Call& call)
{
    return std::string_view(call.name).substr(0, 4) == "open" ? EACCES : 0;
}

std::vector<std::string> CallsOfALook(SettingsFile& file, const std::string& path)
{
    g_readingCalls.clear();
    const auto before = VexCore::os::SetCallObserver(NoteCall);
    file.Look(path);
    VexCore::os::SetCallObserver(before);
    return g_readingCalls;
}

} // namespace

TEST(SettingsFile, OneOfTheSystemsCostsOneCallWhileItIsMissingOrStaysAsItIs)
{
    const TempFolder folder;
    const std::string path = folder / "x.conf";
    SettingsFile file = OfSystem();
    EXPECT_EQ(CallsOfALook(file, path).size(), 1U);
    WriteFile(path, "[settings]\na=1\n");
    MakeOld(path, 100);
    EXPECT_GT(CallsOfALook(file, path).size(), 1U);
    EXPECT_EQ(CallsOfALook(file, path).size(), 1U);
    EXPECT_EQ(FindIn(file, path, "a"), "1");
}

TEST(SettingsFile, ThatCannotBeReadSaysSo)
{
    const TempFolder folder;
    const std::string path = folder / "x.conf";
    WriteFile(path, "[settings]\na=1\n");
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    const auto before = VexCore::os::SetCallObserver(RefuseOpening);
    ofSystem.Look(path);
    VexCore::os::SetCallObserver(before);
    EXPECT_EQ(ofSystem.Refused(), "'" + path
                                      + "' cannot be read (Permission denied), so nothing in it counts: let the "
                                        "agent's user read it, or take it away");
    EXPECT_TRUE(ofSystem.Look(path)) << "it can be read now";
    EXPECT_EQ(ofSystem.Refused(), "");
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    for (SettingsFile* each : {&file, &ofSystem}) {
        EXPECT_TRUE(each->Look(path));
        EXPECT_EQ(each->Refused(), "'" + path + "' is not used, because it is no regular file: take it away");
    }
}

TEST(SettingsFile, IsReadAgainWhenItChanged)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file = OfWorkFolder();
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
    SettingsFile file = OfWorkFolder();
    WriteFile(path, "[settings]\na=1\n");
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    ASSERT_EQ(FindIn(file, path, "a"), "1");
    WriteFile(path, "[settings]\na=2\n");
    const struct timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "2");
}

namespace {
int g_parses = 0;

VexCore::ConfigContents CountedParse(std::string_view bytes)
{
    ++g_parses;
    return VexCore::ParseConfig(bytes);
}

} // namespace

TEST(SettingsFile, IsParsedOnceForEachContentHoweverNewItIs)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    g_parses = 0;
    SettingsFile file(SettingsFile::Place::WorkFolder, CountedParse);
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
    SettingsFile file = OfWorkFolder();
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
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    EXPECT_EQ(FindIn(ofSystem, path, "a"), "1");
    {
        std::fstream inPlace(path, std::ios::in | std::ios::out);
        inPlace << "[settings]\na=2\n";
    }
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
    EXPECT_EQ(FindIn(file, path, "a"), "1") << "all that is looked at is as before";
    EXPECT_EQ(FindIn(ofSystem, path, "a"), "1");
}

TEST(SettingsFile, EachPathIsAFileOfItsOwn)
{
    const TempFolder folder;
    for (const char* name : {"1", "2"}) {
        WriteFile(folder / name, std::string("[settings]\na=") + name);
        MakeOld(folder / name, 100);
    }
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    for (SettingsFile* each : {&file, &ofSystem})
        for (const char* name : {"1", "2", "1"}) {
            EXPECT_EQ(FindIn(*each, folder / name, "a"), name);
            EXPECT_EQ(each->Path(), folder / name);
        }
}

TEST(SettingsFile, WhatIsNoRegularFileHasNoSettingsAndDoesNotHang)
{
    const TempFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    SettingsFile file = OfWorkFolder();
    SettingsFile ofSystem = OfSystem();
    for (SettingsFile* each : {&file, &ofSystem})
        for (const std::string& path : {folder / "fifo", folder.Path(), std::string("/dev/zero"), std::string()})
            EXPECT_EQ(FindIn(*each, path, "a"), "none") << path;
}

TEST(SettingsFile, FileThatTheHostRefusesForItsSizeIsNotReadHereEither)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    const std::string entry = "[settings]\na=1\n;";
    SettingsFile file = OfWorkFolder();
    WriteFile(path, entry + std::string((4 << 20) - entry.size(), 'x'));
    EXPECT_EQ(FindIn(file, path, "a"), "1");
    std::filesystem::resize_file(path, (4 << 20) + 1);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
    std::filesystem::resize_file(path, std::uintmax_t(5) << 30);
    EXPECT_EQ(FindIn(file, path, "a"), "none");
}

TEST(SettingsFile, ALookTellsWhetherAnythingIsAnotherThanBefore)
{
    const TempFolder folder;
    const std::string path = folder / "x.ini";
    SettingsFile file = OfWorkFolder();
    EXPECT_FALSE(file.Look(path));
    WriteFile(path, "");
    EXPECT_TRUE(file.Look(path)) << "it came";
    EXPECT_FALSE(file.Look(path));
    WriteFile(path, "[settings]\na=1\n");
    EXPECT_TRUE(file.Look(path)) << "it changed";
    EXPECT_FALSE(file.Look(path));
    EXPECT_EQ(file.Bytes(), "[settings]\na=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    EXPECT_TRUE(file.Look(path)) << "it is refused";
    EXPECT_EQ(file.Bytes(), "");
    std::filesystem::remove(path);
    EXPECT_TRUE(file.Look(path)) << "it went";
    EXPECT_FALSE(file.Look(path));
}
