#include "vex/core/files.h"

#include "support/call_watch.h"
#include "support/log_catcher.h"
#include "support/temp_folder.h"
#include "vex_core/os/call_observer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/string.h>

using Test::LogCatcher;
using Test::ModeOf;
using Test::TempFolder;
using Test::WriteFile;
using VexCore::MayBelieveFile;
using VexCore::SecureFileOrDirectory;

namespace {
bool Secure(const std::string& path, bool recurse)
{
    return SecureFileOrDirectory(wxString::FromUTF8(path.c_str()), recurse);
}

void MakeFile(const std::string& path, mode_t mode)
{
    WriteFile(path, "x");
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

void MakeFolder(const std::string& path, mode_t mode)
{
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

int FailChmod(const VexCore::os::Call& call)
{
    return std::strcmp(call.name, "fchmodat") == 0 && call.path && std::strstr(call.path, "bad") ? EPERM : 0;
}

} // namespace

TEST(SecuredFile, FileKeepsTheOwnersRightsAlone)
{
    const TempFolder folder;
    MakeFile(folder / "x", 0777);
    EXPECT_TRUE(Secure(folder / "x", false));
    EXPECT_EQ(ModeOf(folder / "x"), mode_t(0600));
    MakeFile(folder / "y", 0);
    EXPECT_TRUE(Secure(folder / "y", true));
    EXPECT_EQ(ModeOf(folder / "y"), mode_t(0600));
}

TEST(SecuredFile, FolderAloneWithoutRecursion)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFile(folder / "d/x", 0644);
    EXPECT_TRUE(Secure(folder / "d", false));
    EXPECT_EQ(ModeOf(folder / "d"), mode_t(0700));
    EXPECT_EQ(ModeOf(folder / "d/x"), mode_t(0644));
}

TEST(SecuredFile, FolderThatCannotBeEnteredIsOpenedToItsOwner)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0600);
    EXPECT_TRUE(Secure(folder / "d/", false)) << "a slash at the end does not count";
    EXPECT_EQ(ModeOf(folder / "d"), mode_t(0700));
}

TEST(SecuredFile, RecursionReachesEverythingBelow)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFolder(folder / "d/e", 0777);
    MakeFile(folder / "d/e/x", 0666);
    MakeFile(folder / "d/.hidden", 04755);
    ASSERT_EQ(::mkfifo((folder / "d/fifo").c_str(), 0666), 0);
    EXPECT_TRUE(Secure(folder / "d", true));
    EXPECT_EQ(ModeOf(folder / "d/e"), mode_t(0700));
    for (const char* file : {"d/e/x", "d/.hidden", "d/fifo"})
        EXPECT_EQ(ModeOf(folder / file), mode_t(0600)) << file;
}

TEST(SecuredFile, SymbolicLinkIsRefusedAndItsTargetLeftAlone)
{
    const TempFolder folder;
    MakeFolder(folder / "target", 0755);
    MakeFile(folder / "target/x", 0644);
    ASSERT_EQ(::symlink("target", (folder / "link").c_str()), 0);
    const LogCatcher log;
    EXPECT_FALSE(Secure(folder / "link", true));
    EXPECT_FALSE(Secure(folder / "link/", true));
    EXPECT_EQ(ModeOf(folder / "target"), mode_t(0755));
    EXPECT_EQ(ModeOf(folder / "target/x"), mode_t(0644));
    ASSERT_EQ(log.Lines().size(), 2u);
    EXPECT_EQ(log.Lines()[0].text, "Can't restrict the access rights of " + (folder / "link")
                                       + " (error 40: Too many levels of symbolic links)");
}

TEST(SecuredFile, LinkBelowIsRefusedAndTheRestSecured)
{
    const TempFolder folder;
    MakeFile(folder / "outside", 0644);
    MakeFolder(folder / "d", 0755);
    ASSERT_EQ(::symlink("../outside", (folder / "d/link").c_str()), 0);
    ASSERT_EQ(::symlink("..", (folder / "d/up").c_str()), 0);
    MakeFile(folder / "d/a", 0644);
    MakeFile(folder / "d/z", 0644);
    const LogCatcher log;
    EXPECT_FALSE(Secure(folder / "d", true));
    EXPECT_EQ(ModeOf(folder / "outside"), mode_t(0644));
    EXPECT_EQ(ModeOf(folder / "d/a"), mode_t(0600));
    EXPECT_EQ(ModeOf(folder / "d/z"), mode_t(0600));
    EXPECT_EQ(log.Lines().size(), 1u) << "one line, though there are two links";
}

TEST(SecuredFile, FailureIsOneLineThatNamesTheFile)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFile(folder / "d/bad", 0644);
    MakeFile(folder / "d/good", 0644);
    const LogCatcher log;
    {
        const ::Test::CallWatch observed(FailChmod);
        EXPECT_FALSE(Secure(folder / "d", true));
    }
    EXPECT_EQ(ModeOf(folder / "d/good"), mode_t(0600));
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].text,
              "Can't restrict the access rights of " + (folder / "d/bad") + " (error 1: Operation not permitted)");
    EXPECT_FALSE(Secure(folder / "missing", false));
    EXPECT_FALSE(Secure("", false));
    EXPECT_EQ(log.Lines().size(), 3u);
}

TEST(SecuredFile, EndlessDepthEndsWithAFailure)
{
    const TempFolder folder;
    std::string path = folder / "d";
    for (int i = 0; i < 128; ++i) {
        MakeFolder(path, 0755);
        path += "/d";
    }
    const LogCatcher log;
    EXPECT_TRUE(Secure(folder / "d", true));
    EXPECT_EQ(log.Text(), "");
    MakeFolder(path, 0755);
    EXPECT_FALSE(Secure(folder / "d", true));
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].text, "Can't restrict the access rights of " + path + " (error 36: File name too long)");
}

// --- files to believe

TEST(MayBelieveFile, OurFileAndAMissingOneAndOneBehindALinkOfOurs)
{
    const TempFolder folder;
    const ::Test::LogCatcher log;
    EXPECT_TRUE(MayBelieveFile(wxString::FromUTF8(folder / "missing/x.ini")));
    EXPECT_TRUE(MayBelieveFile(wxString::FromUTF8(folder / "x.ini")));
    WriteFile(folder / "x.ini", "");
    EXPECT_TRUE(MayBelieveFile(wxString::FromUTF8(folder / "x.ini")));
    std::filesystem::create_symlink("x.ini", folder / "link.ini");
    EXPECT_TRUE(MayBelieveFile(wxString::FromUTF8(folder / "link.ini")));
    EXPECT_EQ(log.Text(), "");
}

TEST(MayBelieveFile, NotOneThatOthersMayWriteWhichIsOneWarning)
{
    const TempFolder folder;
    const ::Test::LogCatcher log;
    WriteFile(folder / "x.ini", "");
    ASSERT_EQ(::chmod((folder / "x.ini").c_str(), 0646), 0);
    for (int look = 0; look < 2; ++look)
        EXPECT_FALSE(MayBelieveFile(wxString::FromUTF8(folder / "x.ini")));
    ASSERT_EQ(log.Text(),
              "'"
                  + folder
                        / "x.ini' is not used, because others may write it (mode 0646): take that right from them "
                          "with chmod go-w\n");
    EXPECT_EQ(log.Lines()[0].level, wxLogLevel(wxLOG_Warning));
}
