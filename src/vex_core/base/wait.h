#pragma once
// Where a thread waits. Every wait of ours (CDom::Wait, a worker's Join) goes through the one wait point of its
// thread, so that whoever has a reason to wake the thread, be it a domain write, a request to end or Awaken, has one
// place to go to. Nothing here polls: a sleeping thread makes no system call until it is woken or its time is over.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace VexCore {

/// The wait point of one thread. A CRunnable owns the one of its thread and binds it while its body runs; any
/// other thread has one of its own that lives as long as the thread. Only the thread itself sleeps; the other
/// members are for any thread.
class WaitPoint
{
public:
    enum class Outcome {
        Notified, ///< `Notify` was called
        TimedOut, ///< the time is over, or `Awaken` was called
        Ending, ///< `RequestExit` was called, now or ever before
    };

    WaitPoint() = default;
    WaitPoint(const WaitPoint&) = delete;
    WaitPoint& operator=(const WaitPoint&) = delete;

    /// The wait point of the calling thread.
    static WaitPoint& OfThisThread();

    /// Sleeps at most `timeoutMs` (negative: no limit).
    /// A request to end wins over all else, a notification over an Awaken.
    Outcome Sleep(std::int64_t timeoutMs);

    /// Forgets a notification that nobody waits for any more. The thread itself, before it subscribes anew.
    void Clear();

    /// What the thread subscribed to has happened.
    void Notify();
    /// The same where the caller sees to it that the point outlives the call: the woken thread finds no lock taken.
    void NotifyWhileItLives();
    /// Ends the running sleep or, when none runs, the next one.
    void Awaken();
    /// Ends the running sleep and every later one at once; cannot be taken back.
    void RequestExit();
    /// Who else is told of each `RequestExit`, on the thread that calls it: the point's thread may wait for something
    /// else than this. A few for the process, added by static initialisers. The point may be gone: it is for comparing.
    using ExitObserver = void (*)(const WaitPoint* point);
    static void AddExitObserver(ExitObserver observer);

    /// Cheap: one atomic load.
    bool ExitRequested() const { return m_ending.load(std::memory_order_acquire); }

    /// Makes a wait point the calling thread's own for the scope's life. Scopes may nest.
    class Binding
    {
    public:
        explicit Binding(WaitPoint& point);
        ~Binding();
        Binding(const Binding&) = delete;
        Binding& operator=(const Binding&) = delete;

    private:
        WaitPoint* m_before;
    };

private:
    std::mutex m_lock;
    std::condition_variable m_wake;
    bool m_notified = false; // guarded by m_lock
    bool m_awakened = false; // guarded by m_lock
    std::atomic<bool> m_ending{false}; // written under m_lock
};

} // namespace VexCore
