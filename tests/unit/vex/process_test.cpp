// The supervisor's doorway on the real system: locks, forks of a worker, descriptors. Each test that changes the
// process works in a forked one, which tells its findings by its exit code.

#include "vex/apps/vex/os/process.h"

#include "support/joining_thread.h"
#include "support/temp_folder.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using VexOs::LockResult;
using VexOs::System;

namespace {
// Runs `body` in a process of its own and returns its result (0 to 255).
int InChild(const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

class Pipe
{
public:
    Pipe()
    {
        if (::pipe(m_ends) != 0)
            throw std::runtime_error("pipe");
    }
    ~Pipe()
    {
        CloseEnd(0);
        CloseEnd(1);
    }
    void CloseEnd(int index)
    {
        if (m_ends[index] >= 0)
            ::close(m_ends[index]);
        m_ends[index] = -1;
    }
    void Write(char byte) { EXPECT_EQ(::write(m_ends[1], &byte, 1), 1); }
    // 0 at the end of the pipe.
    char Read()
    {
        char byte = 0;
        return ::read(m_ends[0], &byte, 1) == 1 ? byte : '\0';
    }

private:
    int m_ends[2];
};

} // namespace

TEST(ProcessSystem, TheInstanceLockIsHadOnceUntilItIsReleased)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a.pid.lock";
    EXPECT_EQ(InChild([&] {
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::Taken)
                      return 1;
                  // Another open of the file stands for another process.
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::HeldByOther)
                      return 2;
                  System().ReleaseInstanceLock();
                  return System().TakeInstanceLock(path.c_str()) == LockResult::Taken ? 0 : 3;
              }),
              0);
}

TEST(ProcessSystem, TheInstanceLockSurvivesTheForksOfTheDetach)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a.pid.lock";
    Pipe go;
    const pid_t holder = ::fork();
    if (holder == 0) {
        go.CloseEnd(1);
        const bool taken = System().TakeInstanceLock(path.c_str()) == LockResult::Taken;
        if (!taken || System().Fork() > 0)
            ::_exit(taken ? 0 : 1); // the parent ends, the child keeps the lock
        go.Read();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(holder, &status, 0), holder);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(InChild([&] { return System().TakeInstanceLock(path.c_str()) == LockResult::HeldByOther ? 0 : 1; }), 0);
    go.CloseEnd(1);
    // It goes with the last process that has it.
    int free = 1;
    for (int i = 0; i < 500 && free != 0; ++i) {
        ::usleep(10000);
        free = InChild([&] { return System().TakeInstanceLock(path.c_str()) == LockResult::Taken ? 0 : 1; });
    }
    EXPECT_EQ(free, 0);
}

TEST(ProcessSystem, TheInstanceLockIsGivenUpForTheProcessesOfTheDetachToo)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a.pid.lock";
    EXPECT_EQ(InChild([&] {
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::Taken)
                      return 1;
                  Pipe go;
                  const pid_t lingering = System().Fork();
                  if (lingering == 0) {
                      go.CloseEnd(1);
                      go.Read();
                      ::_exit(0);
                  }
                  System().ReleaseInstanceLock();
                  const LockResult again = System().TakeInstanceLock(path.c_str());
                  go.CloseEnd(1);
                  ::waitpid(lingering, nullptr, 0);
                  return again == LockResult::Taken ? 0 : 2;
              }),
              0);
}

TEST(ProcessSystem, TheLockFileIsTheOwnersAloneAndStays)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a.pid.lock";
    EXPECT_EQ(InChild([&] { return System().TakeInstanceLock(path.c_str()) == LockResult::Taken ? 0 : 1; }), 0);
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 0);
}

TEST(ProcessSystem, WhatIsNoPlainFileCannotBeLocked)
{
    ::Test::TempFolder folder;
    ASSERT_EQ(::mkdir((folder / "folder").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("elsewhere", (folder / "link").c_str()), 0);
    for (const char* name : {"folder", "fifo", "link", "no/such/folder"})
        EXPECT_EQ(System().TakeInstanceLock((folder / name).c_str()), LockResult::Unavailable) << name;
    EXPECT_EQ(System().TakeInstanceLock(nullptr), LockResult::Unavailable);
    EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
}

TEST(ProcessSystem, AWorkerHoldsItsLockFromItsFirstMomentToItsEndAndLeavesTheInstanceLock)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a.pid.lock";
    EXPECT_EQ(InChild([&] {
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::Taken || System().FindOtherWorker() != 0)
                      return 1;
                  Pipe ready;
                  Pipe go;
                  const pid_t worker = System().ForkWorker();
                  if (worker == 0) {
                      go.CloseEnd(1);
                      ready.Write('r');
                      go.Read();
                      ::_exit(0);
                  }
                  ready.Read();
                  if (System().FindOtherWorker() != worker)
                      return 2;
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::HeldByOther)
                      return 6; // the worker took it along
                  // The supervisor gives its lock up: the worker must not keep it.
                  System().ReleaseInstanceLock();
                  if (System().TakeInstanceLock(path.c_str()) != LockResult::Taken)
                      return 3;
                  go.CloseEnd(1);
                  System().WaitForOtherWorker();
                  if (System().FindOtherWorker() != 0)
                      return 4;
                  return ::waitpid(worker, nullptr, 0) == worker ? 0 : 5;
              }),
              0);
}

TEST(ProcessSystem, AWorkerWhoseSupervisorEndsGetsASigterm)
{
    Pipe told;
    const pid_t supervisor = ::fork();
    if (supervisor == 0) {
        System().ResetSignals(); // SIGTERM stays blocked and pending, as in a working child
        Pipe ready;
        if (System().ForkWorker() == 0) {
            ready.Write('r');
            sigset_t term;
            sigemptyset(&term);
            sigaddset(&term, SIGTERM);
            const timespec limit = {10, 0};
            told.Write(::sigtimedwait(&term, nullptr, &limit) == SIGTERM ? 'y' : 'n');
            ::_exit(0);
        }
        ready.Read();
        ::_exit(0);
    }
    EXPECT_EQ(told.Read(), 'y');
    ::waitpid(supervisor, nullptr, 0);
}

TEST(ProcessSystem, AWorkerWhoseSupervisorIsGoneAlreadyIsToldSo)
{
    EXPECT_EQ(InChild([] {
                  if (!VexOs::FollowParent(::getppid()))
                      return 1;
                  return VexOs::FollowParent(::getpid()) ? 2 : 0; // which is not its parent
              }),
              0);
}

TEST(ProcessSystem, TheFirstChildWaitsForTheEndOfTheStartingProcess)
{
    Pipe go;
    Pipe told;
    const pid_t starter = ::fork();
    if (starter == 0) {
        if (System().ForkFirstChild() == 0) {
            go.CloseEnd(1);
            told.Write('r');
            System().WaitForStarter();
            System().WaitForStarter(); // nobody is there any more
            told.Write('c');
            ::_exit(0);
        }
        go.CloseEnd(1);
        go.Read();
        told.Write('s');
        ::_exit(0);
    }
    EXPECT_EQ(told.Read(), 'r');
    ::usleep(20000);
    go.CloseEnd(1);
    EXPECT_EQ(told.Read(), 's');
    EXPECT_EQ(told.Read(), 'c');
    ::waitpid(starter, nullptr, 0);
}

TEST(ProcessSystem, APendingSigtermIsPassedOnUnlessItCameFromThere)
{
    enum PendingSignal { Nothing, FromElsewhere, FromTheNext };
    for (const PendingSignal pending : {Nothing, FromElsewhere, FromTheNext})
        EXPECT_EQ(InChild([pending] {
                      System().ResetSignals();
                      Pipe go;
                      Pipe ready;
                      const pid_t self = ::getpid();
                      const pid_t next = System().Fork();
                      if (next == 0) {
                          go.CloseEnd(1);
                          if (pending == FromTheNext)
                              System().SignalProcess(self, SIGTERM);
                          ready.Write('r');
                          go.Read();
                          System().UnblockTerm(); // ends this process when it was sent one
                          ::_exit(7);
                      }
                      ready.Read();
                      if (pending == FromElsewhere)
                          ::raise(SIGTERM);
                      System().PassTermOn(next);
                      go.CloseEnd(1);
                      int status = 0;
                      ::waitpid(next, &status, 0);
                      const bool passed = WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM;
                      return passed == (pending == FromElsewhere) ? 0 : 1;
                  }),
                  0)
            << pending;
}

TEST(ProcessSystem, SignalsLeftByTheStarterAreReset)
{
    EXPECT_EQ(InChild([] {
                  ::signal(SIGTERM, SIG_IGN);
                  ::signal(SIGCHLD, SIG_IGN);
                  sigset_t all;
                  sigfillset(&all);
                  ::sigprocmask(SIG_SETMASK, &all, nullptr);
                  System().ResetSignals();
                  sigset_t mask;
                  ::sigprocmask(SIG_SETMASK, nullptr, &mask);
                  for (int signal = 1; signal < 32; ++signal)
                      if (sigismember(&mask, signal) != (signal == SIGTERM))
                          return signal;
                  for (const int signal : {SIGTERM, SIGCHLD}) {
                      struct sigaction action;
                      ::sigaction(signal, nullptr, &action);
                      if (action.sa_handler != SIG_DFL)
                          return 100;
                  }
                  return 0;
              }),
              0);
}

TEST(ProcessSystem, AHangupIsIgnoredUntilThereIsANewSession)
{
    for (void (*const before)(int) : {SIG_DFL, SIG_IGN})
        EXPECT_EQ(InChild([before] {
                      ::signal(SIGHUP, before);
                      const auto now = [] {
                          struct sigaction action;
                          ::sigaction(SIGHUP, nullptr, &action);
                          return action.sa_handler;
                      };
                      System().ResetSignals();
                      if (now() != SIG_IGN)
                          return 1;
                      if (System().NewSession() != ::getpid())
                          return 2;
                      return now() == before ? 0 : 3;
                  }),
                  0);
}

TEST(ProcessSystem, TheHandlerIsInstalledWithItsInformationAndItsSignalMasked)
{
    EXPECT_EQ(InChild([] {
                  const VexSignalAction handler = [](int, siginfo_t*, void*) {};
                  System().HandleTerm(handler);
                  struct sigaction action;
                  ::sigaction(SIGTERM, nullptr, &action);
                  if (action.sa_sigaction != handler || (action.sa_flags & SA_SIGINFO) == 0)
                      return 1;
                  if ((action.sa_flags & SA_RESTART) != 0 || sigismember(&action.sa_mask, SIGTERM) != 1)
                      return 2;
                  System().HandleTerm(nullptr);
                  ::sigaction(SIGTERM, nullptr, &action);
                  return action.sa_handler == SIG_DFL ? 0 : 3;
              }),
              0);
}

TEST(ProcessSystem, TheFileModeKeepsTheOwnersRightsAndStricterMasks)
{
    const struct
    {
        mode_t before;
        mode_t after;
    } table[] = {{0, 022}, {022, 022}, {027, 027}, {077, 077}, {0777, 077}, {0700, 022}};
    for (const auto& row : table)
        EXPECT_EQ(InChild([&row] {
                      ::umask(row.before);
                      System().TightenFileMode();
                      return ::umask(0) == row.after ? 0 : 1;
                  }),
                  0)
            << row.before;
}

TEST(ProcessSystem, StreamsGoToTheNullDevice)
{
    EXPECT_EQ(InChild([] {
                  System().StreamsToNull();
                  struct stat null;
                  ::stat("/dev/null", &null);
                  for (int descriptor = 0; descriptor < 3; ++descriptor) {
                      struct stat info;
                      if (::fstat(descriptor, &info) != 0 || info.st_rdev != null.st_rdev)
                          return 1 + descriptor;
                  }
                  if ((::fcntl(0, F_GETFL) & O_ACCMODE) == O_WRONLY || (::fcntl(1, F_GETFL) & O_ACCMODE) == O_RDONLY)
                      return 4;
                  return 0;
              }),
              0);
}

TEST(ProcessSystem, DescriptorsAboveTheStandardOnesAreMarked)
{
    EXPECT_EQ(InChild([] {
                  const int descriptor = ::dup(0);
                  const int standard = ::fcntl(0, F_GETFD);
                  VexOs::CloseDescriptorsOnExec();
                  if ((::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0)
                      return 1;
                  return ::fcntl(0, F_GETFD) == standard ? 0 : 2;
              }),
              0);
}

#if !defined(__SANITIZE_THREAD__)
TEST(ProcessSystem, ThreadsAreCounted)
{
    const int before = System().ThreadCount();
    EXPECT_GE(before, 1);
    Pipe go;
    ::Test::JoiningThread other([&go] { go.Read(); });
    EXPECT_EQ(System().ThreadCount(), before + 1);
    go.CloseEnd(1);
    other.join();
}
#endif

TEST(ProcessSystem, ASignalIsNeverSentToMoreThanOneProcess)
{
    for (const pid_t process : {-1, 0, 1}) {
        EXPECT_EQ(System().Ask(process), -1) << process;
        EXPECT_EQ(errno, EINVAL) << process;
    }
}

TEST(ProcessSystem, SleepsForTheWholeTimeWhateverSignalsCome)
{
    EXPECT_EQ(InChild([] {
                  static volatile std::sig_atomic_t s_alarms = 0;
                  struct sigaction action = {};
                  action.sa_handler = [](int) {
                      s_alarms = s_alarms + 1;
                      const itimerval none = {};
                      if (s_alarms == 1000)
                          ::setitimer(ITIMER_REAL, &none, nullptr);
                  };
                  ::sigaction(SIGALRM, &action, nullptr);
                  const itimerval soonAndOften = {{0, 10000}, {0, 10000}};
                  ::setitimer(ITIMER_REAL, &soonAndOften, nullptr);
                  using namespace std::chrono;
                  const auto begin = steady_clock::now();
                  System().SleepMs(100);
                  const auto slept = steady_clock::now() - begin;
                  if (s_alarms == 0)
                      return 1;
                  if (slept < milliseconds(100))
                      return 2;
                  return slept < milliseconds(5000) ? 0 : 3; // what is left is slept, not all of it again
              }),
              0);
}
