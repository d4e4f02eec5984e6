#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/command_line.h"
#include "vex/apps/vexctl/os/processes.h"
#include "vex/apps/vexctl/os/watch.h"

#include "vex/apps/vex/os/agent_locks.h"
#include "vex/core/clock.h"

#include "support/child.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <set>

#include <fcntl.h>
#include <unistd.h>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;
using Woken = os::FolderWatch::Woken;

TEST(Commands, EachHasANameOfItsOwnAndALineOfHelp)
{
    std::set<std::string> names;
    for (const Command& command : Commands()) {
        EXPECT_TRUE(names.insert(command.name).second) << command.name;
        EXPECT_NE(std::string(command.help), "");
        EXPECT_NE(std::string(command.group), "");
    }
}

TEST(AgentState, HasTheNumbersOfAnInitScript)
{
    EXPECT_EQ(LsbStatus(Life::Running), 0);
    EXPECT_EQ(LsbStatus(Life::DeadWithPidFile), 1);
    EXPECT_EQ(LsbStatus(Life::NotRunning), 3);
    EXPECT_EQ(LsbStatus(Life::Unknown), 4);
}

TEST(AgentState, WhereNothingIsNothingRuns)
{
    const TempFolder folder;
    const AgentState state = FindAgentState({"no-agent-of-this-name", folder.Path(), folder.Path()});
    EXPECT_EQ(state.life, Life::NotRunning);
    EXPECT_EQ(state.reason, "there is no /var/run/no-agent-of-this-name.pid");
}

TEST(LockHolders, AreSeenWithoutALock)
{
    const TempFolder folder;
    const std::string path = folder / "a.lock";
    EXPECT_FALSE(os::ReadLockHolders(path));
    EXPECT_FALSE(os::ReadLockHolders(folder.Path()));
    WriteFile(path, "");
    EXPECT_EQ(os::ReadLockHolders(path)->instance, 0);
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = VexOs::workerLockByte;
    lock.l_len = 1;
    ASSERT_EQ(::fcntl(file, F_SETLK, &lock), 0);
    // A process does not see its own locks.
    const ::Test::ChildResult child = ::Test::RunChild(
        [&path] {
            const std::optional<os::LockHolders> holders = os::ReadLockHolders(path);
            return holders && holders->instance == 0 && holders->worker == ::getppid() ? 0 : 1;
        },
        true);
    EXPECT_TRUE(child.Exited(0));
    ::close(file);
}

TEST(Processes, TellWhetherTheyLiveAndWhenTheyBegan)
{
    EXPECT_TRUE(os::IsAlive(::getpid()));
    const auto beganMs = os::ProcessBeganMs(::getpid());
    ASSERT_TRUE(beganMs);
    EXPECT_LE(*beganMs, VexCore::TimeNowMillis() + 20);
    EXPECT_GT(*beganMs, VexCore::TimeNowMillis() - 3'600'000);
    EXPECT_FALSE(os::ProcessBeganMs(0x7ffffff0));
    EXPECT_FALSE(os::IsAlive(0x7ffffff0));
}

TEST(FolderWatch, WakesForAFileThatIsWritten)
{
    const TempFolder folder;
    os::FolderWatch watch(folder.Path());
    EXPECT_EQ(watch.Wait(-1, 0), Woken::TimeOver);
    WriteFile(folder / "a", "x");
    EXPECT_EQ(watch.Wait(-1, 5000), Woken::Changed);
    WriteFile(folder / "a", "longer");
    EXPECT_EQ(watch.Wait(-1, 5000), Woken::Changed);
}

TEST(FolderWatch, WakesForTheEndOfItsReader)
{
    const TempFolder folder;
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    os::FolderWatch watch(folder.Path());
    EXPECT_EQ(watch.Wait(ends[1], 0), Woken::TimeOver);
    ::close(ends[0]);
    EXPECT_EQ(watch.Wait(ends[1], 5000), Woken::ReaderGone);
    ::close(ends[1]);
}

TEST(FolderWatch, LooksByTheClockWhereNobodyTells)
{
    const TempFolder folder;
    os::FolderWatch watch(folder / "none");
    EXPECT_FALSE(watch.IsTold());
    EXPECT_EQ(watch.Wait(-1, 10), Woken::TimeOver);
    EXPECT_EQ(watch.Wait(-1, -1), Woken::Changed); // a second later
}

TEST(Processes, TheirArgumentsAreTold)
{
    const auto arguments = os::TrustedArgumentsOf(::getpid());
    ASSERT_TRUE(arguments);
    std::string expected;
    for (const std::string& argument : *arguments)
        expected += '\0' + argument;
    const std::string line = ::Test::ReadFile("/proc/self/cmdline");
    EXPECT_EQ(line.substr(line.find('\0')), expected + '\0');
    EXPECT_FALSE(os::TrustedArgumentsOf(999999999));
}
