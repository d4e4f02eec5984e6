#include "vex_core/os/process_info.h"

#include "support/child.h"

#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace os = VexCore::os;

namespace {
pid_t ForkIntoAGroupOfItsOwn()
{
    const pid_t child = ::fork();
    ::setpgid(child, child); // on both sides: whoever comes first
    return child;
}

} // namespace

TEST(GroupsOfASession, AreThoseOfItsProcessesThatHaveNotEnded)
{
    constexpr int idIsShort = 77;
    const auto inASession = [] {
        const pid_t session = ::setsid();
        if (session < 10)
            return idIsShort; // as the first of a namespace are: a number of one digit is read well by wrong means too
        ::Test::WaitingChild running(ForkIntoAGroupOfItsOwn);
        const pid_t ended = ForkIntoAGroupOfItsOwn();
        if (ended == 0)
            ::_exit(0);
        siginfo_t end;
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(ended), &end, WEXITED | WNOWAIT), 0);

        os::ProcessInfo info;
        EXPECT_TRUE(os::GetProcessInfo(running.Id(), info));
        EXPECT_EQ(info.group, running.Id());
        EXPECT_EQ(info.session, session);
        EXPECT_EQ(os::GroupsOfOwnSession(), (std::set<pid_t>{session, running.Id()}));

        running.LetGo();
        ::Test::WaitFor(ended);
        return ::testing::Test::HasFailure() ? 1 : 0;
    };
    int code = idIsShort;
    while (code == idIsShort)
        code = ::Test::InChild(inASession);
    EXPECT_EQ(code, 0);
}

TEST(Groups, AreFoundByTheirNames)
{
    const struct group* const own = ::getgrgid(0);
    ASSERT_TRUE(own);
    EXPECT_EQ(os::FindGroup(own->gr_name), gid_t(0));
    EXPECT_FALSE(os::FindGroup("no such group"));
}

TEST(ResidentMemory, GrowsWithWhatIsUsed)
{
    const auto before = os::ResidentBytes();
    ASSERT_TRUE(before);
    constexpr std::size_t added = 64 * 1024 * 1024;
    const std::unique_ptr<char[]> block(new char[added]);
    volatile char* const used = block.get(); // else a compiler may do without a block that nobody reads
    for (std::size_t page = 0; page < added; page += 4096)
        used[page] = 'x';
    EXPECT_GE(*os::ResidentBytes(), *before + added / 2);
    EXPECT_EQ(used[added / 2], 'x');
}
