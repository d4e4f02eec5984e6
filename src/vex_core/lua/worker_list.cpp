// Every worker is held here from its start on, so that the thread of one whose Lua object is long collected is joined
// too. How threads are asked to end: thread_registry.h.

#include "vex_core/lua/worker_list.h"

#include "vex_core/base/end_steps.h"
#include "vex_core/base/text.h"
#include "vex_core/lua/worker.h"
#include "vex_core/os/exit.h"
#include "vex_core/threads/ending.h"
#include "vex_core/threads/thread_registry.h"

#include <algorithm>
#include <iterator>

#include <wx/log.h>

namespace VexCore {

namespace {
constexpr long threadsEndMs = 10000;

const EndStepOwner endThreads(EndStep::EndThreads, [] { EndThreads(threadsEndMs); });

} // namespace

WorkerList& WorkerList::OfProcess()
{
    static WorkerList& s_list = *new WorkerList;
    return s_list;
}

bool WorkerList::Start(const std::shared_ptr<Worker>& worker)
{
    Workers ended; // let go of after the lock: the last holder joins the thread
    const std::lock_guard lock(m_lock);
    ended = TakeEnded();
    if (m_closed) {
        wxLogError("Worker \"%s\" is not started: the process is ending.", TextWithoutNul(worker->Module()));
        return false;
    }
    // In the list first, so that a failure to grow it cannot leave a thread that nobody joins.
    m_workers.push_back(worker);
    if (worker->start(wxPRIORITY_DEFAULT, true, 0))
        return true;
    m_workers.pop_back();
    return false;
}

void WorkerList::SetClosed(bool closed)
{
    const std::lock_guard lock(m_lock);
    m_closed = closed;
}

void WorkerList::Join(bool all)
{
    Workers taken;
    {
        const std::lock_guard lock(m_lock);
        taken = all ? TakeAllButThisThread() : TakeEnded();
    }
    for (const std::shared_ptr<Worker>& worker : taken)
        worker->join(-1);
}

// Takes those out that have ended, for the caller to let go of without the lock.
WorkerList::Workers WorkerList::TakeEnded()
{
    const auto runs = [](const std::shared_ptr<Worker>& worker) { return worker->Running(); };
    const auto middle = std::stable_partition(m_workers.begin(), m_workers.end(), runs);
    Workers ended(std::make_move_iterator(middle), std::make_move_iterator(m_workers.end()));
    m_workers.erase(middle, m_workers.end());
    return ended;
}

WorkerList::Workers WorkerList::TakeAllButThisThread()
{
    const auto isThisThread = [](const std::shared_ptr<Worker>& worker) {
        return worker.get() == CRunnable::Current();
    };
    const auto middle = std::stable_partition(m_workers.begin(), m_workers.end(), isThisThread);
    Workers taken(std::make_move_iterator(middle), std::make_move_iterator(m_workers.end()));
    m_workers.erase(middle, m_workers.end());
    return taken;
}

bool StopAllWorkers(long timeoutMs)
{
    WorkerList& list = WorkerList::OfProcess();
    list.SetClosed(true);
    const std::vector<std::string> stragglers = EndRegisteredThreads(timeoutMs);
    list.Join(stragglers.empty());
    for (const std::string& name : stragglers)
        wxLogWarning("Thread \"%s\" has not ended within %ld seconds and is left behind.", FromForeignBytes(name),
                     timeoutMs / 1000);
    return stragglers.empty();
}

void EndThreads(long timeoutMs)
{
    if (!StopAllWorkers(timeoutMs))
        os::AtExitWithStatus(&LeaveWithoutDestructors);
}

void ReopenWorkers()
{
    WorkerList::OfProcess().SetClosed(false);
}

} // namespace VexCore
