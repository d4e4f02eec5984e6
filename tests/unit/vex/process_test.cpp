// The supervisor's doorway on the real system: locks, forks of a worker, descriptors. Each test that changes the
// process works in a forked one, which tells its findings by its exit code.

#include "vex/apps/vex/os/process.h"

#include "support/child.h"
#include "support/joining_thread.h"
#include "support/temp_folder.h"

#include "vex/core/sendsignal.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using VexOs::System;

using ::Test::InChild;
using ::Test::Pipe;
using ::Test::WaitingChild;

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

namespace {
// What is told while a child waits for the end of the process that has forked it: 'r' by the child before, 's' by the
// other when it ends, and what `wait` tells.
std::string ToldAroundTheEndOfAStarter(pid_t (*fork)(), void (*wait)(Pipe& told, pid_t starter))
{
    Pipe go;
    Pipe told;
    const pid_t starter = ::fork();
    if (starter == 0) {
        const pid_t self = ::getpid();
        if (fork() == 0) {
            go.CloseEnd(1);
            told.Write('r');
            wait(told, self);
            ::_exit(0);
        }
        go.CloseEnd(1);
        go.Read();
        told.Write('s');
        ::_exit(0);
    }
    told.CloseEnd(1);
    std::string all(1, told.Read());
    ::usleep(20000);
    go.CloseEnd(1);
    while (const char byte = told.Read())
        all += byte;
    ::waitpid(starter, nullptr, 0);
    return all;
}

} // namespace

TEST(ProcessSystem, TheFirstChildWaitsForTheEndOfTheStartingProcess)
{
    const auto wait = [](Pipe& told, pid_t) {
        System().WaitForStarter();
        System().WaitForStarter(); // nobody is there any more
        told.Write('c');
    };
    EXPECT_EQ(ToldAroundTheEndOfAStarter([] { return System().ForkFirstChild(); }, wait), "rsc");
}

TEST(ProcessSystem, AChildWaitsUntilItHasAnotherParent)
{
    const auto wait = [](Pipe& told, pid_t starter) {
        System().WaitForAdoption(starter);
        told.Write(::getppid() == starter ? 'p' : 'c');
        System().WaitForAdoption(starter); // it is gone already
        told.Write('e');
    };
    EXPECT_EQ(ToldAroundTheEndOfAStarter([] { return System().Fork(); }, wait), "rsce");
}

TEST(ProcessSystem, AParentThatDoesNotEndIsWaitedForForSomeSeconds)
{
    using namespace std::chrono;
    const auto begin = steady_clock::now();
    System().WaitForAdoption(::getppid());
    const auto waited = steady_clock::now() - begin;
    EXPECT_GE(waited, seconds(5));
    EXPECT_LT(waited, seconds(30));
}

TEST(ProcessSystem, WhatAStreamHoldsBackIsWrittenOnce)
{
    for (std::FILE* const stream : {stdout, stderr}) {
        const ::Test::TempFolder folder;
        EXPECT_EQ(InChild([&] {
                      std::fflush(stream);
                      ::dup2(::open((folder / "x").c_str(), O_WRONLY | O_CREAT, 0600), ::fileno(stream));
                      std::setvbuf(stream, nullptr, _IOFBF, 100);
                      std::fputs("once", stream);
                      const pid_t child = System().Fork();
                      std::fflush(stream);
                      if (child == 0)
                          ::_exit(0);
                      return ::waitpid(child, nullptr, 0) == child ? 0 : 1;
                  }),
                  0);
        EXPECT_EQ(::Test::ReadFile(folder / "x"), "once");
    }
}

// Then the next process cannot be told, and does not wait.
TEST(ProcessSystem, TheFirstForkNeedsNoFurtherFile)
{
    EXPECT_EQ(InChild([] {
                  const struct rlimit none = {0, 0};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  const pid_t child = System().ForkFirstChild();
                  if (child == 0) {
                      System().WaitForStarter();
                      ::_exit(7);
                  }
                  int status = 0;
                  return child > 1 && ::waitpid(child, &status, 0) == child && WEXITSTATUS(status) == 7 ? 0 : 1;
              }),
              0);
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
                              VexCore::SendSignal(self, SIGTERM);
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

// Between the wait for a child and the note that none runs its id may become a stranger's.
TEST(ProcessSystem, ASignalForAChildReachesNobodyElseOnceTheChildHasBeenWaitedFor)
{
    WaitingChild stranger(::fork, [] { return 3; });
    EXPECT_EQ(InChild([&] {
                  stranger.Release(); // its other half is the test's
                  // Alive, and the id of a process, but of none of ours: what a reused id is.
                  System().SignalChild(stranger.Id(), SIGTERM);
                  return 0;
              }),
              0);
    EXPECT_EQ(stranger.LetGo(), 3);
}

TEST(ProcessSystem, ASignalForAChildReachesItWhileItRunsAndLeavesItsEndToTheWait)
{
    const WaitingChild waiting(::fork);
    const pid_t child = waiting.Id();
    System().SignalChild(child, SIGTERM);
    siginfo_t information;
    EXPECT_EQ(::waitid(P_PID, child, &information, WEXITED | WNOWAIT), 0);
    System().SignalChild(child, SIGTERM); // it is not anybody else's yet
    int status = -1;
    EXPECT_EQ(System().Wait(child, status), child);
    EXPECT_EQ(status, SIGTERM);
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

TEST(ProcessSystem, TheHandlerIsInstalledWithItsInformationAndItsSignalAloneMasked)
{
#if defined(__SANITIZE_THREAD__) // which puts a handler of its own in front, with everything masked
    constexpr bool maskIsOurs = false;
#else
    constexpr bool maskIsOurs = true;
#endif
    constexpr int visibleFlags = SA_SIGINFO | SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_NOCLDSTOP | SA_ONSTACK;
    EXPECT_EQ(InChild([] {
                  const VexSignalAction handler = [](int, siginfo_t*, void*) {};
                  System().HandleTerm(handler);
                  struct sigaction action;
                  ::sigaction(SIGTERM, nullptr, &action);
                  if (action.sa_sigaction != handler || (action.sa_flags & visibleFlags) != SA_SIGINFO)
                      return 1;
                  for (int signal = 1; signal < 65; ++signal)
                      if (maskIsOurs && sigismember(&action.sa_mask, signal) == 1 && signal != SIGTERM)
                          return 2;
                  if (sigismember(&action.sa_mask, SIGTERM) != 1)
                      return 4;
                  System().HandleTerm(nullptr);
                  ::sigaction(SIGTERM, nullptr, &action);
                  return action.sa_handler == SIG_DFL ? 0 : 3;
              }),
              0);
}

TEST(ProcessSystem, TheSignalOfChildrenIsBlockedAndNoOther)
{
    EXPECT_EQ(InChild([] {
                  sigset_t mask;
                  sigemptyset(&mask);
                  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
                  System().BlockChild();
                  ::sigprocmask(SIG_SETMASK, nullptr, &mask);
                  for (int signal = 1; signal < 65; ++signal)
                      if ((sigismember(&mask, signal) == 1) != (signal == SIGCHLD))
                          return signal;
                  return 0;
              }),
              0);
}

TEST(ProcessSystem, AStoppedChildHasNotEnded)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::raise(SIGSTOP);
        ::_exit(5);
    }
    siginfo_t information;
    EXPECT_EQ(::waitid(P_PID, child, &information, WSTOPPED | WNOWAIT), 0);
    const pid_t waker = ::fork();
    if (waker == 0) {
        ::usleep(50000);
        VexCore::SendSignal(child, SIGCONT);
        ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(System().Wait(child, status), child);
    EXPECT_EQ(status, 5 << 8);
    ::waitpid(waker, nullptr, 0);
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
                  const auto nextFree = [] {
                      const int number = ::dup(0);
                      ::close(number);
                      return number;
                  };
                  const int free = nextFree();
                  System().StreamsToNull();
                  if (nextFree() != free)
                      return 5; // one of those that were opened stays
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

TEST(ProcessSystem, DescriptorsThatCanBeOpenedAreCountedAndNoneStaysOpen)
{
    EXPECT_EQ(InChild([] {
                  const int next = ::dup(0);
                  ::close(next);
                  const rlimit limit = {static_cast<rlim_t>(next) + 3, static_cast<rlim_t>(next) + 3};
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  if (VexOs::CountFreeDescriptors(2) != 2)
                      return 1;
                  if (VexOs::CountFreeDescriptors(100) > 3)
                      return 2;
                  const int again = ::dup(0);
                  return again == next ? 0 : 3;
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
