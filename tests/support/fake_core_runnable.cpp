// Threads: a real one, a body that runs inside `start`, or none to be had, as the answers say.

#include "support/fake_core.h"

#include "vex/core/log.h"
#include "vex/core/runnable.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <thread>

using FakeCore::Answers;
using FakeCore::Record;
using FakeCore::ThreadKind;
using FakeCore::Word;

namespace VexCore {

namespace {
thread_local CRunnable* t_current = nullptr;
} // namespace

#ifdef SIGRTMIN
const int CRunnable::SigThreadDelete = SIGRTMIN + 4;
#endif

struct CRunnable::Impl
{
    CDom* dom = nullptr;
    std::thread thread;
    std::mutex lock;
    std::condition_variable changed;
    bool started = false; // guarded by lock, as is the next
    bool running = false;
    std::atomic<bool> exitRequested{false};
};

CRunnable::CRunnable(bool detached, int processor, bool critical) : wxThread(wxTHREAD_JOINABLE), m_impl(new Impl)
{
    Record(std::string("Runnable(") + Word(detached) + ", " + std::to_string(processor) + ", " + Word(critical) + ")");
}

CRunnable::~CRunnable()
{
    if (m_impl->thread.joinable())
        m_impl->thread.join();
    Record("~Runnable()");
}

const char* CRunnable::GetThreadName() const
{
    return "CRunnable";
}

void CRunnable::SetDom(CDom* dom)
{
    Record(std::string("Runnable.SetDom(") + (dom ? "dom" : "null") + ")");
    m_impl->dom = dom;
}

CDom* CRunnable::GetDom() const
{
    return m_impl->dom;
}

bool CRunnable::start(unsigned priority, bool takesPartInStop, unsigned stackBytes)
{
    Record("Runnable.start(" + std::to_string(priority) + ", " + Word(takesPartInStop) + ", "
           + std::to_string(stackBytes) + ") " + GetThreadName());
    if (Answers().threads == ThreadKind::CannotStart)
        return false;
    {
        const std::lock_guard lock(m_impl->lock);
        if (m_impl->started)
            return false;
        m_impl->started = m_impl->running = true;
    }
    if (Answers().threads == ThreadKind::Synchronous)
        Entry();
    else
        m_impl->thread = std::thread([this] { Entry(); });
    return true;
}

void CRunnable::requestExit()
{
    Record("Runnable.requestExit()");
    m_impl->exitRequested = true;
}

bool CRunnable::join(long timeoutMs)
{
    Record("Runnable.join(" + (timeoutMs < 0 ? "" : std::to_string(timeoutMs)) + ")");
    {
        std::unique_lock guard(m_impl->lock);
        const auto ended = [this] { return !m_impl->running; };
        if (timeoutMs < 0 || Answers().joinTimesOut) // whose test has no such thread: it goes on and destroys this one
            m_impl->changed.wait(guard, ended);
        else if (!m_impl->changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), ended))
            return false;
    }
    if (m_impl->thread.joinable())
        m_impl->thread.join();
    return timeoutMs < 0 || !Answers().joinTimesOut;
}

wxThreadError CRunnable::Delete()
{
    requestExit();
    join();
    return wxTHREAD_NO_ERROR;
}

void CRunnable::Awaken()
{
    Record("Runnable.Awaken()");
}

void CRunnable::interrupt()
{
    Record("Runnable.interrupt()");
}

bool CRunnable::TestDestroy()
{
    return m_impl->exitRequested;
}

bool CRunnable::Running() const
{
    const std::lock_guard lock(m_impl->lock);
    return m_impl->running;
}

CRunnable* CRunnable::Current()
{
    return t_current;
}

void* CRunnable::Entry()
{
    CRunnable* const previous = t_current;
    t_current = this;
    CLog2Disk target;
    wxLog* const previousTarget = wxThread::IsMain() ? nullptr : wxLog::SetThreadActiveTarget(&target);
    try {
        OnRun();
    } catch (const std::exception& exception) {
        Record(std::string("Runnable.Exception(") + FakeCore::Quote(exception.what()) + ")");
    } catch (...) {
        Record("Runnable.Exception()");
    }
    if (!wxThread::IsMain())
        wxLog::SetThreadActiveTarget(previousTarget);
    t_current = previous;
    const std::lock_guard lock(m_impl->lock);
    m_impl->running = false;
    m_impl->changed.notify_all();
    return nullptr;
}

void CRunnable::OnExit() {}

} // namespace VexCore
