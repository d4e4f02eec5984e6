#pragma once
// The lock of what many threads read all the time and few write, such as the domain and its observers.

#include <atomic>
#include <mutex>
#include <shared_mutex>

namespace VexCore {

/// A lock for many readers and one writer. The system's own prefers readers: threads that read all the time would keep
/// a writer out for ever. Here a waiting writer closes a gate that later readers queue at.
class FairSharedLock
{
public:
    void lock()
    {
        m_gate.lock();
        m_gateClosed.store(true, std::memory_order_relaxed);
        m_lock.lock();
    }
    void unlock()
    {
        m_lock.unlock();
        m_gateClosed.store(false, std::memory_order_relaxed);
        m_gate.unlock();
    }
    void lock_shared()
    {
        // The flag is only a hint that keeps readers off the gate's mutex while nobody writes.
        if (m_gateClosed.load(std::memory_order_relaxed))
            const std::lock_guard queue(m_gate);
        m_lock.lock_shared();
    }
    void unlock_shared() { m_lock.unlock_shared(); }

private:
    std::mutex m_gate;
    std::atomic<bool> m_gateClosed{false};
    std::shared_mutex m_lock;
};

} // namespace VexCore
