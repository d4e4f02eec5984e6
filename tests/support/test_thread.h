#pragma once
// Threads of the library with a body of the test's own: one that ends with its object, and one that outlives everything
// but the process.

#include "vex/core/runnable.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <utility>

#include <wx/app.h>
#include <wx/evtloop.h>

namespace Test {

/// Asks its thread to end, lets it go and joins it when it goes itself, so that no failed assertion leaves a thread
/// behind or waits for one that waits for the test.
class TestThread : public VexCore::CRunnable
{
public:
    explicit TestThread(std::function<void(TestThread&)> body) : CRunnable(false, -1, false), m_body(std::move(body)) {}
    ~TestThread() override
    {
        requestExit();
        LetGo();
        join();
    }
    const char* GetThreadName() const override { return "TestThread"; }

    /// On the thread: waits until the test lets it go.
    void Hold()
    {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [this] { return m_mayGo; });
    }
    void LetGo()
    {
        const std::lock_guard lock(m_lock);
        m_mayGo = true;
        m_changed.notify_all();
    }

protected:
    void OnRun() override { m_body(*this); }

private:
    const std::function<void(TestThread&)> m_body;
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_mayGo = false; // guarded by m_lock
};

/// Starts a thread that is never destroyed: the process ends while it runs.
inline void Launch(std::function<void()> body)
{
    auto* const thread = new TestThread([body = std::move(body)](TestThread&) { body(); });
    thread->start(50, true, 0);
}

/// The main thread of a process that another thread is to end.
[[noreturn]] inline void ServeLoop()
{
    wxEventLoop loop;
    const wxEventLoopActivator activator(&loop);
    loop.Run();
    std::fputs("main came back", stderr);
    std::_Exit(99);
}

} // namespace Test
