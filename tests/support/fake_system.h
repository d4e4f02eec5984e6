#pragma once
// A system for tests of the supervisor: no process is made, no signal sent, no second passes. Calls go to the journal
// of the fake core, so that a test sees them in order with the log and the pid file. What is not worth an order (ids,
// the clock) is not written down.

#include "support/fake_core.h"

#include "vex/apps/vex/os/process.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>

/// Thrown where the process would end.
struct Ended
{
    int status;
    bool atOnce; ///< by _exit
};

class FakeSystem : public VexOs::SystemCalls
{
public:
    static constexpr pid_t ownId = 4242;
    static constexpr pid_t ownGroupId = 4241;
    static constexpr pid_t firstChildId = 5000; ///< the first child's id; each further one is one more
    static constexpr pid_t strangerId = 77;

    FakeSystem() { VexOs::ReplaceSystem(this); }
    ~FakeSystem() override { VexOs::ReplaceSystem(nullptr); }

    // --- what the test sets
    std::deque<pid_t>
        forks; ///< answers of the first forks of either kind: 0, an id, or -errno; afterwards `firstChildId` and on
    /// What a wait for a child does, used up one by one: the raw status, or -errno of a failure.
    /// A call may do something first.
    std::deque<std::function<int()>> waits;
    int ask = 0; ///< answer of `Ask`: 0 or -errno
    VexOs::LockResult lock = VexOs::LockResult::Taken; ///< of the file beside the pid file
    VexOs::LockResult workLock = VexOs::LockResult::Taken; ///< of the file in the work folder
    pid_t lockHolder = strangerId; ///< who has a lock that is held by another
    pid_t otherWorker = 0;
    bool executable = false;
    std::int64_t now = 1700000000;
    std::function<void()> onSleep;
    std::function<void()> onFork; ///< before a fork of either kind
    std::function<void()> onWaitForOther;
    std::function<void()> onRemoveFile; ///< before the first removal
    pid_t self = ownId;
    pid_t group = ownGroupId;
    int threads = 1;

    /// A child's end with this raw status.
    void ChildEnds(int status)
    {
        waits.push_back([status] { return status; });
    }
    /// The process is sent SIGTERM by `sender`.
    void SendTerm(pid_t sender)
    {
        if (m_termBlocked)
            m_pending = m_pending.value_or(sender);
        else
            Deliver(sender);
    }
    bool TermIsBlocked() const { return m_termBlocked; }
    bool TermIsPending() const { return m_pending.has_value(); }
    VexSignalAction TermHandler() const { return m_handler; }

    // --- system
    pid_t OwnId() override { return self; }
    pid_t OwnGroup() override { return group; }
    int ThreadCount() override { return threads; }
    std::int64_t NowSeconds() override { return now; }
    void SleepMs(long delayMs) override
    {
        FakeCore::Record("Sleep(" + std::to_string(delayMs) + ")");
        if (onSleep)
            onSleep();
        now += delayMs / 1000;
    }
    pid_t Fork() override { return AnswerFork("Fork()"); }
    pid_t ForkFirstChild() override { return AnswerFork("ForkFirstChild()"); }
    void WaitForStarter() override { FakeCore::Record("WaitForStarter()"); }
    void WaitForAdoption(pid_t parent) override { FakeCore::Record("WaitForAdoption(" + std::to_string(parent) + ")"); }
    pid_t ForkWorker() override { return AnswerFork(m_termBlocked ? "ForkWorker()" : "ForkWorker() unguarded"); }
    pid_t NewSession() override
    {
        FakeCore::Record("NewSession()");
        return group;
    }
    void ChangeFolder(const char* path) override { FakeCore::Record("ChangeFolder(" + FakeCore::Quote(path) + ")"); }
    void StreamsToNull() override { FakeCore::Record("StreamsToNull()"); }
    void TightenFileMode() override { FakeCore::Record("TightenFileMode()"); }
    pid_t Wait(pid_t child, int& status) override
    {
        FakeCore::Record("Wait(" + std::to_string(child) + ")");
        if (waits.empty())
            throw std::string("a wait that the test did not expect");
        const auto next = waits.front();
        waits.pop_front();
        const int answer = next();
        if (answer < 0) {
            errno = -answer;
            return -1;
        }
        status = answer;
        return child;
    }
    int Ask(pid_t process) override
    {
        FakeCore::Record("Ask(" + std::to_string(process) + ")");
        errno = -ask;
        return ask == 0 ? 0 : -1;
    }
    void ResetSignals() override
    {
        FakeCore::Record("ResetSignals()");
        m_termBlocked = true;
    }
    void BlockTerm() override
    {
        FakeCore::Record("BlockTerm()");
        m_termBlocked = true;
    }
    void UnblockTerm() override
    {
        FakeCore::Record("UnblockTerm()");
        m_termBlocked = false;
        if (m_pending) {
            const pid_t sender = *m_pending;
            m_pending.reset();
            Deliver(sender);
        }
    }
    void BlockChild() override { FakeCore::Record("BlockChild()"); }
    void PassTermOn(pid_t process) override
    {
        FakeCore::Record("PassTermOn(" + std::to_string(process) + ")");
        if (m_pending && *m_pending != process)
            FakeCore::Record("SignalProcess(" + std::to_string(process) + ", TERM)");
    }
    void HandleTerm(VexSignalAction handler) override
    {
        FakeCore::Record(handler ? "HandleTerm(handler)" : "HandleTerm(default)");
        m_handler = handler;
    }
    void SignalOwnGroup(int signal) override
    {
        FakeCore::Record(signal == SIGTERM ? "SignalOwnGroup(TERM)" : "SignalOwnGroup(other)");
        // We are in it.
        SendTerm(self);
    }
    void SignalChild(pid_t child, int signal) override
    {
        FakeCore::Record("SignalChild(" + std::to_string(child) + (signal == SIGTERM ? ", TERM)" : ", other)"));
    }
    void RemoveFile(const char* path) override
    {
        if (const std::function<void()> before = std::exchange(onRemoveFile, nullptr))
            before();
        FakeCore::Record("RemoveFile(" + FakeCore::Quote(path) + ")");
    }
    void ReleaseInstanceLock() override { FakeCore::Record("ReleaseInstanceLock()"); }
    bool IsExecutable(const char* path) override
    {
        FakeCore::Record("IsExecutable(" + FakeCore::Quote(path) + ")");
        return executable;
    }
    VexOs::LockResult TakeInstanceLock(const char* path, pid_t& holder) override
    {
        FakeCore::Record("TakeInstanceLock(" + FakeCore::Quote(path) + ")");
        const bool isBesidePidFile = std::string(path ? path : "").rfind("/var/run/", 0) == 0;
        errno = isBesidePidFile ? EACCES : ENOENT;
        holder = lockHolder;
        return isBesidePidFile ? lock : workLock;
    }
    pid_t FindOtherWorker() override { return otherWorker; }
    void WaitForOtherWorker() override
    {
        FakeCore::Record("WaitForOtherWorker()");
        if (onWaitForOther)
            onWaitForOther();
    }

private:
    void DoExit(int status) override
    {
        FakeCore::Record("Exit(" + std::to_string(status) + ")");
        throw Ended{status, false};
    }
    void DoExitNow(int status) override
    {
        FakeCore::Record("ExitNow(" + std::to_string(status) + ")");
        throw Ended{status, true};
    }

    pid_t AnswerFork(const char* name)
    {
        FakeCore::Record(name);
        if (onFork)
            onFork();
        pid_t answer = 0;
        if (forks.empty()) {
            answer = m_nextChild++;
        } else {
            answer = forks.front();
            forks.pop_front();
        }
        if (answer >= 0)
            return answer;
        errno = -answer;
        return -1;
    }

    // As the system does: the signal stays blocked while its handler runs, and one that comes
    // meanwhile is taken after it.
    void Deliver(pid_t sender)
    {
        siginfo_t information;
        std::memset(&information, 0, sizeof information);
        information.si_signo = SIGTERM;
        information.si_pid = sender;
        if (!m_handler) {
            FakeCore::Record("killed by TERM");
            throw Ended{-SIGTERM, true};
        }
        m_termBlocked = true;
        m_handler(SIGTERM, &information, nullptr);
        m_termBlocked = false;
        if (m_pending) {
            const pid_t next = *m_pending;
            m_pending.reset();
            Deliver(next);
        }
    }

    pid_t m_nextChild = firstChildId;
    bool m_termBlocked = false;
    std::optional<pid_t> m_pending;
    VexSignalAction m_handler = nullptr;
};
