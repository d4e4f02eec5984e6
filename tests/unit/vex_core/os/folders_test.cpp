#include "vex_core/os/folders.h"

#include "support/temp_folder.h"
#include "vex_core/os/error.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

using Test::TempFolder;
using Test::WriteFile;
namespace os = VexCore::os;

namespace {
mode_t ModeOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

} // namespace

TEST(MakePrivateFolders, MakesWhatIsMissing)
{
    const TempFolder folder;
    EXPECT_TRUE(os::MakePrivateFolders(folder / "a/b/c"));
    EXPECT_EQ(ModeOf(folder / "a"), mode_t(0700));
    EXPECT_EQ(ModeOf(folder / "a/b/c"), mode_t(0700));
    EXPECT_TRUE(os::MakePrivateFolders(folder / "a/b/c"));
}

TEST(MakePrivateFolders, FileInTheWayIsAFailure)
{
    const TempFolder folder;
    WriteFile(folder / "file", "x");
    EXPECT_FALSE(os::MakePrivateFolders(folder / "file"));
    EXPECT_EQ(os::LastError(), ENOTDIR);
    EXPECT_FALSE(os::MakePrivateFolders(folder / "file/x"));
    EXPECT_FALSE(os::MakePrivateFolders(""));
}
