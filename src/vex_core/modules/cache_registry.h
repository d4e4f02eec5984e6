#pragma once
// The compiled-chunk caches of a process: one object a file, few files open, and a time at which what waits is written.

#include "vex_core/base/steady_ms.h"
#include "vex_core/modules/chunk_cache.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

namespace VexCore {

/// Any thread.
class CacheRegistry
{
public:
    /// Milliseconds since some time in the past.
    using Clock = std::int64_t (*)();

    /// Never destroyed: the exit handler and late interpreters use it.
    static CacheRegistry& Process();

    /// The cache of that key in `folder` ("…/cache"), one object in a process.
    std::shared_ptr<ChunkCache> Get(const std::string& folder, const std::string& key);
    /// Writes what waits in any of them.
    void Flush();
    /// The same when nothing has come for two seconds: a start that is still at it does not wait for the writing.
    void FlushOld();
    /// Closes the files of the caches that nobody holds any more.
    void ForgetUnused();
    /// How many there are, held or not.
    std::size_t Count();
    /// For tests, which do not wait for seconds to pass. Returns the clock before.
    Clock SetClock(Clock clock) { return m_clock.exchange(clock); }

    /// Writes what waits when the process exits: hosts end by `exit` without closing their interpreter. Does nothing in
    /// a child that was forked: locks may be held there by threads that it does not have.
    static void FlushAtExit();

    /// Called by a cache for all that comes to wait in it, at the latest until this process exits.
    void NoteWaiting();
    /// Called by a cache that has opened its file. When many are open, the one that has been longest is closed. Null is
    /// one that nobody shares; it is not counted.
    void NoteOpened(const std::shared_ptr<ChunkCache>& cache);

private:
    std::vector<std::shared_ptr<ChunkCache>> All();

    std::atomic<Clock> m_clock{SteadyMs};
    std::atomic<std::int64_t> m_lastCameMs{0}; // by m_clock; 0: nothing waits
    std::atomic<pid_t> m_waitingIn{0}; // the process that something waits in
    std::mutex m_lock; // guards what follows
    std::deque<std::weak_ptr<ChunkCache>> m_open; // the longest open first
    std::unordered_map<std::string, std::shared_ptr<ChunkCache>> m_caches; // by path of the file
};

} // namespace VexCore
