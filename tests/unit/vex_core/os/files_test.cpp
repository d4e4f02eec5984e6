#include "vex_core/os/files.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

using Test::CallWatch;
using Test::TempFolder;
using namespace std::string_view_literals;
namespace os = VexCore::os;

namespace {
class OpenFile : public testing::Test
{
protected:
    bool WriteTen() { return os::WriteAll(m_file.Get(), "0123456789", 10); }
    std::string Content() const { return ::Test::ReadFile(m_path); }
    os::FileIdentity Identity() const
    {
        struct stat status = {};
        EXPECT_EQ(os::FStat(m_file.Get(), status), 0);
        return os::IdentityOf(status);
    }

    TempFolder m_folder;
    const std::string m_path = m_folder / "x";
    os::Descriptor m_file{os::Open(m_path.c_str(), O_RDWR | O_CREAT, 0600)};
};

using WriteAll = OpenFile;
using Reading = OpenFile;
using FileIdentity = OpenFile;

} // namespace

// --- writing everything

TEST_F(WriteAll, GoesOnAfterAShortWrite)
{
    int writes = 0;
    const CallWatch slow([&](const os::Call& call) {
        EXPECT_EQ(call.name, "write"sv);
        ++writes;
        *call.size = std::min<std::size_t>(*call.size, 3);
        return 0;
    });
    EXPECT_TRUE(WriteTen());
    EXPECT_EQ(writes, 4);
    EXPECT_EQ(Content(), "0123456789");
}

TEST_F(WriteAll, GoesOnAfterASignal)
{
    int writes = 0;
    const CallWatch interrupted([&](const os::Call& call) {
        *call.size = std::min<std::size_t>(*call.size, 5);
        return ++writes % 2 == 1 ? EINTR : 0;
    });
    EXPECT_TRUE(WriteTen());
    EXPECT_EQ(writes, 4);
    EXPECT_EQ(Content(), "0123456789");
}

TEST_F(WriteAll, FailsWhenTheDiskIsFullHalfWay)
{
    int writes = 0;
    const CallWatch filling([&](const os::Call& call) {
        *call.size = std::min<std::size_t>(*call.size, 4);
        return ++writes == 2 ? ENOSPC : 0;
    });
    EXPECT_FALSE(WriteTen());
    EXPECT_EQ(os::LastError(), ENOSPC);
    EXPECT_EQ(Content(), "0123");
}

TEST_F(WriteAll, DoesNotTryForEverWhereNothingIsTaken)
{
    const CallWatch taking0([](const os::Call& call) {
        *call.size = 0;
        return 0;
    });
    EXPECT_FALSE(WriteTen());
    EXPECT_EQ(os::LastError(), ENOSPC);
}

TEST_F(WriteAll, OfNothingMakesNoCall)
{
    const CallWatch watch([](const os::Call&) { return EIO; });
    EXPECT_TRUE(os::WriteAll(m_file.Get(), "", 0));
}

TEST_F(WriteAll, BestEffortKeepsTheLastError)
{
    os::SetLastError(EXDEV);
    os::WriteBestEffort(-1, "text", 4);
    EXPECT_EQ(os::LastError(), EXDEV);
    os::WriteBestEffort(m_file.Get(), "text", 4);
    EXPECT_EQ(Content(), "text");
}

// --- reading

TEST_F(Reading, ToTheEndTakesWhateverPiecesCome)
{
    ::Test::WriteFile(m_path, "0123456789");
    const CallWatch slow([](const os::Call& call) {
        *call.size = std::min<std::size_t>(*call.size, 4);
        return 0;
    });
    std::string text = "before ";
    EXPECT_TRUE(os::ReadToEnd(m_file.Get(), text));
    EXPECT_EQ(text, "before 0123456789");
    char place[8] = {};
    EXPECT_EQ(os::PReadFull(m_file.Get(), place, sizeof place, 1), 8);
    EXPECT_EQ(std::string(place, sizeof place), "12345678");
}

TEST_F(Reading, TakesNoMoreThanItHasRoomForHoweverThePiecesCome)
{
    ::Test::WriteFile(m_path, "0123456789");
    bool first = true;
    const CallWatch slow([&first](const os::Call& call) {
        *call.size = first ? 4 : *call.size;
        first = false;
        return 0;
    });
    char place[8] = {};
    EXPECT_EQ(os::PReadFull(m_file.Get(), place, 6, 0), 6);
    EXPECT_EQ(std::string(place, sizeof place), std::string("012345\0\0", 8));
}

TEST_F(Reading, PastTheEndIsAShortCountAndNoFailure)
{
    ::Test::WriteFile(m_path, "0123456789");
    char place[8];
    EXPECT_EQ(os::PReadFull(m_file.Get(), place, sizeof place, 6), 4);
    EXPECT_EQ(os::PReadFull(m_file.Get(), place, sizeof place, 60), 0);
}

TEST_F(Reading, FailureIsTold)
{
    const CallWatch broken([](const os::Call&) { return EIO; });
    std::string text;
    char place[8];
    EXPECT_FALSE(os::ReadToEnd(m_file.Get(), text));
    EXPECT_EQ(os::LastError(), EIO);
    EXPECT_EQ(os::PReadFull(m_file.Get(), place, sizeof place, 0), -1);
}

// --- identity

TEST_F(FileIdentity, IsToldWithoutTheTimesToo)
{
    ASSERT_TRUE(WriteTen());
    const std::string link = m_folder / "link";
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    struct stat status = {};
    ASSERT_EQ(os::StatWithoutTimes(link.c_str(), status), 0);
    EXPECT_TRUE(Identity().IsFileOf(status));
    EXPECT_EQ(status.st_size, 10);
    EXPECT_EQ(os::StatWithoutTimes((m_folder / "none").c_str(), status), -1);
    EXPECT_EQ(os::LastError(), ENOENT);
}

TEST_F(FileIdentity, OfAFileThatIsWrittenToIsTheSameFileWithOtherContent)
{
    const os::FileIdentity before = Identity();
    ASSERT_TRUE(WriteTen());
    const os::FileIdentity after = Identity();
    EXPECT_TRUE(after.IsFileOf(before));
    EXPECT_TRUE(after != before);
    EXPECT_TRUE(after == Identity());
}

TEST_F(FileIdentity, OfTheSameNumberOnAnotherDeviceIsAnotherFile)
{
    const os::FileIdentity here = Identity();
    os::FileIdentity there = here;
    ++there.device;
    EXPECT_FALSE(there.IsFileOf(here));
    EXPECT_FALSE(there == here);
}

TEST_F(FileIdentity, SizeAndTimesTellContentApart)
{
    const os::FileIdentity before = Identity();
    os::FileIdentity longer = before;
    ++longer.size;
    os::FileIdentity later = before;
    ++later.mtimeNs;
    for (const os::FileIdentity& after : {longer, later}) {
        EXPECT_TRUE(after.IsFileOf(before));
        EXPECT_FALSE(after.HasContentOf(before));
        EXPECT_FALSE(after == before);
    }
    os::FileIdentity touched = before;
    ++touched.ctimeNs;
    EXPECT_TRUE(touched.HasContentOf(before));
    EXPECT_FALSE(touched == before);
}

TEST_F(FileIdentity, OfNoneIsNoFiles)
{
    struct stat status = {};
    ASSERT_EQ(os::Stat(m_path.c_str(), status), 0);
    EXPECT_FALSE(os::FileIdentity().IsFileOf(status));
    EXPECT_TRUE(os::IdentityOf(status).IsFileOf(status));
}

// --- the hook

TEST(CallObserver, SeesWhatACallIsAbout)
{
    const TempFolder folder;
    const std::string from = folder / "from";
    const std::string to = folder / "to";
    int seen = 0;
    const CallWatch watch([&](const os::Call& call) {
        ++seen;
        EXPECT_EQ(call.name, "rename"sv);
        EXPECT_EQ(call.descriptor, -1);
        EXPECT_EQ(call.path, from);
        EXPECT_EQ(call.newPath, to);
        return EPERM;
    });
    EXPECT_EQ(os::Rename(from.c_str(), to.c_str()), -1);
    EXPECT_EQ(os::LastError(), EPERM);
    EXPECT_EQ(seen, 1);
}

TEST(CallObserver, MayAnswerInTheSystemsPlace)
{
    const CallWatch watch([](const os::Call& call) {
        call.status->st_size = 42;
        return os::callAnswered;
    });
    struct stat status = {};
    EXPECT_EQ(os::Stat("/absent/file", status), 0);
    EXPECT_EQ(status.st_size, 42);
}
