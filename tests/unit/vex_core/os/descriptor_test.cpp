#include "vex_core/os/descriptor.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string_view>
#include <type_traits>

#include <fcntl.h>

using Test::CallWatch;
using Test::TempFolder;
using namespace std::string_view_literals;
namespace os = VexCore::os;

static_assert(!std::is_copy_constructible_v<os::Descriptor> && !std::is_copy_assignable_v<os::Descriptor>);

namespace {
class Descriptor : public testing::Test
{
protected:
    os::Descriptor New(const char* name = "x") const
    {
        return os::Descriptor(os::Open((m_folder / name).c_str(), O_RDWR | O_CREAT, 0600));
    }
    static bool IsOpen(int number) { return ::fcntl(number, F_GETFD) != -1; }

    TempFolder m_folder;
};

} // namespace

TEST_F(Descriptor, IsClosedWithItsOwner)
{
    int number = -1;
    {
        const os::Descriptor owner = New();
        number = owner.Get();
        EXPECT_TRUE(owner);
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
}

TEST_F(Descriptor, HasOneOwnerAfterAMove)
{
    os::Descriptor first = New();
    const int number = first.Get();
    os::Descriptor second = New();
    const int replaced = second.Get();
    second = std::move(first);
    EXPECT_EQ(second.Get(), number);
    EXPECT_EQ(first.Get(), -1); // NOLINT: what is left is part of the promise
    EXPECT_TRUE(IsOpen(number));
    EXPECT_FALSE(IsOpen(replaced));
    EXPECT_EQ(second.Release(), number);
    EXPECT_TRUE(IsOpen(number));
    os::Close(number);
}

TEST_F(Descriptor, NoneIsGivenBackWithoutACall)
{
    const CallWatch watch([](const os::Call& call) {
        ADD_FAILURE() << call.name;
        return EIO;
    });
    os::Descriptor none(-1);
    EXPECT_FALSE(none);
    EXPECT_TRUE(none.Close());
}

TEST_F(Descriptor, CloseTellsThatTheFileCouldNotBeKept)
{
    os::Descriptor file = New();
    const int number = file.Get();
    const CallWatch full([](const os::Call& call) { return call.name == "close"sv ? ENOSPC : 0; });
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(os::LastError(), ENOSPC);
    EXPECT_FALSE(file);
    EXPECT_FALSE(IsOpen(number));
}

TEST_F(Descriptor, GivingBackKeepsTheLastError)
{
    os::SetLastError(EXDEV);
    os::Close(-1);
    os::Close(1 << 20);
    EXPECT_EQ(os::LastError(), EXDEV);
}

TEST_F(Descriptor, IsNotInherited)
{
    EXPECT_EQ(::fcntl(New().Get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Descriptor, AnotherFileTakesItsNumber)
{
    os::Descriptor place = New("old");
    const int number = place.Get();
    os::Descriptor opened = New("new");
    const int other = opened.Get();
    ASSERT_TRUE(os::ReplaceDescriptor(place, std::move(opened)));
    EXPECT_EQ(place.Get(), number);
    EXPECT_FALSE(IsOpen(other));
    EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
    ASSERT_TRUE(os::WriteAll(number, "text", 4));
    EXPECT_EQ(::Test::ReadFile(m_folder / "new"), "text");
}

TEST_F(Descriptor, IsAsItWasWhenNoOtherFileCanTakeItsNumber)
{
    os::Descriptor place = New();
    const int number = place.Get();
    EXPECT_FALSE(os::ReplaceDescriptor(place, os::Descriptor()));
    EXPECT_EQ(os::LastError(), EBADF);
    EXPECT_EQ(place.Get(), number);
    EXPECT_TRUE(IsOpen(number));
}
