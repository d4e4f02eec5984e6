#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/new_file.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include <sys/stat.h>

using namespace Vexctl;
using ::Test::ReadFile;
using ::Test::TempFolder;
using ::Test::WriteFile;

namespace {
mode_t RightsOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

std::size_t FilesIn(const TempFolder& folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder.Path()), {}));
}

} // namespace

TEST(NewFile, IsForItsOwnerAloneAndReplacesAFile)
{
    const TempFolder folder;
    const std::string path = folder / "a";
    WriteFile(path, "old and longer");
    WriteNewFile(path, "new");
    EXPECT_EQ(ReadFile(path), "new");
    EXPECT_EQ(RightsOf(path), 0600u);
    EXPECT_EQ(FilesIn(folder), 1u);
}

TEST(NewFile, IsForAllWhateverTheUmaskSays)
{
    const TempFolder folder;
    const mode_t before = ::umask(077);
    NewFile file(folder / "a", Readers::All);
    ::umask(before);
    file.Write("bytes");
    file.Close();
    EXPECT_EQ(ReadFile(file.TemporaryPath()), "bytes");
    EXPECT_FALSE(std::filesystem::exists(file.Path()));
    file.Place();
    EXPECT_EQ(ReadFile(folder / "a"), "bytes");
    EXPECT_EQ(RightsOf(folder / "a"), 0644u);
}

TEST(NewFile, ThoseThatGetNoNameAreGone)
{
    const TempFolder folder;
    {
        NewFile closed(folder / "a", Readers::All);
        NewFile written(folder / "b", Readers::OwnerAlone);
        NewFile another(folder / "c", Readers::All);
        closed.Close();
        written.Write("x");
        EXPECT_EQ(FilesIn(folder), 3u);
    }
    EXPECT_EQ(FilesIn(folder), 0u);
}

TEST(NewFile, TakesAwayWhatAKilledProcessLeftADayAgo)
{
    const TempFolder folder;
    const auto yesterday = std::filesystem::file_time_type::clock::now() - std::chrono::hours(25);
    for (const char* const name : {".vexctl-1-2-3", ".vexctl-4-5-6", ".other-1-2-3"}) {
        WriteFile(folder / name, "half");
        std::filesystem::last_write_time(folder / name, yesterday);
    }
    WriteFile(folder / ".vexctl-4-5-6", "being written");
    WriteNewFile(folder / "a", "x");
    EXPECT_FALSE(std::filesystem::exists(folder / ".vexctl-1-2-3"));
    EXPECT_EQ(ReadFile(folder / ".vexctl-4-5-6"), "being written");
    EXPECT_EQ(ReadFile(folder / ".other-1-2-3"), "half");
}

TEST(NewFile, LeavesWhatIsNoFileAlone)
{
    const TempFolder folder;
    std::filesystem::create_symlink("elsewhere", folder / "link");
    std::filesystem::create_directory(folder / "folder");
    EXPECT_THROW(WriteNewFile(folder / "link", "x"), Failure);
    EXPECT_THROW(WriteNewFile(folder / "folder", "x"), Failure);
    EXPECT_THROW(WriteNewFile(folder / "none/a", "x"), Failure);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
    EXPECT_EQ(FilesIn(folder), 2u);
}
