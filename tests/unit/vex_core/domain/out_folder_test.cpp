#include "vex_core/domain/out_folder.h"

#include "support/call_watch.h"
#include "support/dom_ptr.h"
#include "support/fail_nth.h"
#include "support/other_user.h"
#include "support/temp_folder.h"

#include <filesystem>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using ::Test::ReadFile;
using testing::HasSubstr;
using VexCore::WriteOutFile;

namespace {
class OutFolder : public testing::Test
{
protected:
    void SetUp() override { m_dom->Set("app.path.work", m_folder.Path()); }

    bool Write(const std::string& content, const std::string& name = "a.prom")
    {
        return WriteOutFile(*m_dom, name, content, m_problem);
    }
    static std::string Mode(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        char text[16];
        std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        return text;
    }
    static gid_t Group(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return status.st_gid;
    }
    std::set<std::string> Names() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_out))
            names.insert(entry.path().filename());
        return names;
    }

    const ::Test::TempFolder m_folder;
    const std::string m_out = m_folder / "out";
    const std::string m_file = m_out + "/a.prom";
    const ::Test::DomPtr m_dom = ::Test::NewRoot();
    std::string m_problem;
};

} // namespace

TEST_F(OutFolder, FilesAreReplacedAndReadableByTheFoldersGroup)
{
    EXPECT_TRUE(Write("first"));
    EXPECT_EQ(m_problem, "");
    EXPECT_EQ(ReadFile(m_file), "first");
    EXPECT_TRUE(Write("second"));
    EXPECT_EQ(ReadFile(m_file), "second");
    EXPECT_EQ(Mode(m_out), "0750");
    EXPECT_EQ(Mode(m_file), "0640");
    EXPECT_EQ(Names(), std::set<std::string>{"a.prom"});
}

TEST_F(OutFolder, RightsFollowTheSettingAlsoWhereTheFolderIsThere)
{
    EXPECT_TRUE(Write("x"));
    m_dom->Set("app.out.mode", "0711");
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(Mode(m_out), "0711");
    EXPECT_EQ(Mode(m_file), "0600");
    m_dom->Set("app.out.mode", "0777"); // others could write: the default counts
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(Mode(m_out), "0750");
}

TEST_F(OutFolder, GroupOfTheSettingGetsFolderAndFile)
{
    const struct group* const daemon = ::getgrnam("daemon");
    if (::geteuid() != 0 || !daemon)
        GTEST_SKIP() << "NO SECOND GROUP here";
    const gid_t wanted = daemon->gr_gid;
    m_dom->Set("app.out.group", "daemon");
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(m_problem, "");
    EXPECT_EQ(Group(m_out), wanted);
    EXPECT_EQ(Group(m_file), wanted);
}

TEST_F(OutFolder, GroupThatNobodyKnowsIsToldAndTheFileIsWritten)
{
    m_dom->Set("app.out.group", "no such group");
    EXPECT_TRUE(Write("x"));
    EXPECT_THAT(m_problem, HasSubstr("the group 'no such group' of the setting app.out.group is not known"));
    EXPECT_EQ(ReadFile(m_file), "x");
}

TEST_F(OutFolder, RightsThatCannotBeGivenAreToldAndTheFileIsWritten)
{
    const ::Test::CallWatch watch(
        [](const VexCore::os::Call& call) { return std::string(call.name) == "fchmod" ? EPERM : 0; });
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(m_problem, "'" + m_out + "' cannot have the rights of the settings app.out.mode and app.out.group: "
                             + "Operation not permitted");
    EXPECT_EQ(ReadFile(m_file), "x");
}

TEST_F(OutFolder, LinkOfOursIsFollowedAndTheFolderThereStaysAsItIs)
{
    const std::string elsewhere = m_folder / "elsewhere";
    fs::create_directory(elsewhere);
    fs::permissions(elsewhere, fs::perms::owner_all | fs::perms::others_exec);
    fs::create_directory_symlink("elsewhere", m_out);
    EXPECT_TRUE(Write("x"));
    EXPECT_EQ(ReadFile(elsewhere + "/a.prom"), "x");
    EXPECT_EQ(Mode(elsewhere), "0701");
}

TEST_F(OutFolder, LinkOfAnotherUserIsNotFollowed)
{
    const std::string elsewhere = m_folder / "elsewhere";
    fs::create_directory(elsewhere);
    fs::create_directory_symlink("elsewhere", m_out);
    GIVE_AWAY(m_out);
    EXPECT_FALSE(Write("x"));
    EXPECT_THAT(m_problem, HasSubstr("is not followed, because the link belongs to user 1000"));
    EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST_F(OutFolder, FolderThatOthersWriteIsNotUsed)
{
    fs::create_directory(m_out);
    fs::permissions(m_out, fs::perms::all);
    EXPECT_FALSE(Write("x"));
    EXPECT_THAT(m_problem, HasSubstr("is not used, because others may write it (mode 0777)"));
    EXPECT_TRUE(fs::is_empty(m_out));
}

TEST_F(OutFolder, LinkInTheFilesPlaceIsReplacedAndNotWrittenThrough)
{
    fs::create_directory(m_out);
    const std::string foreign = m_folder / "foreign";
    ::Test::WriteFile(foreign, "theirs");
    fs::create_symlink(foreign, m_file);
    fs::create_symlink(foreign, m_file + ".tmp");
    EXPECT_TRUE(Write("ours"));
    EXPECT_EQ(ReadFile(foreign), "theirs");
    EXPECT_FALSE(fs::is_symlink(m_file));
    EXPECT_EQ(Names(), std::set<std::string>{"a.prom"});
}

TEST_F(OutFolder, FolderInTheFilesPlaceIsAProblemThatNamesIt)
{
    fs::create_directories(m_file);
    EXPECT_FALSE(Write("x"));
    EXPECT_EQ(m_problem, m_file + ": Is a directory");
    EXPECT_EQ(Names(), std::set<std::string>{"a.prom"});
}

TEST_F(OutFolder, NameThatLeadsElsewhereIsRefused)
{
    for (const std::string name : {"", ".", "..", "../a", "a/b", "/a"}) {
        EXPECT_FALSE(Write("x", name)) << name;
        EXPECT_THAT(m_problem, HasSubstr("is no place below a work folder"));
    }
    EXPECT_FALSE(fs::exists(m_out));
}

TEST_F(OutFolder, WithoutAWorkFolderNothingIsWritten)
{
    m_dom->Remove("app.path.work");
    EXPECT_FALSE(Write("x"));
    EXPECT_NE(m_problem, "");
}

TEST_F(OutFolder, FileIsTheOldOneOrTheNewOneWhicheverCallFails)
{
    ASSERT_TRUE(Write("old"));
    bool wasHit = true;
    for (int n = 1; wasHit; ++n) {
        ASSERT_TRUE(Write("old"));
        ::Test::FailNth fault(n, ENOSPC);
        const bool isWritten = Write("new");
        fault.Stop();
        wasHit = fault.WasHit();
        EXPECT_EQ(ReadFile(m_file), isWritten ? "new" : "old") << "call " << n;
        EXPECT_TRUE(isWritten || !m_problem.empty()) << "call " << n;
    }
    EXPECT_EQ(ReadFile(m_file), "new");
    ASSERT_TRUE(Write("last"));
    EXPECT_EQ(Names(), std::set<std::string>{"a.prom"});
}
