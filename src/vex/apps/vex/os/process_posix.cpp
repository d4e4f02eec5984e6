// The calls as both systems have them. How threads are counted and how a child notices its parent's end is each
// system's own (process_linux.cpp, parent_death_linux.cpp, and the same for Solaris). Some run in the supervisor's
// signal handler (process.h says which) and do nothing there but the call.

#include "vex/apps/vex/os/process.h"

#include "vex/apps/vex/os/error.h"
#include "vex/core/sendsignal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VexOs {

namespace {
void ChangeMask(int how, int signal)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ::sigprocmask(how, &set, nullptr);
}

void SetDefault(int signal)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

// How long a process of the detach waits for the end of the one before.
constexpr long longestWaitMs = 5000;

// Waits until the other ends of the pipe are closed. Bounded, should somebody have stopped the process that has them.
void WaitForEndOfPipe(int descriptor, long limitMs)
{
    const auto nowMs = [] {
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000L + now.tv_nsec / 1000000;
    };
    struct pollfd wait = {descriptor, POLLIN, 0};
    for (const long end = nowMs() + limitMs; nowMs() < end;)
        if (::poll(&wait, 1, static_cast<int>(std::max(end - nowMs(), 0L))) >= 0 || LastError() != EINTR)
            return;
}

class PosixSystemCalls : public SystemCalls
{
public:
    pid_t OwnId() override { return ::getpid(); }
    pid_t OwnGroup() override { return ::getpgrp(); }
    int ThreadCount() override { return CountThreads(); }
    std::int64_t NowSeconds() override { return ::time(nullptr); }

    void SleepMs(long delayMs) override
    {
        timespec left = {delayMs / 1000, (delayMs % 1000) * 1000000};
        while (::nanosleep(&left, &left) != 0 && LastError() == EINTR)
            ;
    }

    pid_t Fork() override
    {
        const pid_t child = ForkUntil([this] {
            if (!m_locks.InheritInstance())
                ::_exit(0);
        });
        // Not left to the end of this process, which may have to wait for its turn.
        if (child > 0)
            m_locks.ReleaseInstance();
        return child;
    }

    pid_t ForkFirstChild() override
    {
        int ends[2];
        const bool followed = ::pipe(ends) == 0;
        const pid_t child = Fork();
        if (!followed)
            return child;
        const KeepError keep;
        if (child != 0) {
            // Nothing is ever written: the other end closes with this process.
            ::close(ends[0]);
            return child;
        }
        ::close(ends[1]);
        m_starterEnd = ends[0];
        return 0;
    }

    void WaitForStarter() override
    {
        if (m_starterEnd < 0)
            return;
        // One that its terminal has stopped, say, must not keep the agent from starting for ever.
        WaitForEndOfPipe(m_starterEnd, longestWaitMs);
        ::close(m_starterEnd);
        m_starterEnd = -1;
    }

    void WaitForAdoption(pid_t parent) override
    {
        // Nothing tells of it, so it looks again and again. It takes a millisecond or two.
        constexpr long longestSleepMs = 64;
        long sleepMs = 1;
        for (long waitedMs = 0; ::getppid() == parent && waitedMs < longestWaitMs; waitedMs += sleepMs) {
            sleepMs = std::min(2 * sleepMs, longestSleepMs);
            SleepMs(sleepMs);
        }
    }

    pid_t ForkWorker() override
    {
        PrepareToBeFollowed();
        const pid_t parent = OwnId();
        return ForkUntil([this, parent] {
            // May have to wait for a child that finds itself without a parent below.
            m_locks.TakeWorker();
            // Too late: a supervisor that has been stopped has let others in.
            if (!FollowParent(parent) || !m_locks.InstanceIsHeldBy(parent))
                ::_exit(0);
        });
    }

    pid_t NewSession() override
    {
        const pid_t group = ::setsid();
        ::sigaction(SIGHUP, &m_hangup, nullptr);
        return group;
    }

    void ChangeFolder(const char* path) override
    {
        // Where it cannot go, it stays; the caller does not ask.
        if (::chdir(path) != 0)
            return;
    }

    void StreamsToNull() override
    {
        for (const int stream : {0, 1, 2}) {
            // Not made where it is missing. The root folder serves as well then: what reads and writes fails at it, and
            // the number is taken, which the next file that is opened would get otherwise.
            int opened = ::open("/dev/null", stream == 0 ? O_RDONLY : O_WRONLY);
            if (opened < 0)
                opened = ::open("/", O_RDONLY);
            if (opened < 0 || opened == stream)
                continue;
            ::dup2(opened, stream);
            ::close(opened);
        }
    }

    void TightenFileMode() override
    {
        const mode_t mode = ::umask(S_IWGRP | S_IWOTH);
        ::umask((mode | S_IWGRP | S_IWOTH) & ~static_cast<mode_t>(S_IRWXU));
    }

    pid_t Wait(pid_t child, int& status) override { return ::waitpid(child, &status, 0); }

    int Ask(pid_t process) override { return VexCore::SendSignal(process, 0); }

    void ResetSignals() override
    {
        SetDefault(SIGTERM);
        SetDefault(SIGCHLD);
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        ::sigaction(SIGHUP, &ignore, &m_hangup);
        ChangeMask(SIG_SETMASK, SIGTERM);
    }

    void BlockTerm() override { ChangeMask(SIG_BLOCK, SIGTERM); }
    void UnblockTerm() override { ChangeMask(SIG_UNBLOCK, SIGTERM); }
    void BlockChild() override { ChangeMask(SIG_BLOCK, SIGCHLD); }

    void PassTermOn(pid_t process) override
    {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        siginfo_t information;
        const timespec noWait = {0, 0};
        if (::sigtimedwait(&term, &information, &noWait) == SIGTERM && information.si_pid != process)
            VexCore::SendSignal(process, SIGTERM);
    }

    void HandleTerm(VexSignalAction handler) override
    {
        if (!handler) {
            SetDefault(SIGTERM);
            return;
        }
        struct sigaction action = {};
        action.sa_sigaction = handler;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        sigaddset(&action.sa_mask, SIGTERM);
        ::sigaction(SIGTERM, &action, nullptr);
    }

    void SignalOwnGroup(int signal) override { VexCore::SendSignalToOwnGroup(signal); }
    void SignalChild(pid_t child, int signal) override
    {
        siginfo_t information;
        if (::waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOHANG | WNOWAIT) == 0)
            VexCore::SendSignal(child, signal);
    }
    void RemoveFile(const char* path) override { ::unlink(path); }

    void ReleaseInstanceLock() override { m_locks.ReleaseInstance(); }

    bool IsExecutable(const char* path) override { return ::access(path, X_OK) == 0; }

    LockResult TakeInstanceLock(const char* path, pid_t& holder) override { return m_locks.TakeInstance(path, holder); }
    pid_t FindOtherWorker() override { return m_locks.FindOtherWorker(); }
    void WaitForOtherWorker() override { m_locks.WaitForOtherWorker(); }

private:
    // Forks, and in the parent waits until `prepare` has come back in the child, or the child is gone: its end of a
    // pipe, into which nobody ever writes, closes with either.
    template <class Prepare>
    static pid_t ForkUntil(Prepare prepare)
    {
        constexpr long longestPreparationMs = 10000;
        int ends[2];
        const bool followed = ::pipe(ends) == 0;
        std::fflush(stdout);
        std::fflush(stderr);
        const pid_t child = ::fork();
        const KeepError keep;
        if (child == 0)
            prepare();
        if (followed) {
            ::close(ends[1]);
            if (child > 0)
                WaitForEndOfPipe(ends[0], longestPreparationMs);
            ::close(ends[0]);
        }
        return child;
    }

    void DoExit(int status) override { std::exit(status); }
    void DoExitNow(int status) override { ::_exit(status); }

    AgentLocks m_locks;
    int m_starterEnd = -1; // of a pipe whose other end is the starting process's
    struct sigaction m_hangup = {}; // the starter's, while it is ignored
};

SystemCalls* g_replacement = nullptr;

} // namespace

int CountFreeDescriptors(int most)
{
    std::vector<int> opened;
    while (static_cast<int>(opened.size()) < most) {
        const int descriptor = ::dup(0);
        if (descriptor < 0)
            break;
        opened.push_back(descriptor);
    }
    for (const int descriptor : opened)
        ::close(descriptor);
    return static_cast<int>(opened.size());
}

SystemCalls& System()
{
    // Never destroyed: a signal handler may still use it while the process ends.
    static SystemCalls& s_system = *new PosixSystemCalls;
    return g_replacement ? *g_replacement : s_system;
}

void ReplaceSystem(SystemCalls* system)
{
    g_replacement = system;
}

} // namespace VexOs
