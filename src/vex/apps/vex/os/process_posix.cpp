// The calls as both systems have them. How threads are counted and how a child notices its parent's end is each
// system's own (process_linux.cpp, parent_death_linux.cpp, and the same for Solaris). Some run in the supervisor's
// signal handler (process.h says which) and do nothing there but the call.

#include "vex/apps/vex/os/process.h"

#include "vex/apps/vex/os/error.h"
#include "vex/core/sendsignal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
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

// A lock over the whole file. `command` is F_SETLK, F_SETLKW or F_GETLK.
int RecordLock(int descriptor, int command, short type, struct flock& lock)
{
    lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int result = 0;
    do {
        result = ::fcntl(descriptor, command, &lock);
    } while (result == -1 && LastError() == EINTR);
    return result;
}

int OpenLockFile(const char* path)
{
    if (!path) { // a name that the character set cannot hold
        SetLastError(EINVAL);
        return -1;
    }
    // Readable to its owner alone: who can open a file can lock it. Not blocking, should there be a FIFO.
    const int descriptor = ::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (descriptor < 0)
        return -1;
    struct stat info;
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        SetLastError(EINVAL);
        return -1;
    }
    return descriptor;
}

// Two locks in one file. The instance lock belongs to the open file (flock), so that it survives the forks of the
// detach; each working child closes it. The worker lock belongs to the process (fcntl), so that a child holds it from
// its first moment to its end, whatever it forks; that kind is lost when a process closes any descriptor of the file,
// hence the order below.
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
        std::fflush(stdout);
        std::fflush(stderr);
        return ::fork();
    }

    pid_t ForkFirstChild() override
    {
        int ends[2];
        const bool followed = ::pipe(ends) == 0;
        const pid_t child = Fork();
        if (!followed)
            return child;
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
        constexpr int limitMs = 5000;
        struct pollfd wait = {m_starterEnd, POLLIN, 0};
        ::poll(&wait, 1, limitMs);
        ::close(m_starterEnd);
        m_starterEnd = -1;
    }

    pid_t ForkWorker() override
    {
        PrepareToBeFollowed();
        const pid_t parent = OwnId();
        const pid_t child = Fork();
        if (child != 0)
            return child;
        CloseInstanceLock();
        if (m_workerLock >= 0) {
            // May have to wait for a child that finds itself without a parent below.
            struct flock lock;
            RecordLock(m_workerLock, F_SETLKW, F_WRLCK, lock);
        }
        if (!FollowParent(parent))
            ::_exit(0);
        return 0;
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
        const struct
        {
            FILE* stream;
            const char* mode;
        } streams[] = {{stdin, "r"}, {stdout, "w"}, {stderr, "w"}};
        for (const auto& item : streams)
            if (!std::freopen("/dev/null", item.mode, item.stream))
                continue;
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
    void SignalProcess(pid_t process, int signal) override { VexCore::SendSignal(process, signal); }
    void RemoveFile(const char* path) override { ::unlink(path); }

    void ReleaseInstanceLock() override
    {
        // To close it would not do while the first child is still about to end: the file is open there too.
        if (m_instanceLock >= 0)
            ::flock(m_instanceLock, LOCK_UN);
        CloseInstanceLock();
    }

    bool IsExecutable(const char* path) override { return ::access(path, X_OK) == 0; }

    LockResult TakeInstanceLock(const char* path) override
    {
        const int instance = OpenLockFile(path);
        if (instance < 0)
            return LockResult::Unavailable;
        if (::flock(instance, LOCK_EX | LOCK_NB) != 0) {
            const LockResult answer = LastError() == EWOULDBLOCK ? LockResult::HeldByOther : LockResult::Unavailable;
            const KeepError keep;
            ::close(instance);
            return answer;
        }
        m_instanceLock = instance;
        m_workerLock = OpenLockFile(path);
        return LockResult::Taken;
    }

    pid_t FindOtherWorker() override
    {
        struct flock lock;
        if (m_workerLock < 0 || RecordLock(m_workerLock, F_GETLK, F_WRLCK, lock) != 0 || lock.l_type == F_UNLCK)
            return 0;
        return lock.l_pid > 0 ? lock.l_pid : -1;
    }

    void WaitForOtherWorker() override
    {
        if (m_workerLock < 0)
            return;
        struct flock lock;
        RecordLock(m_workerLock, F_SETLKW, F_WRLCK, lock);
        RecordLock(m_workerLock, F_SETLK, F_UNLCK, lock);
    }

private:
    // Leaves the lock with the other processes that have the file open.
    void CloseInstanceLock()
    {
        if (m_instanceLock < 0)
            return;
        ::close(m_instanceLock);
        m_instanceLock = -1;
    }

    void DoExit(int status) override { std::exit(status); }
    void DoExitNow(int status) override { ::_exit(status); }

    volatile int m_instanceLock = -1; // a signal handler closes it
    int m_workerLock = -1;
    int m_starterEnd = -1; // of a pipe whose other end is the starting process's
    struct sigaction m_hangup = {}; // the starter's, while it is ignored
};

SystemCalls* g_replacement = nullptr;

} // namespace

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
