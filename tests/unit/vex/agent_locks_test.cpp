// The locks of supervisor and child between real processes, through the doorway that the supervisor uses. A process
// sees its own locks as free, so who is to find them taken is always another one.

#include "vex/apps/vex/os/process.h"

#include "support/child.h"
#include "support/other_user.h"
#include "support/temp_folder.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using VexOs::LockResult;
using VexOs::System;

using ::Test::InChild;
using ::Test::Pipe;
using ::Test::WaitForCode;
using ::Test::WaitingChild;

namespace {
LockResult Take(const std::string& path)
{
    pid_t holder = 0;
    return System().TakeInstanceLock(path.c_str(), holder);
}

// The same by another process, which ends at once.
LockResult TakeElsewhere(const std::string& path)
{
    return static_cast<LockResult>(InChild([&] {
        VexOs::AgentLocks locks;
        pid_t holder = 0;
        return static_cast<int>(locks.TakeInstance(path.c_str(), holder));
    }));
}

pid_t ForkByTheDoorway()
{
    return System().Fork();
}

pid_t ForkWorker()
{
    return System().ForkWorker();
}

// A lock that is not the doorway's, on bytes of the file.
bool LockBytes(int file, int command, short type, off_t start, off_t length)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return ::fcntl(file, command, &lock) == 0;
}

class AgentLocks : public testing::Test
{
protected:
    ::Test::TempFolder m_folder;
    const std::string m_path = m_folder / "a.pid.lock";
};

} // namespace

// --- the instance lock

TEST_F(AgentLocks, TheInstanceLockIsHadOnceUntilItIsReleased)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  if (TakeElsewhere(m_path) != LockResult::HeldByOther)
                      return 2;
                  System().ReleaseInstanceLock();
                  return TakeElsewhere(m_path) == LockResult::Taken ? 0 : 3;
              }),
              0);
}

TEST_F(AgentLocks, WhoIsRefusedLearnsWhoHasIt)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  const pid_t self = ::getpid();
                  return InChild([&] {
                      VexOs::AgentLocks locks;
                      pid_t holder = 0;
                      locks.TakeInstance(m_path.c_str(), holder);
                      return holder == self ? 0 : 2;
                  });
              }),
              0);
}

TEST_F(AgentLocks, TheInstanceLockSurvivesTheForksOfTheDetachWithoutAGap)
{
    for (int i = 0; i < 20; ++i) {
        const std::string path = m_folder / std::to_string(i);
        Pipe ready;
        Pipe detached;
        Pipe tried;
        const pid_t newcomer = ::fork();
        if (newcomer == 0) {
            detached.CloseEnd(1);
            const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
            ready.Read();
            detached.SetNonBlocking();
            bool got = false;
            while (!got && !detached.Ended())
                got = LockBytes(file, F_SETLK, F_WRLCK, 0, 3);
            ::_exit(got ? 1 : 0);
        }
        const pid_t starter = ::fork();
        if (starter == 0) {
            if (Take(path) != LockResult::Taken)
                ::_exit(1);
            tried.CloseEnd(1);
            ready.Write('r');
            if (System().Fork() > 0 || System().Fork() > 0)
                ::_exit(0);
            detached.CloseEnd(1);
            tried.Read(); // until the newcomer is gone
            ::_exit(0);
        }
        detached.CloseEnd(1);
        tried.CloseEnd(1);
        ASSERT_EQ(WaitForCode(starter), 0);
        ASSERT_EQ(WaitForCode(newcomer), 0) << "somebody else had it in between";
    }
}

TEST_F(AgentLocks, AParentHasNoPartInTheInstanceLockOnceItsChildHasIt)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  WaitingChild heir(ForkByTheDoorway, [&] {
                      System().ReleaseInstanceLock();
                      return TakeElsewhere(m_path) == LockResult::Taken ? 0 : 1;
                  });
                  if (TakeElsewhere(m_path) != LockResult::HeldByOther)
                      return 2;
                  return heir.LetGo() == 0 ? 0 : 3;
              }),
              0);
}

TEST_F(AgentLocks, AChildThatFindsTheInstanceLockWithSomebodyElseEnds)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  System().ReleaseInstanceLock();
                  Pipe ready;
                  WaitingChild other([&] {
                      const pid_t forked = ::fork();
                      if (forked == 0) {
                          const int file = ::open(m_path.c_str(), O_RDWR | O_CLOEXEC);
                          ready.Write(LockBytes(file, F_SETLK, F_WRLCK, 0, 3) ? 'y' : 'n');
                      }
                      return forked;
                  });
                  if (ready.Read() != 'y')
                      return 2;
                  const pid_t heir = System().Fork();
                  if (heir == 0)
                      ::_exit(9); // goes on
                  other.LetGo();
                  return WaitForCode(heir) == 0 ? 0 : 3;
              }),
              0);
}

TEST_F(AgentLocks, BothFilesAreLocked)
{
    const std::string second = m_folder / "b.pid.lock";
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken || Take(second) != LockResult::Taken)
                      return 1;
                  WaitingChild heir(ForkByTheDoorway, [&] {
                      for (const std::string& path : {m_path, second})
                          if (TakeElsewhere(path) != LockResult::HeldByOther)
                              return 1;
                      System().ReleaseInstanceLock();
                      for (const std::string& path : {m_path, second})
                          if (TakeElsewhere(path) != LockResult::Taken)
                              return 2;
                      return 0;
                  });
                  return heir.LetGo() == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(AgentLocks, OneFileUnderTwoNamesIsAsGoodAsOne)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken || Take(m_folder / "./a.pid.lock") != LockResult::Taken)
                      return 1;
                  return TakeElsewhere(m_path) == LockResult::HeldByOther ? 0 : 2;
              }),
              0);
}

TEST_F(AgentLocks, ALockSurvivesThatTheStandardStreamsAreOpenedAnew)
{
    EXPECT_EQ(InChild([&] {
                  for (const int descriptor : {0, 1, 2})
                      ::close(descriptor);
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  System().StreamsToNull();
                  return TakeElsewhere(m_path) == LockResult::HeldByOther ? 0 : 2;
              }),
              0);
}

TEST_F(AgentLocks, TheFileIsTheOwnersAloneAndStays)
{
    EXPECT_EQ(TakeElsewhere(m_path), LockResult::Taken);
    struct stat info;
    ASSERT_EQ(::stat(m_path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 0);
}

TEST_F(AgentLocks, WhatIsNoPlainFileCannotBeLocked)
{
    ASSERT_EQ(::mkdir((m_folder / "folder").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo((m_folder / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("elsewhere", (m_folder / "link").c_str()), 0);
    for (const char* name : {"folder", "fifo", "link", "no/such/folder"})
        EXPECT_EQ(Take(m_folder / name), LockResult::Unavailable) << name;
    pid_t holder = 0;
    EXPECT_EQ(System().TakeInstanceLock(nullptr, holder), LockResult::Unavailable);
    EXPECT_EQ(errno, EINVAL); // a name that is no text, rather than "Bad address"
    EXPECT_FALSE(std::filesystem::exists(m_folder / "elsewhere"));
}

TEST_F(AgentLocks, AThirdFileIsOneTooMany)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken || Take(m_folder / "b.pid.lock") != LockResult::Taken)
                      return 1;
                  const std::string third = m_folder / "c.pid.lock";
                  if (Take(third) != LockResult::Unavailable || errno != EMFILE)
                      return 2;
                  return std::filesystem::exists(third) ? 3 : 0;
              }),
              0);
}

TEST_F(AgentLocks, WhatSomebodyElseHadAHandInIsNotLocked)
{
    const auto refuses = [this] { return Take(m_path) == LockResult::Unavailable && errno == EPERM; };
    ASSERT_EQ(TakeElsewhere(m_path), LockResult::Taken);
    for (const mode_t mode : {0620, 0602}) {
        ::chmod(m_path.c_str(), mode);
        EXPECT_TRUE(refuses()) << mode;
    }
    ::chmod(m_path.c_str(), 0600);
    std::filesystem::create_hard_link(m_path, m_folder / "elsewhere");
    EXPECT_TRUE(refuses()) << "a second name";
    std::filesystem::remove(m_folder / "elsewhere");
    EXPECT_EQ(TakeElsewhere(m_path), LockResult::Taken);
    GIVE_AWAY(m_path);
    EXPECT_TRUE(refuses()) << "another owner";
}

// --- the worker lock

TEST_F(AgentLocks, AWorkerHoldsItsLockToItsEndAndHasNoPartInTheInstanceLock)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken || System().FindOtherWorker() != 0)
                      return 1;
                  WaitingChild worker(ForkWorker);
                  if (System().FindOtherWorker() != worker.Id())
                      return 2;
                  if (TakeElsewhere(m_path) != LockResult::HeldByOther)
                      return 3; // the fork took it away
                  System().ReleaseInstanceLock();
                  if (TakeElsewhere(m_path) != LockResult::Taken)
                      return 4;
                  worker.Release();
                  System().WaitForOtherWorker();
                  if (System().FindOtherWorker() != 0)
                      return 5;
                  return worker.LetGo() == 0 ? 0 : 6;
              }),
              0);
}

TEST_F(AgentLocks, AWorkerIsFoundByEitherFile)
{
    const std::string second = m_folder / "b.pid.lock";
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken || Take(second) != LockResult::Taken)
                      return 1;
                  WaitingChild worker(ForkWorker);
                  System().ReleaseInstanceLock();
                  for (const std::string& path : {m_path, second})
                      if (InChild([&] {
                              VexOs::AgentLocks locks;
                              pid_t holder = 0;
                              locks.TakeInstance(path.c_str(), holder);
                              return locks.FindOtherWorker() == worker.Id() ? 0 : 1;
                          })
                          != 0)
                          return 2;
                  return worker.LetGo() == 0 ? 0 : 3;
              }),
              0);
}

// Until then a stop is kept off, so that nobody can find the agent gone and a child still to come.
TEST_F(AgentLocks, TheForkOfAWorkerIsOverWhenTheWorkerHasItsLock)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  Pipe ready;
                  const pid_t former = ::fork();
                  if (former == 0) {
                      const int file = ::open(m_path.c_str(), O_RDWR | O_CLOEXEC);
                      ready.Write(LockBytes(file, F_SETLK, F_WRLCK, 3, 1) ? 'y' : 'n');
                      ::usleep(200000);
                      ::_exit(0);
                  }
                  if (ready.Read() != 'y')
                      return 2;
                  WaitingChild worker(ForkWorker);
                  const pid_t found = System().FindOtherWorker();
                  worker.LetGo();
                  WaitForCode(former);
                  return found == worker.Id() ? 0 : 3;
              }),
              0);
}

TEST_F(AgentLocks, TheForkOfAWorkerIsOverWhenTheWorkerIsGone)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  const pid_t worker = System().ForkWorker();
                  if (worker == 0)
                      ::_exit(7);
                  return WaitForCode(worker) == 7 ? 0 : 2;
              }),
              0);
}

TEST_F(AgentLocks, AWorkerWhoseSupervisorHasGivenUpTheInstanceLockEndsBeforeItDoesAnything)
{
    EXPECT_EQ(InChild([&] {
                  if (Take(m_path) != LockResult::Taken)
                      return 1;
                  System().ReleaseInstanceLock();
                  const pid_t worker = System().ForkWorker();
                  if (worker == 0)
                      ::_exit(9); // runs the application
                  return WaitForCode(worker) == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(AgentLocks, WithoutAFileThereIsNothingToWaitFor)
{
    EXPECT_EQ(InChild([&] {
                  const pid_t worker = System().ForkWorker();
                  if (worker == 0)
                      ::_exit(9);
                  const int code = WaitForCode(worker);
                  System().WaitForOtherWorker();
                  return System().FindOtherWorker() == 0 && code == 9 ? 0 : 1;
              }),
              0);
}
