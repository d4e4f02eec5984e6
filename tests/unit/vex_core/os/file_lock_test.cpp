#include "vex_core/os/file_lock.h"

#include "support/child.h"
#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include <fcntl.h>

using Clock = std::chrono::steady_clock;
namespace os = VexCore::os;

namespace {
// A process does not meet its own locks: here the test has one, and a child asks.
class FileLock : public testing::Test
{
protected:
    os::Descriptor Open() const { return os::Descriptor(os::Open(m_path.c_str(), O_RDWR | O_CREAT, 0600)); }

    const ::Test::TempFolder m_folder;
    const std::string m_path = m_folder / "x";
};

} // namespace

TEST_F(FileLock, IsHadByOneProcessUntilItClosesTheFile)
{
    os::Descriptor own = Open();
    ASSERT_EQ(os::TryLock(own.Get()), 0);
    const auto ask = [this] {
        return ::Test::RunChild(
            [this] {
                const os::Descriptor other = Open();
                return os::TryLock(other.Get()) == 0 ? 0 : os::LastError();
            },
            true);
    };
    EXPECT_TRUE(ask().Exited(EAGAIN));
    own.Reset();
    EXPECT_TRUE(ask().Exited(0));
}

TEST_F(FileLock, IsWaitedForAsLongAsItIsAskedTo)
{
    const os::Descriptor own = Open();
    ASSERT_EQ(os::TryLock(own.Get()), 0);
    const ::Test::ChildResult result = ::Test::RunChild(
        [this] {
            const os::Descriptor other = Open();
            const Clock::time_point begin = Clock::now();
            if (os::LockFile(other.Get(), 50) || os::LastError() != EAGAIN)
                return 1;
            const auto took = Clock::now() - begin;
            return took >= std::chrono::milliseconds(50) && took < std::chrono::seconds(5) ? 0 : 2;
        },
        true);
    EXPECT_TRUE(result.Exited(0)) << result.status;
    EXPECT_TRUE(os::LockFile(own.Get(), 0)) << "who has it has it again";
}

TEST_F(FileLock, IsNotWaitedForWhereItCannotBeHad)
{
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(os::LockFile(-1, 60000));
    EXPECT_EQ(os::LastError(), EBADF);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
}
