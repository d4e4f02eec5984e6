#include "vex/apps/vexctl/package_check.h"

#include "support/odd_archives.h"
#include "support/our_version.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Vexctl;
using ::Test::Ours;
using ::Test::TempFolder;
using ::Test::WriteFile;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {
class PackageCheck : public ::testing::Test
{
protected:
    Verdict Check(const std::string& bytes, const std::string& name = Ours("Agent-F-Linux-{version}-1.x.vxp"))
    {
        WriteFile(m_folder / name, bytes);
        return CheckPackage(m_folder / name);
    }

    TempFolder m_folder;
};

} // namespace

TEST_F(PackageCheck, TellsOfAWholePackageWhatItWouldBring)
{
    const Verdict verdict = Check(::Test::PlainPackage().Build());
    EXPECT_TRUE(verdict.Accepted());
    EXPECT_EQ(verdict.files, 3u);
    EXPECT_THAT(verdict.Summary(), HasSubstr(Ours("would be installed: 3 files of plugin F, {version}-1, ")));
}

TEST_F(PackageCheck, EachRuleOfTheReaderIsAReason)
{
    for (const ::Test::BrokenArchive& broken : ::Test::BrokenArchives()) {
        const Verdict verdict = Check(broken.bytes);
        EXPECT_FALSE(verdict.Accepted()) << broken.story;
        EXPECT_THAT(verdict.reasons, Contains(HasSubstr(broken.reason))) << broken.story;
        EXPECT_TRUE(verdict.unread.empty());
    }
    for (const ::Test::ValidArchive& valid : ::Test::ValidArchives())
        EXPECT_THAT(Check(valid.bytes).reasons, IsEmpty()) << valid.story;
}

TEST_F(PackageCheck, DataThatAreDamagedAreAReasonForAllButMarkers)
{
    for (const ::Test::BrokenArchive& broken : ::Test::ArchivesWithBrokenData()) {
        EXPECT_THAT(Check(broken.bytes).reasons, ElementsAre(HasSubstr(broken.reason))) << broken.story;
        EXPECT_THAT(Check(broken.bytes, "a-b.vxu").reasons, IsEmpty()) << broken.story;
    }
}

TEST_F(PackageCheck, TellsEveryEntryThatIsRefused)
{
    ::Test::ZipBuilder builder;
    builder.Add("../a", "x");
    builder.Add("good", "x");
    builder.Add("b\\c", "x");
    builder.Add("link", "x", 8, 0120777);
    EXPECT_THAT(Check(builder.Build()).reasons,
                ElementsAre("entry \"../a\": its name has a component \".\" or \"..\"",
                            "entry \"b\\c\": its name has a backslash",
                            "entry \"link\": it is neither a regular file nor a folder"));
    ::Test::ZipBuilder reserved;
    reserved.Add(".vex-unzip-1", "x");
    reserved.Add("sub/.vex-unzip-1.list", "x");
    EXPECT_THAT(Check(reserved.Build()).reasons,
                ElementsAre("entry \".vex-unzip-1\": its name is kept for temporary files",
                            "entry \"sub/.vex-unzip-1.list\": its name is kept for temporary files"));
}

TEST_F(PackageCheck, AVersionThatIsNotTheAgentsIsRefusedForPackagesAndNotForMarkers)
{
    const std::string bytes = ::Test::PlainPackage().Build();
    EXPECT_THAT(Check(bytes, Ours("Agent-F-Linux-{other}-1.x.vxp")).reasons,
                ElementsAre(Ours("it is for version {other}, and the agent is {version}")));
    EXPECT_TRUE(Check(bytes, Ours("Agent-F-Linux-{other}-1.x.vxu")).Accepted());
    EXPECT_TRUE(Check(bytes, "F.vxp").Accepted());
}

TEST_F(PackageCheck, ANameThatTheLauncherDoesNotLookAtIsAReason)
{
    const std::string bytes = ::Test::PlainPackage().Build();
    for (const char* const name : {"F.zip", ".F.vxp", "F.VXP", "F.vxp.done"})
        EXPECT_THAT(Check(bytes, name).reasons, ElementsAre(HasSubstr("does not look at a file of this name"))) << name;
}

TEST_F(PackageCheck, AnExtensionNeedsItsVersionFile)
{
    const std::string bytes = ::Test::PlainPackage().Build();
    EXPECT_THAT(Check(bytes, "net.vxe").reasons,
                ElementsAre("Extension file '" + (m_folder / "net.vxe")
                            + "' does not have a corresponding '.version' file. It will not be enabled."));
    WriteFile(m_folder / "net.vxe.version", Ours("version: {version}-1\n"));
    EXPECT_TRUE(Check(bytes, "net.vxe").Accepted());
    WriteFile(m_folder / "net.vxe.version", "version: 9.5.0-1\n");
    EXPECT_THAT(Check(bytes, "net.vxe").reasons, ElementsAre(HasSubstr("(9.5.0) doesn't match ours")));
}

TEST_F(PackageCheck, WhatIsNoFileIsRefusedAndWhatIsNotThereIsUnread)
{
    const std::string fifo = m_folder / "F.vxp";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_THAT(CheckPackage(fifo).reasons, ElementsAre("is no regular file"));
    EXPECT_THAT(CheckPackage(m_folder / "none.vxp").unread, "No such file or directory");
    EXPECT_FALSE(CheckPackage(m_folder / "none.vxp").Accepted());
}
