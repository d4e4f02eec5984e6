#pragma once
// The workers of the process that nobody has joined yet, and their end with the process.

#include <memory>
#include <mutex>
#include <vector>

namespace VexCore {

class Worker;

/// Holds a worker until it has ended, whatever becomes of the Lua object that stands for it. Any thread.
class WorkerList
{
public:
    /// Never destroyed: a straggler may outlive everything else.
    static WorkerList& OfProcess();

    /// Starts a worker and keeps it. False, after an error line in the log, when there is no thread to be
    /// had or the list is closed.
    bool Start(const std::shared_ptr<Worker>& worker);

    /// Closed: new workers are refused.
    void SetClosed(bool closed);

    /// The last act of a worker, on its own thread: joins the one that ended before it. So a thread that has ended is
    /// given back at once, whoever holds its Lua object, and no more than one waits for the next.
    void NoteEnd(const Worker& worker);

    /// Joins the worker that ended last; with `all`, every one but the calling thread's own: one that has announced
    /// its end has still some steps to go, and would meet the destructors of the process if nobody joined it.
    void Join(bool all);

private:
    using Workers = std::vector<std::shared_ptr<Worker>>;
    Workers TakeAllButThisThread();

    std::mutex m_lock;
    bool m_closed = false; // guarded by m_lock; the process is ending
    Workers m_running; // guarded by m_lock
    std::shared_ptr<Worker> m_lastEnded; // guarded by m_lock; not joined yet
};

/// Asks every thread that takes part in the process's stop to end and waits until all have, at most `timeoutMs`
/// milliseconds; a thread that was asked before has had a part of its time. False: some have not; a warning in the log
/// names each, and they are left running, detached from everything that goes away. New workers are refused from here
/// on. The thread that ends the process.
bool StopAllWorkers(long timeoutMs);

/// The end step of that name: `StopAllWorkers`. Where a thread could not be ended in time, `exit` leaves ahead of the
/// destructors from now on.
void EndThreads(long timeoutMs);

/// Workers may be started again: for a host that sets the core library up anew after its shutdown.
void ReopenWorkers();

} // namespace VexCore
