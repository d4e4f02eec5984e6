// Every worker is held here from its start on, so that the thread of one whose Lua object is long collected is joined
// too. How threads are asked to end: thread_registry.h.

#include "vex_core/lua/worker_list.h"

#include "vex_core/base/end_steps.h"
#include "vex_core/base/text.h"
#include "vex_core/lua/worker.h"
#include "vex_core/threads/ending.h"
#include "vex_core/threads/thread_registry.h"

#include <algorithm>
#include <iterator>
#include <utility>

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
    const std::lock_guard lock(m_lock);
    if (m_closed) {
        wxLogError("Worker \"%s\" is not started: the process is ending.", TextWithoutNul(worker->Module()));
        return false;
    }
    // In the list first, so that a failure to grow it cannot leave a thread that nobody joins.
    m_running.push_back(worker);
    if (worker->start(wxPRIORITY_DEFAULT, true, 0))
        return true;
    m_running.pop_back();
    return false;
}

void WorkerList::SetClosed(bool closed)
{
    const std::lock_guard lock(m_lock);
    m_closed = closed;
}

void WorkerList::NoteEnd(const Worker& worker)
{
    std::shared_ptr<Worker> before;
    {
        const std::lock_guard lock(m_lock);
        const auto place = std::find_if(m_running.begin(), m_running.end(),
                                        [&](const std::shared_ptr<Worker>& one) { return one.get() == &worker; });
        if (place == m_running.end())
            return; // whoever ends the process has taken it already
        before = std::exchange(m_lastEnded, std::move(*place));
        m_running.erase(place);
    }
    if (before)
        before->join(-1);
}

void WorkerList::Join(bool all)
{
    Workers taken;
    {
        const std::lock_guard lock(m_lock);
        if (all)
            taken = TakeAllButThisThread();
        if (m_lastEnded)
            taken.push_back(std::move(m_lastEnded));
    }
    for (const std::shared_ptr<Worker>& worker : taken)
        worker->join(-1);
}

WorkerList::Workers WorkerList::TakeAllButThisThread()
{
    const auto isThisThread = [](const std::shared_ptr<Worker>& worker) {
        return worker.get() == CRunnable::Current();
    };
    const auto middle = std::stable_partition(m_running.begin(), m_running.end(), isThisThread);
    Workers taken(std::make_move_iterator(middle), std::make_move_iterator(m_running.end()));
    m_running.erase(middle, m_running.end());
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
        LeaveThreadsBehind();
}

void ReopenWorkers()
{
    WorkerList::OfProcess().SetClosed(false);
}

} // namespace VexCore
