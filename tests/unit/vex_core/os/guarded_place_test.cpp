#include "vex_core/os/guarded_place.h"

#include "support/call_watch.h"
#include "support/child.h"
#include "support/other_user.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_lock.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Test::CallWatch;
using Test::ModeOf;
using Test::WriteFile;
using namespace std::string_view_literals;
namespace os = VexCore::os;
namespace fs = std::filesystem;

namespace {
class GuardedPlace : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(m_top + "/a/b");
        WriteFile(m_top + "/a/b/file", "kept");
        for (const char* folder : {"", "/a", "/a/b"})
            ::chmod((m_top + folder).c_str(), 0700);
        ::chmod((m_top + "/a/b/file").c_str(), 0600);
    }

    // What opening the file for writing says: "" when it went well.
    std::string Open(const std::string& below = "a/b/file", int flags = O_RDWR) const
    {
        os::GuardedPlace place(m_top, below);
        return place.OpenFile(flags) ? std::string() : place.Reason();
    }
    std::string NotUsed(const std::string& below, const std::string& why) const
    {
        return "'" + m_top + below + "' is not used, because " + why;
    }

    const std::string m_owner = "it belongs to user 1000: give it to root or to the user of this process, or remove it";
    const ::Test::TempFolder m_folder;
    const std::string m_top = m_folder / "top";
    const ::Test::FileModeMask m_open{0};
};

} // namespace

// --- what is ours

TEST_F(GuardedPlace, OpensAFileAndMakesItForItsOwnerAlone)
{
    os::GuardedPlace place(m_top, "a/b/new");
    EXPECT_FALSE(place.OpenFile(O_RDWR));
    EXPECT_EQ(os::LastError(), ENOENT);
    EXPECT_EQ(place.Breach(), "");
    EXPECT_EQ(place.Reason(), "No such file or directory");
    EXPECT_TRUE(place.OpenFile(O_RDWR | O_CREAT));
    EXPECT_EQ(ModeOf(m_top + "/a/b/new"), mode_t(0600));
    EXPECT_EQ(place.RealPath(), fs::canonical(m_top).string() + "/a/b/new");
    EXPECT_TRUE(os::GuardedPlace(m_top + "/a/b/new").OpenFile(O_RDWR));
}

TEST_F(GuardedPlace, MakesFoldersForTheirOwnerAloneWhereItIsAskedTo)
{
    os::GuardedPlace place(m_top + "/new", "x/y");
    EXPECT_FALSE(place.OpenFolder(false));
    EXPECT_EQ(os::LastError(), ENOENT);
    EXPECT_TRUE(place.OpenFolder(true));
    EXPECT_TRUE(place.OpenFolder(true)) << "there already is fine";
    for (const char* made : {"/new", "/new/x", "/new/x/y"})
        EXPECT_EQ(ModeOf(m_top + made), mode_t(0700)) << made;
    EXPECT_FALSE(os::GuardedPlace(m_top, "a/b/file").OpenFolder(true));
    EXPECT_EQ(os::LastError(), ENOTDIR);
}

TEST_F(GuardedPlace, TopIsReachedAsItIsLaid)
{
    fs::create_directory_symlink("top", m_folder / "link");
    ::lchown((m_folder / "link").c_str(), ::Test::otherUser, ::Test::otherUser);
    os::GuardedPlace place(m_folder / "link/", "a/b/file");
    EXPECT_TRUE(place.OpenFile(O_RDWR)) << place.Reason();
    EXPECT_EQ(place.RealPath(), fs::canonical(m_top).string() + "/a/b/file");
}

TEST_F(GuardedPlace, WhatIsNoRegularFileIsRefusedWithoutHanging)
{
    ASSERT_EQ(::mkfifo((m_top + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Open("fifo"), "Invalid argument");
    EXPECT_EQ(Open("a/b", O_RDONLY), "Invalid argument");
    EXPECT_EQ(Open(""), "Is a directory");
}

TEST_F(GuardedPlace, OurGroupMayWrite)
{
    ::chmod(m_top.c_str(), 0770);
    ::chmod((m_top + "/a/b/file").c_str(), 0660);
    EXPECT_EQ(Open(), "");
}

// --- what is another's

TEST_F(GuardedPlace, WhatAnotherUserOwnsIsNotUsed)
{
    for (const char* part : {"/a/b/file", "/a/b", "/a", ""}) {
        GIVE_AWAY(m_top + part);
        EXPECT_EQ(Open(), NotUsed(part, m_owner));
        EXPECT_EQ(os::LastError(), EPERM);
        ASSERT_EQ(::chown((m_top + part).c_str(), ::geteuid(), ::getegid()), 0);
    }
    GIVE_AWAY(m_top + "/a");
    os::GuardedPlace folder(m_top, "a/new");
    EXPECT_FALSE(folder.OpenFolder(true));
    EXPECT_EQ(folder.Breach(), NotUsed("/a", m_owner));
    EXPECT_FALSE(fs::exists(m_top + "/a/new"));
}

TEST_F(GuardedPlace, WhatOthersMayWriteIsNotUsed)
{
    const auto says = [this](const std::string& below, const std::string& mode) {
        return NotUsed(below, "others may write it (mode " + mode + "): take that right from them with chmod go-w");
    };
    ::chmod((m_top + "/a/b/file").c_str(), 0602);
    EXPECT_EQ(Open(), says("/a/b/file", "0602"));
    ::chmod((m_top + "/a/b/file").c_str(), 0644);
    EXPECT_EQ(Open(), "") << "they may read";
    ::chmod((m_top + "/a/b").c_str(), 01777);
    EXPECT_EQ(Open(), NotUsed("/a/b", "others may write it (mode 1777): use a folder of its own instead"))
        << "they may make a name in it first";
    ::chmod((m_top + "/a/b").c_str(), 0700);
    ::chmod((m_top + "/a").c_str(), 01777);
    EXPECT_EQ(Open(), "") << "they cannot take the name in it away";
    ::chmod((m_top + "/a").c_str(), 0777);
    EXPECT_EQ(Open(), says("/a", "0777"));
    ::chmod((m_top + "/a").c_str(), 0770);
    if (::chown((m_top + "/a").c_str(), static_cast<uid_t>(-1), ::Test::otherUser) != 0)
        GTEST_SKIP() << "NO SECOND GROUP here";
    EXPECT_EQ(Open(), says("/a", "0770"));
}

TEST_F(GuardedPlace, FileWithASecondNameIsNotUsed)
{
    fs::create_hard_link(m_top + "/a/b/file", m_folder / "elsewhere");
    EXPECT_EQ(Open(), NotUsed("/a/b/file", "it has 2 names (hard links): put a copy in its place, or remove it"));
    fs::remove(m_folder / "elsewhere");
    EXPECT_EQ(Open(), "");
}

TEST_F(GuardedPlace, OwnFileIsMendedWhereItIsAskedFor)
{
    const std::string path = m_top + "/a/b/file";
    for (const mode_t mode : {0666, 0664, 0602, 0644}) {
        ::chmod(path.c_str(), mode);
        os::GuardedPlace place(m_top, "a/b/file");
        EXPECT_TRUE(place.OpenAndMendFile(O_RDWR)) << place.Reason();
        EXPECT_EQ(ModeOf(path), mode_t(0600));
    }
    ::chmod(path.c_str(), 0666);
    fs::create_hard_link(path, m_folder / "elsewhere");
    os::GuardedPlace place(m_top, "a/b/file");
    EXPECT_FALSE(place.OpenAndMendFile(O_RDWR)) << "the other name may be somebody's";
    EXPECT_FALSE(place.SettleFile({}));
    EXPECT_EQ(ModeOf(path), mode_t(0666));
    fs::remove(m_folder / "elsewhere");
    GIVE_AWAY(path);
    EXPECT_FALSE(place.OpenAndMendFile(O_RDWR));
    EXPECT_FALSE(place.SettleFile({}));
    EXPECT_EQ(place.Breach(), NotUsed("/a/b/file", m_owner));
    EXPECT_EQ(ModeOf(path), mode_t(0666));
}

// --- links

TEST_F(GuardedPlace, LinksOfOursAreFollowed)
{
    fs::create_directory_symlink("a/./b", m_top + "/relative");
    fs::create_directory_symlink(m_top + "/a", m_top + "/absolute");
    fs::create_symlink("../a/../a/b/file", m_top + "/a/up");
    fs::create_directory_symlink("../top", m_top + "/round");
    for (const char* way : {"relative/file", "absolute/b/file", "absolute/up", "round/relative/file"}) {
        os::GuardedPlace place(m_top, way);
        EXPECT_TRUE(place.OpenFile(O_RDWR)) << way << ": " << place.Reason();
        EXPECT_EQ(place.RealPath(), fs::canonical(m_top).string() + "/a/b/file") << way;
    }
    fs::create_symlink("a/b/new", m_top + "/dangling");
    EXPECT_EQ(Open("dangling", O_RDWR | O_CREAT), "");
    EXPECT_TRUE(fs::exists(m_top + "/a/b/new"));
    fs::create_symlink("loop", m_top + "/loop");
    EXPECT_EQ(Open("loop"), "Too many levels of symbolic links");
}

TEST_F(GuardedPlace, AsManyLinksAreFollowedAsTheSystemFollows)
{
    std::string before = "a/b/file";
    for (int number = 1; number <= 41; ++number) {
        const std::string name = "link" + std::to_string(number);
        fs::create_symlink(before, m_top + '/' + name);
        before = name;
    }
    EXPECT_EQ(Open("link40"), "");
    EXPECT_EQ(Open("link41"), "Too many levels of symbolic links");
}

TEST_F(GuardedPlace, LinksOfAnotherUserAreNotFollowed)
{
    fs::create_symlink("b/file", m_top + "/a/link");
    fs::create_directory_symlink("a", m_top + "/folder");
    fs::create_symlink("a/link", m_top + "/ours");
    const auto says = [this](const std::string& link) {
        return "'" + m_top + link
               + "' is not followed, because the link belongs to user 1000: give it to root or to the user of this "
                 "process, or remove it";
    };
    GIVE_AWAY(m_top + "/a/link");
    EXPECT_EQ(Open("a/link"), says("/a/link"));
    EXPECT_EQ(Open("ours"), says("/a/link")) << "nor where one of ours leads to it";
    GIVE_AWAY(m_top + "/folder");
    EXPECT_EQ(Open("folder/b/file"), says("/folder"));
}

TEST_F(GuardedPlace, NameThatIsExchangedForALinkMeanwhileIsNotFollowed)
{
    fs::create_directories(m_folder / "victim/b");
    WriteFile(m_folder / "victim/b/file", "victim");
    for (const char* name : {"b", "file"}) {
        const std::string path = m_top + (name == "b"sv ? "/a/b" : "/a/b/file");
        bool exchanged = false;
        const CallWatch watch([&](const os::Call& call) {
            if (call.name == "openat"sv && call.path == std::string_view(name)) {
                fs::rename(path, m_folder / "before");
                fs::create_symlink(m_folder / (name == "b"sv ? "victim/b" : "victim/b/file"), path);
                exchanged = true;
            }
            return 0;
        });
        EXPECT_NE(Open(), "");
        EXPECT_TRUE(exchanged);
        fs::remove(path);
        fs::rename(m_folder / "before", path);
    }
}

// --- for an ordinary user

TEST_F(GuardedPlace, WhatRootMadeIsUsedByAnyUser)
{
    fs::create_directory_symlink("a/b", m_top + "/link");
    for (const char* part : {"/a/b", ""}) {
        ::chmod((m_top + part).c_str(), 0770);
        if (::chown((m_top + part).c_str(), 0, ::Test::otherUser) != 0)
            GTEST_SKIP() << "NO SECOND USER here";
    }
    ::chmod((m_top + "/a").c_str(), 0755);
    ::chmod(m_folder.Path().c_str(), 0711);
    const ::Test::ChildResult result = ::Test::RunChild(
        [this] {
            if (::setegid(::Test::otherUser) != 0 || ::seteuid(::Test::otherUser) != 0)
                return 2;
            const std::string said = Open("link/new", O_RDWR | O_CREAT);
            const ssize_t ignored = ::write(2, said.data(), said.size());
            static_cast<void>(ignored);
            return said.empty() ? 0 : 1;
        },
        true);
    EXPECT_TRUE(result.Exited(0)) << result.standardError;
    EXPECT_TRUE(fs::exists(m_top + "/a/b/new"));
}

TEST_F(GuardedPlace, FoldersOnTheWayNeedOnlyBeSearched)
{
    for (const char* part : {"/a/b", "/a/b/file"})
        GIVE_AWAY(m_top + part);
    fs::create_directory_symlink("../a/b", m_top + "/a/link");
    ::chmod((m_top + "/a").c_str(), 0711);
    ::chmod(m_top.c_str(), 0711);
    ::chmod(m_folder.Path().c_str(), 0711);
    const ::Test::ChildResult result = ::Test::RunChild(
        [this] {
            if (::setegid(::Test::otherUser) != 0 || ::seteuid(::Test::otherUser) != 0)
                return 2;
            std::string said = Open() + Open("a/link/new", O_RDWR | O_CREAT);
            os::GuardedPlace place(m_top, "a/b");
            const os::Descriptor folder = place.OpenFolder(false);
            const auto list = [&](const char* name) {
                said += std::string(" ") + name;
                return true;
            };
            if (!folder || os::ListFolder(folder.Get(), list) != 0)
                said += place.Reason();
            os::GuardedPlace onlySearched(m_top, "a");
            if (onlySearched.OpenFolder(false) || os::LastError() != EACCES)
                said += " a folder that cannot be read is none to work in";
            const ssize_t ignored = ::write(2, said.data(), said.size());
            static_cast<void>(ignored);
            return said == " file new" || said == " new file" ? 0 : 1;
        },
        true);
    EXPECT_TRUE(result.Exited(0)) << result.standardError;
}

// --- files that somebody else opens

TEST_F(GuardedPlace, FileForALibraryIsMadeAndItsCompanionsAreForTheOwnerAlone)
{
    os::GuardedPlace place(m_top, "a/b/x.db");
    ASSERT_TRUE(place.SettleFile({"-journal"})) << place.Reason();
    EXPECT_EQ(ModeOf(m_top + "/a/b/x.db"), mode_t(0600));
    EXPECT_FALSE(fs::exists(m_top + "/a/b/x.db-journal"));
    WriteFile(m_top + "/a/b/x.db-journal", "");
    WriteFile(m_top + "/a/b/x.db-other", "");
    for (const char* name : {"x.db", "x.db-journal", "x.db-other"})
        ::chmod((m_top + "/a/b/" + name).c_str(), 0666);
    ASSERT_TRUE(place.SettleFile({"-journal"})) << place.Reason();
    EXPECT_EQ(ModeOf(m_top + "/a/b/x.db"), mode_t(0600));
    EXPECT_EQ(ModeOf(m_top + "/a/b/x.db-journal"), mode_t(0600));
    EXPECT_EQ(ModeOf(m_top + "/a/b/x.db-other"), mode_t(0666));
    fs::create_hard_link(m_top + "/a/b/x.db-journal", m_top + "/second");
    EXPECT_FALSE(place.SettleFile({"-journal"}));
    EXPECT_EQ(place.Breach(),
              NotUsed("/a/b/x.db-journal", "it has 2 names (hard links): put a copy in its place, or remove it"));
}

TEST_F(GuardedPlace, CompanionThatIsNoRegularFileIsNotUsed)
{
    const std::string path = m_top + "/a/b/x.db-wal";
    os::GuardedPlace place(m_top, "a/b/x.db");
    WriteFile(m_top + "/victim", "kept");
    ::chmod((m_top + "/victim").c_str(), 0644);
    fs::create_symlink(m_top + "/victim", path);
    for (const bool isLink : {true, false}) {
        if (!isLink)
            fs::create_directory(path);
        EXPECT_FALSE(place.SettleFile({"-journal", "-wal"}));
        EXPECT_EQ(place.Breach(), NotUsed("/a/b/x.db-wal", "it is no regular file: remove it"));
        fs::remove(path);
    }
    EXPECT_EQ(ModeOf(m_top + "/victim"), mode_t(0644));
    EXPECT_TRUE(place.SettleFile({"-journal", "-wal"}));
}

TEST_F(GuardedPlace, LocksOnAFileForALibraryAreKept)
{
    const os::Descriptor file(os::Open((m_top + "/a/b/file").c_str(), O_RDWR));
    ASSERT_EQ(os::TryLock(file.Get()), 0);
    ::chmod((m_top + "/a/b/file").c_str(), 0644);
    os::GuardedPlace place(m_top, "a/b/file");
    {
        const CallWatch notSupported([](const os::Call& call) { return call.name == "fchmodat"sv ? EOPNOTSUPP : 0; });
        ASSERT_TRUE(place.SettleFile({}));
    }
    ASSERT_TRUE(place.SettleFile({}));
    EXPECT_EQ(ModeOf(m_top + "/a/b/file"), mode_t(0600));
    const ::Test::ChildResult result = ::Test::RunChild(
        [this] {
            const os::Descriptor other(os::Open((m_top + "/a/b/file").c_str(), O_RDWR));
            return os::TryLock(other.Get()) == 0 ? 1 : 0;
        },
        true);
    EXPECT_TRUE(result.Exited(0));
}
