#include "vex_core/os/folders.h"

#include "support/temp_folder.h"
#include "vex_core/os/error.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

using Test::ModeOf;
using Test::TempFolder;
using Test::WriteFile;
namespace os = VexCore::os;

namespace {} // namespace

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
