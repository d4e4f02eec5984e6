#include "vex/apps/vexctl/installed_packages.h"

#include "support/our_version.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

using namespace Vexctl;
using ::Test::Ours;
using ::Test::WriteFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using FileState = InstalledFile::State;
using PackageState = InstalledPackage::State;

namespace {
using Files = std::vector<std::pair<std::string, std::string>>;

class InstalledPackages : public ::testing::Test
{
protected:
    // As the launcher does: the files are written, then the package is renamed.
    void Install(const std::string& name, const Files& files)
    {
        ::Test::ZipBuilder builder;
        for (const auto& [file, content] : files) {
            builder.Add(file, content);
            Put(file, content);
        }
        WriteFile(m_folder / "new", builder.Build());
        std::filesystem::rename(m_folder / "new", m_folder / (Ours(name) + ".vxp.done"));
    }
    void Put(const std::string& file, const std::string& content)
    {
        std::filesystem::create_directories(std::filesystem::path(m_folder / file).parent_path());
        WriteFile(m_folder / file, content);
    }
    PackagesBeside Find() { return FindPackages({"vx_agent", m_folder.Path(), m_folder.Path()}, "ext"); }
    PackageState StateOf(std::size_t index) { return Find().installed.at(index).state; }
    FileState FileStateOf(std::size_t package, std::size_t file)
    {
        return Find().installed.at(package).files.at(file).state;
    }

    const ::Test::TempFolder m_folder;
};

} // namespace

TEST_F(InstalledPackages, WhereNothingIsNothingIsFound)
{
    const PackagesBeside found = Find();
    EXPECT_THAT(found.installed, IsEmpty());
    EXPECT_THAT(found.waiting, IsEmpty());
    EXPECT_THAT(found.extensions, IsEmpty());
    EXPECT_THAT(found.problems, IsEmpty());
}

TEST_F(InstalledPackages, FilesThatWereChangedOrAreGoneAreSeen)
{
    Install("Agent-F-L-{version}-1.x", {{"f/a.lua", "a"}, {"f/b.lua", "b"}, {"f/c.lua", "c"}});
    EXPECT_EQ(StateOf(0), PackageState::Installed);
    Put("f/b.lua", "B"); // of the same length
    EXPECT_EQ(StateOf(0), PackageState::Changed);
    EXPECT_EQ(FileStateOf(0, 0), FileState::AsPacked);
    EXPECT_EQ(FileStateOf(0, 1), FileState::Changed);
    std::filesystem::remove(m_folder / "f/c.lua");
    EXPECT_EQ(FileStateOf(0, 2), FileState::Missing);
    std::filesystem::remove(m_folder / "f/a.lua");
    std::filesystem::create_symlink("b.lua", m_folder / "f/a.lua");
    EXPECT_EQ(FileStateOf(0, 0), FileState::Changed);
    std::filesystem::remove_all(m_folder / "f");
    EXPECT_EQ(StateOf(0), PackageState::Removed);
    Put("f", "no folder any more");
    EXPECT_EQ(StateOf(0), PackageState::Removed);
}

TEST_F(InstalledPackages, ALaterVersionReplacesAnEarlierOneInTheOrderOfTheirNumbers)
{
    Install("Agent-F-L-{version}-999.x", {{"f/a.lua", "old"}, {"f/same.lua", "s"}});
    Install("Agent-F-L-{version}-4015.x", {{"f/a.lua", "new"}, {"f/same.lua", "s"}});
    const PackagesBeside found = Find();
    ASSERT_EQ(found.installed.size(), 2u);
    EXPECT_EQ(found.installed[0].name.build, "999");
    EXPECT_EQ(found.installed[0].state, PackageState::Replaced);
    EXPECT_EQ(found.installed[0].files[0].by, Ours("Agent-F-L-{version}-4015.x.vxp.done"));
    EXPECT_EQ(found.installed[1].state, PackageState::Installed);
    // What is as none of them has it is the later one's.
    Put("f/a.lua", "mine");
    EXPECT_EQ(StateOf(0), PackageState::Replaced);
    EXPECT_EQ(StateOf(1), PackageState::Changed);
    // Back to the first one: that came later then, by more than a tick of the file system's clock.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Install("Agent-F-L-{version}-999.x", {{"f/a.lua", "old"}, {"f/same.lua", "s"}});
    EXPECT_EQ(StateOf(0), PackageState::Installed);
    EXPECT_EQ(StateOf(1), PackageState::Replaced);
    Put("f/a.lua", "mine");
    EXPECT_EQ(StateOf(0), PackageState::Changed);
    EXPECT_EQ(StateOf(1), PackageState::Replaced);
}

TEST_F(InstalledPackages, APackageThatIsNoneIsDamaged)
{
    WriteFile(m_folder / "F.vxp.done", "nonsense");
    const PackagesBeside found = Find();
    ASSERT_EQ(found.installed.size(), 1u);
    EXPECT_EQ(found.installed[0].state, PackageState::Damaged);
    EXPECT_THAT(found.problems, ElementsAre(HasSubstr("F.vxp.done: ")));
}

TEST_F(InstalledPackages, WhatWaitsIsJudged)
{
    ::Test::ZipBuilder builder;
    builder.Add("f/a.lua", "a");
    WriteFile(m_folder / Ours("Agent-F-L-{version}-1.x.vxp"), builder.Build());
    WriteFile(m_folder / "Agent-G.vxu", "nonsense");
    WriteFile(m_folder / ".hidden.vxp", builder.Build());
    std::filesystem::create_directory(m_folder / "folder.vxp");
    const PackagesBeside found = Find();
    ASSERT_EQ(found.waiting.size(), 2u);
    EXPECT_TRUE(found.waiting[0].Accepted());
    EXPECT_FALSE(found.waiting[1].Accepted());
}

TEST_F(InstalledPackages, AnExtensionTellsItsPackageAndItsVersion)
{
    ::Test::ZipBuilder modules;
    modules.Add("net/plugin.lua", "return {}");
    const std::string version = Ours("version: {version}-12\n");
    Install("Agent-Net-L-{version}-1.x", {{"ext/net.vxe", modules.Build()}, {"ext/net.vxe.version", version}});
    Put("ext/own.vxe", modules.Build());
    const PackagesBeside found = Find();
    ASSERT_EQ(found.extensions.size(), 2u);
    EXPECT_TRUE(found.extensions[0].verdict.Accepted());
    EXPECT_EQ(found.extensions[0].version, Ours("{version}-12"));
    EXPECT_EQ(found.extensions[0].package, Ours("Agent-Net-L-{version}-1.x.vxp.done"));
    EXPECT_THAT(found.extensions[1].verdict.reasons, ElementsAre(HasSubstr("does not have a corresponding")));
    EXPECT_EQ(found.extensions[1].package, "");
}
