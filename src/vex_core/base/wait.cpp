#include "vex_core/base/wait.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <chrono>

namespace VexCore {

namespace {
thread_local WaitPoint* t_bound = nullptr;
std::array<WaitPoint::ExitObserver, 4> g_exitObservers{}; // constant once main runs

// A century: what lies beyond is "no limit", and adding it to the clock does not overflow.
constexpr std::int64_t maxTimeoutMs = static_cast<std::int64_t>(100) * 365 * 24 * 3600 * 1000;

} // namespace

WaitPoint& WaitPoint::OfThisThread()
{
    if (t_bound)
        return *t_bound;
    thread_local WaitPoint t_own;
    return t_own;
}

WaitPoint::Outcome WaitPoint::Sleep(std::int64_t timeoutMs)
{
    std::unique_lock lock(m_lock);
    const auto woken = [this] { return m_notified || m_awakened || m_ending.load(std::memory_order_relaxed); };
    if (timeoutMs < 0 || timeoutMs > maxTimeoutMs)
        m_wake.wait(lock, woken);
    else
        m_wake.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs), woken);

    if (m_ending.load(std::memory_order_relaxed))
        return Outcome::Ending;
    if (m_notified) {
        m_notified = false;
        return Outcome::Notified;
    }
    m_awakened = false;
    return Outcome::TimedOut;
}

void WaitPoint::Clear()
{
    const std::lock_guard lock(m_lock);
    m_notified = false;
}

// The wakers notify under the lock: once the sleeper runs on, it may destroy the wait point.
void WaitPoint::Notify()
{
    const std::lock_guard lock(m_lock);
    m_notified = true;
    m_wake.notify_one();
}

void WaitPoint::NotifyWhileItLives()
{
    {
        const std::lock_guard lock(m_lock);
        m_notified = true;
    }
    m_wake.notify_one();
}

void WaitPoint::Awaken()
{
    const std::lock_guard lock(m_lock);
    m_awakened = true;
    m_wake.notify_one();
}

void WaitPoint::RequestExit()
{
    {
        const std::lock_guard lock(m_lock);
        m_ending.store(true, std::memory_order_release);
        m_wake.notify_one();
    }
    for (const ExitObserver observer : g_exitObservers)
        if (observer)
            observer(this);
}

void WaitPoint::AddExitObserver(ExitObserver observer)
{
    const auto place = std::find(g_exitObservers.begin(), g_exitObservers.end(), nullptr);
    assert(place != g_exitObservers.end());
    *place = observer;
}

WaitPoint::Binding::Binding(WaitPoint& point) : m_before(t_bound)
{
    t_bound = &point;
}

WaitPoint::Binding::~Binding()
{
    t_bound = m_before;
}

} // namespace VexCore
