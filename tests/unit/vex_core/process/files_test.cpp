#include "vex/core/files.h"

#include "support/temp_folder.h"
#include "vex_core/os/folder_calls.h"
#include "vex_core/process/files_p.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/string.h>

using Test::TempFolder;
using Test::WriteFile;
using VexCore::SecureFileOrDirectory;

namespace {
/// Keeps what is logged while it lives.
class LogCatcher : public wxLog
{
public:
    LogCatcher() : m_before(wxLog::SetActiveTarget(this)) {}
    ~LogCatcher() override { wxLog::SetActiveTarget(m_before); }
    const std::vector<std::string>& Lines() const { return m_lines; }

protected:
    void DoLogRecord(wxLogLevel, const wxString& message, const wxLogRecordInfo&) override
    {
        m_lines.emplace_back(message.utf8_str());
    }

private:
    wxLog* m_before;
    std::vector<std::string> m_lines;
};

mode_t ModeOf(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : mode_t(-1);
}

bool Secure(const std::string& path, bool recurse)
{
    return SecureFileOrDirectory(wxString::FromUTF8(path.c_str()), recurse);
}

void MakeFile(const std::string& path, mode_t mode)
{
    WriteFile(path, "x");
    ASSERT_EQ(0, ::chmod(path.c_str(), mode));
}

void MakeFolder(const std::string& path, mode_t mode)
{
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    ASSERT_EQ(0, ::chmod(path.c_str(), mode));
}

int FailChmod(const VexCore::os::Call& call)
{
    return std::strcmp(call.name, "fchmodat") == 0 && call.path && std::strstr(call.path, "bad") ? EPERM : 0;
}

} // namespace

TEST(SecureFile, FileKeepsTheOwnersRightsAlone)
{
    const TempFolder folder;
    MakeFile(folder / "x", 0777);
    EXPECT_TRUE(Secure(folder / "x", false));
    EXPECT_EQ(mode_t(0600), ModeOf(folder / "x"));
    MakeFile(folder / "y", 0);
    EXPECT_TRUE(Secure(folder / "y", true));
    EXPECT_EQ(mode_t(0600), ModeOf(folder / "y"));
}

TEST(SecureFile, FolderAloneWithoutRecursion)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFile(folder / "d/x", 0644);
    EXPECT_TRUE(Secure(folder / "d", false));
    EXPECT_EQ(mode_t(0700), ModeOf(folder / "d"));
    EXPECT_EQ(mode_t(0644), ModeOf(folder / "d/x"));
}

TEST(SecureFile, FolderThatCannotBeEnteredIsOpenedToItsOwner)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0600);
    EXPECT_TRUE(Secure(folder / "d/", false)) << "a slash at the end does not count";
    EXPECT_EQ(mode_t(0700), ModeOf(folder / "d"));
}

TEST(SecureFile, RecursionReachesEverythingBelow)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFolder(folder / "d/e", 0777);
    MakeFile(folder / "d/e/x", 0666);
    MakeFile(folder / "d/.hidden", 04755);
    ASSERT_EQ(0, ::mkfifo((folder / "d/fifo").c_str(), 0666));
    EXPECT_TRUE(Secure(folder / "d", true));
    EXPECT_EQ(mode_t(0700), ModeOf(folder / "d/e"));
    for (const char* file : {"d/e/x", "d/.hidden", "d/fifo"})
        EXPECT_EQ(mode_t(0600), ModeOf(folder / file)) << file;
}

TEST(SecureFile, SymbolicLinkIsRefusedAndItsTargetLeftAlone)
{
    const TempFolder folder;
    MakeFolder(folder / "target", 0755);
    MakeFile(folder / "target/x", 0644);
    ASSERT_EQ(0, ::symlink("target", (folder / "link").c_str()));
    const LogCatcher log;
    EXPECT_FALSE(Secure(folder / "link", true));
    EXPECT_FALSE(Secure(folder / "link/", true));
    EXPECT_EQ(mode_t(0755), ModeOf(folder / "target"));
    EXPECT_EQ(mode_t(0644), ModeOf(folder / "target/x"));
    ASSERT_EQ(2u, log.Lines().size());
    EXPECT_EQ("Can't restrict the access rights of " + (folder / "link")
                  + " (error 40: Too many levels of symbolic links)",
              log.Lines()[0]);
}

TEST(SecureFile, LinkBelowIsRefusedAndTheRestSecured)
{
    const TempFolder folder;
    MakeFile(folder / "outside", 0644);
    MakeFolder(folder / "d", 0755);
    ASSERT_EQ(0, ::symlink("../outside", (folder / "d/link").c_str()));
    ASSERT_EQ(0, ::symlink("..", (folder / "d/up").c_str()));
    MakeFile(folder / "d/a", 0644);
    MakeFile(folder / "d/z", 0644);
    const LogCatcher log;
    EXPECT_FALSE(Secure(folder / "d", true));
    EXPECT_EQ(mode_t(0644), ModeOf(folder / "outside"));
    EXPECT_EQ(mode_t(0600), ModeOf(folder / "d/a"));
    EXPECT_EQ(mode_t(0600), ModeOf(folder / "d/z"));
    EXPECT_EQ(1u, log.Lines().size()) << "one line, though there are two links";
}

TEST(SecureFile, FailureIsOneLineThatNamesTheFile)
{
    const TempFolder folder;
    MakeFolder(folder / "d", 0755);
    MakeFile(folder / "d/bad", 0644);
    MakeFile(folder / "d/good", 0644);
    const LogCatcher log;
    VexCore::os::SetCallObserver(FailChmod);
    EXPECT_FALSE(Secure(folder / "d", true));
    VexCore::os::SetCallObserver(nullptr);
    EXPECT_EQ(mode_t(0600), ModeOf(folder / "d/good"));
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_EQ("Can't restrict the access rights of " + (folder / "d/bad") + " (error 1: Operation not permitted)",
              log.Lines()[0]);
    EXPECT_FALSE(Secure(folder / "missing", false));
    EXPECT_FALSE(Secure("", false));
    EXPECT_EQ(3u, log.Lines().size());
}

TEST(SecureFile, EndlessDepthEndsWithAFailure)
{
    const TempFolder folder;
    std::string path = folder / "d";
    for (int i = 0; i < 200; ++i) {
        MakeFolder(path, 0755);
        path += "/d";
    }
    const LogCatcher log;
    EXPECT_FALSE(Secure(folder / "d", true));
    EXPECT_EQ(1u, log.Lines().size());
}

TEST(MakePrivateFolders, MakesWhatIsMissing)
{
    const TempFolder folder;
    EXPECT_TRUE(VexCore::MakePrivateFolders(folder / "a/b/c"));
    EXPECT_EQ(mode_t(0700), ModeOf(folder / "a"));
    EXPECT_EQ(mode_t(0700), ModeOf(folder / "a/b/c"));
    EXPECT_TRUE(VexCore::MakePrivateFolders(folder / "a/b/c"));
}

TEST(MakePrivateFolders, FileInTheWayIsAFailure)
{
    const TempFolder folder;
    WriteFile(folder / "file", "x");
    EXPECT_FALSE(VexCore::MakePrivateFolders(folder / "file"));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_FALSE(VexCore::MakePrivateFolders(folder / "file/x"));
    EXPECT_FALSE(VexCore::MakePrivateFolders(""));
}
