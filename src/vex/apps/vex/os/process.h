#pragma once
// The doorway to the system calls by which the launcher makes, watches and ends processes. Tests put another object
// behind it, so that the supervisor is tested without a fork.

#include "vex/apps/vex/os/agent_locks.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include <csignal>
#include <sys/types.h>

extern "C" {
typedef void (*VexSignalAction)(int, siginfo_t*, void*);
}

namespace VexOs {

/// One process is behind it, so there is one object. Main thread; the calls under "from a signal handler" are safe
/// there. Calls that fail leave the reason in error.h.
class SystemCalls
{
public:
    virtual ~SystemCalls() = default;

    // --- ids and time
    virtual pid_t OwnId() = 0; // also from a signal handler
    virtual pid_t OwnGroup() = 0; // also from a signal handler
    /// Threads of this process, 1 when there is only the caller. 0 where the system does not tell.
    virtual int ThreadCount() = 0;
    /// Seconds since the epoch, by the wall clock.
    virtual std::int64_t NowSeconds() = 0;
    /// Sleeps for the whole time, whatever signals come.
    virtual void SleepMs(long delayMs) = 0;

    // --- making processes
    /// 0 in the child, the child's id in the parent, -1 on failure. What standard output holds is written out first,
    /// so that it is not written twice. The child takes over the instance lock, which the parent has given up then. A
    /// child that finds it with somebody else ends before it does anything.
    virtual pid_t Fork() = 0;
    /// The same for the first child of a start, which can tell that this process has ended.
    virtual pid_t ForkFirstChild() = 0;
    /// In that child: waits for the end of the process that forked it, for a few seconds at most.
    virtual void WaitForStarter() = 0;
    /// In a process that `parent` has forked: waits until it is another's child, for a few seconds at most. That is a
    /// little later than the end of what its parent did.
    virtual void WaitForAdoption(pid_t parent) = 0;
    /// A fork of the working child, which has the worker lock and gets a SIGTERM when this process ends. It comes back
    /// when the child has the lock or is gone, after ten seconds at the latest. A child whose parent is gone already or
    /// has given up the instance lock ends before it does anything.
    virtual pid_t ForkWorker() = 0;
    /// Becomes leader of a new session and group; the group's id, -1 on failure. SIGHUP is again what it was before
    /// `ResetSignals`.
    virtual pid_t NewSession() = 0;
    virtual void ChangeFolder(const char* path) = 0;
    /// Standard input, output and error go to /dev/null, or nowhere when that is missing. What they hold is written by
    /// then.
    virtual void StreamsToNull() = 0;
    /// Files made from here on are not writable for group and others, and the owner keeps all rights. Stricter masks
    /// for group and others stay.
    virtual void TightenFileMode() = 0;
    /// As `waitpid` without options.
    virtual pid_t Wait(pid_t child, int& status) = 0;
    /// Runs exit handlers and ends the process.
    [[noreturn]] void Exit(int status)
    {
        DoExit(status);
        std::abort();
    }

    // --- signals
    /// Whether a process may be sent signals; -1 with the reason, as `kill` with signal 0.
    virtual int Ask(pid_t process) = 0;
    /// Default disposition for SIGTERM and SIGCHLD, and a mask that holds SIGTERM alone: what the starter of this
    /// process left in them must not reach the supervisor. SIGHUP is ignored until `NewSession`: a starting process
    /// that leads its terminal's session brings it upon its child when it ends.
    virtual void ResetSignals() = 0;
    virtual void BlockTerm() = 0;
    virtual void UnblockTerm() = 0;
    virtual void BlockChild() = 0;
    /// Sends SIGTERM to `process` when one is pending here that did not come from it: the supervisor's own group-wide
    /// one finds the first child alive at times.
    virtual void PassTermOn(pid_t process) = 0;
    /// Installs `handler` for SIGTERM with SA_SIGINFO and SIGTERM in its mask; null is the default disposition.
    virtual void HandleTerm(VexSignalAction handler) = 0;

    // --- from a signal handler too
    virtual void SignalOwnGroup(int signal) = 0;
    /// Nothing when the child has been waited for: its id may be a stranger's by then.
    virtual void SignalChild(pid_t child, int signal) = 0;
    /// A file that is not there is no failure, and others go unsaid.
    virtual void RemoveFile(const char* path) = 0;
    virtual void ReleaseInstanceLock() = 0;
    /// Ends the process as it stands.
    [[noreturn]] void ExitNow(int status)
    {
        DoExitNow(status);
        std::abort();
    }

    // --- files
    virtual bool IsExecutable(const char* path) = 0;
    /// Takes the lock in the file at `path`, which is made and stays; for two files at most. It goes on to the child of
    /// a `Fork`, and ends with `ReleaseInstanceLock` and with the process. `holder`: see agent_locks.h.
    virtual LockResult TakeInstanceLock(const char* path, pid_t& holder) = 0;
    /// The working child of another supervisor under one of these files that has not ended yet; 0 when there is none.
    /// The id may be -1 when the process is out of sight.
    virtual pid_t FindOtherWorker() = 0;
    /// Waits until there is none. Signals are taken meanwhile.
    virtual void WaitForOtherWorker() = 0;

protected:
    SystemCalls() = default;
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

private:
    virtual void DoExit(int status) = 0;
    virtual void DoExitNow(int status) = 0;
};

SystemCalls& System();

/// Puts another object behind the doorway, null for the real one. For tests.
void ReplaceSystem(SystemCalls* system);

/// Marks every open descriptor above 2 close-on-exec. Any thread.
void CloseDescriptorsOnExec();

/// How many more descriptors this process can open, counted up to `most`.
int CountFreeDescriptors(int most);

// --- parent_death_*.cpp: how a working child learns that its supervisor is gone

/// In the supervisor, before a fork of a working child.
void PrepareToBeFollowed();
/// In the child: from here on the end of `parent` sends this process a SIGTERM. False when the parent is gone already.
bool FollowParent(pid_t parent);

/// Threads of the calling process, 0 where the system does not tell.
int CountThreads();

} // namespace VexOs
