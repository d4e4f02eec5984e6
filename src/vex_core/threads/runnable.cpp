// The base of every thread of ours. wx's own wrapper around a thread's body swallows exceptions and with them
// whoever waits for a result, so nothing may leave `Entry`; and wx queues what such a thread logs until the
// main thread is idle, so the thread gets a log target of its own.

#include "vex/core/runnable.h"

#include "vex/core/log.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/text.h"
#include "vex_core/base/thread_name.h"
#include "vex_core/base/wait.h"
#include "vex_core/crash/signal_stack.h"
#include "vex_core/os/signals.h"
#include "vex_core/threads/ending.h"
#include "vex_core/threads/thread_registry.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <memory>
#include <mutex>

namespace VexCore {

const int CRunnable::SigThreadDelete = SIGRTMIN + 4;

namespace {
thread_local CRunnable* t_current = nullptr;

// The system would take the limit of the main thread's stack, which may be small: the calls that Lua allows itself to
// nest need 1.8 MiB. What is not used takes no memory.
constexpr unsigned defaultStackBytes = 8u << 20;

} // namespace

struct CRunnable::Impl
{
    enum class State { New, Running, Ended };
    enum class JoinResult { NotYet, Running, Done };

    CDom* dom = nullptr; // set before the thread starts
    std::unique_ptr<wxLog> logTarget; // the same; used by the thread alone
    WaitPoint waitPoint;
    std::atomic<std::int64_t> askedAtMs{0}; // when the thread was first asked to end, on the steady clock; 0: not yet

    std::mutex lock;
    std::condition_variable ended;
    State state = State::New; // guarded by lock
    JoinResult join = JoinResult::NotYet; // guarded by lock; whether the system's thread is gone
};

CRunnable::CRunnable(bool detached, int processor, bool critical)
    : wxThread(wxTHREAD_JOINABLE), m_impl(std::make_unique<Impl>())
{
    wxASSERT_MSG(!detached && processor == -1 && !critical, "reserved arguments");
    (void)detached;
    (void)processor;
    (void)critical;
}

CRunnable::~CRunnable()
{
    // A body that has returned still has a thread to give back.
    CRunnable::join(-1);
}

const char* CRunnable::GetThreadName() const
{
    return "CRunnable";
}

void CRunnable::SetDom(CDom* dom)
{
    m_impl->dom = dom;
}

CDom* CRunnable::GetDom() const
{
    return m_impl->dom;
}

CRunnable* CRunnable::Current()
{
    return t_current;
}

bool CRunnable::start(unsigned priority, bool takesPartInStop, unsigned stackBytes)
{
    std::unique_ptr<wxLog> logTarget;
    if (dynamic_cast<CLog2Disk*>(wxLog::GetActiveTarget()))
        logTarget = std::make_unique<CLog2Disk>();
    {
        const std::lock_guard lock(m_impl->lock);
        if (m_impl->state != Impl::State::New)
            return false;
        m_impl->state = Impl::State::Running;
        m_impl->logTarget = std::move(logTarget);
    }
    GuardDestructors();
    RegisterThread(*this, takesPartInStop);
    bool started = false;
    {
        const wxLogNull quiet; // one error line, and it is ours
        if (priority != wxPRIORITY_DEFAULT)
            SetPriority(priority);
        started =
            Create(stackBytes != 0 ? stackBytes : defaultStackBytes) == wxTHREAD_NO_ERROR && Run() == wxTHREAD_NO_ERROR;
    }
    if (started)
        return true;

    UnregisterThread(*this);
    {
        const std::lock_guard lock(m_impl->lock);
        m_impl->state = Impl::State::Ended;
        m_impl->join = Impl::JoinResult::Done;
    }
    wxLogError("Thread \"%s\" could not be started: the system has no room for one more.",
               FromForeignBytes(GetThreadName()));
    return false;
}

namespace {
void LogEscapedException(const char* name)
{
    const wxString threadName = FromForeignBytes(name);
    try {
        throw;
    } catch (const std::exception& e) {
        wxLogError("Thread \"%s\" ended by an exception: %s", threadName, FromForeignBytes(e.what()));
    } catch (...) {
        wxLogError("Thread \"%s\" ended by an exception of unknown type.", threadName);
    }
}

} // namespace

void* CRunnable::Entry()
{
    const ThreadNameScope name(GetThreadName());
    const SignalStackScope crash;
    const WaitPoint::Binding wait(m_impl->waitPoint);
    t_current = this;
    if (m_impl->logTarget)
        wxLog::SetThreadActiveTarget(m_impl->logTarget.get());
    try {
        OnRun();
    } catch (...) {
        LogEscapedException(GetThreadName());
    }
    if (m_impl->logTarget)
        wxLog::SetThreadActiveTarget(nullptr);
    t_current = nullptr;
    return nullptr;
}

void CRunnable::OnExit()
{
    UnregisterThread(*this);
    // Last, and under the lock: who waits may destroy the object once it has joined the system's thread, behind which
    // nothing of a derived class's OnExit runs either.
    const std::lock_guard lock(m_impl->lock);
    m_impl->state = Impl::State::Ended;
    m_impl->ended.notify_all();
}

void CRunnable::requestExit()
{
    std::int64_t notYet = 0;
    m_impl->askedAtMs.compare_exchange_strong(notYet, SteadyMs());
    m_impl->waitPoint.RequestExit();
}

bool CRunnable::join(long timeoutMs)
{
    Impl& impl = *m_impl;
    std::unique_lock lock(impl.lock);
    const auto hasEnded = [&] { return impl.state != Impl::State::Running; };
    if (timeoutMs < 0)
        impl.ended.wait(lock, hasEnded);
    else if (!impl.ended.wait_for(lock, std::chrono::milliseconds(timeoutMs), hasEnded))
        return false;
    if (impl.state == Impl::State::New)
        return true;

    // One thread joins; the others wait for it. No lock is held meanwhile: wx takes one of its own on the
    // main thread.
    if (impl.join == Impl::JoinResult::NotYet) {
        impl.join = Impl::JoinResult::Running;
        lock.unlock();
        wxThread::Wait();
        lock.lock();
        impl.join = Impl::JoinResult::Done;
        impl.ended.notify_all();
    }
    impl.ended.wait(lock, [&] { return impl.join == Impl::JoinResult::Done; });
    return true;
}

wxThreadError CRunnable::Delete()
{
    if (!Running())
        return wxTHREAD_NOT_RUNNING;
    requestExit();
    join(-1);
    return wxTHREAD_NO_ERROR;
}

void CRunnable::Awaken()
{
    m_impl->waitPoint.Awaken();
}

void CRunnable::interrupt()
{
    const std::lock_guard lock(m_impl->lock);
    // Under the lock the thread cannot be joined, so that its id stays its own.
    if (m_impl->state == Impl::State::Running)
        os::SignalThread(GetId(), SigThreadDelete);
}

bool CRunnable::TestDestroy()
{
    return m_impl->waitPoint.ExitRequested();
}

bool CRunnable::Running() const
{
    const std::lock_guard lock(m_impl->lock);
    return m_impl->state == Impl::State::Running;
}

std::int64_t RunnableAccess::AskedForMs(const CRunnable& runnable)
{
    const std::int64_t askedAtMs = runnable.m_impl->askedAtMs;
    return askedAtMs != 0 ? SteadyMs() - askedAtMs : 0;
}

} // namespace VexCore
