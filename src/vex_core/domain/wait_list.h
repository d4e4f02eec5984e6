#pragma once
// Threads that sleep until a key of the domain is written. What sleeping is, and that the end of the process ends it:
// base/wait.h.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

class WaitPoint;

/// Who waits for which keys of one tree.
///
/// A thread's first wait for a key subscribes the thread to it, and it stays subscribed (to the `maxScopes` that it
/// waited for last) until it ends: what other threads write between two waits for the same key ends the later one at
/// once. So a thread that handles a key's value and then waits for the key again misses nothing. Its own writes do not
/// count.
///
/// Any thread.
class WaitList : public std::enable_shared_from_this<WaitList>
{
public:
    enum class Result { Written, TimedOut, Ending };

    /// A thread is subscribed to its last so many scopes.
    static constexpr std::size_t maxScopes = 16;

    /// Sleeps until one of these scopes, at most `maxScopes`, or a key below one is written. An empty scope is every
    /// key. With `Written`, `which` is the index of one that was; the others that were are kept for the next wait.
    Result Wait(const std::vector<std::string>& scopes, std::int64_t timeoutMs, std::size_t& which);

    /// `key` was written or removed. One atomic load when nobody ever waited.
    void Written(std::string_view key);

private:
    struct Subscription
    {
        std::string scope; // constant
        const void* thread; // constant: identifies the subscriber
        WaitPoint* sleeper = nullptr; // set while the thread waits for this; guarded by m_lock
        bool written = false; // guarded by m_lock
    };
    class ThreadSubscriptions;

    void Remove(const Subscription* subscription);

    std::atomic<std::size_t> m_count{0}; // of m_subscriptions
    std::mutex m_lock; // taken before the one of a wait point
    std::vector<std::shared_ptr<Subscription>> m_subscriptions; // guarded by m_lock
};

/// Whether `key` is `scope` or lies below it in the tree; the empty scope covers all.
bool ScopeCovers(std::string_view scope, std::string_view key);

} // namespace VexCore
