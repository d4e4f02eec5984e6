#include "vex_core/threads/thread_registry.h"

#include "vex/core/runnable.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/threads/main_thread_park.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

namespace VexCore {

namespace {
// Never destroyed: a straggler may end while the process is already in its static destructors.
struct Registry
{
    std::mutex lock;
    std::condition_variable changed;
    std::set<CRunnable*> running; // guarded by lock
    std::set<CRunnable*> stoppable; // guarded by lock; those of `running` that take part in the process's stop

    static Registry& Get()
    {
        static Registry* s_registry = new Registry;
        return *s_registry;
    }
};

} // namespace

void RegisterThread(CRunnable& thread, bool takesPartInStop)
{
    Registry& registry = Registry::Get();
    const std::lock_guard lock(registry.lock);
    registry.running.insert(&thread);
    if (takesPartInStop)
        registry.stoppable.insert(&thread);
}

void UnregisterThread(CRunnable& thread)
{
    Registry& registry = Registry::Get();
    const std::lock_guard lock(registry.lock);
    registry.running.erase(&thread);
    registry.stoppable.erase(&thread);
    registry.changed.notify_all();
}

std::vector<std::string> EndRegisteredThreads(long timeoutMs)
{
    Registry& registry = Registry::Get();
    CRunnable* const self = CRunnable::Current();
    const std::int64_t deadlineMs = SteadyMs() + timeoutMs;
    // How long somebody still has: who was asked by a script before, and waited for, does not get
    // all of it a second time.
    const auto leftMs = [&] {
        std::int64_t left = 0;
        for (const CRunnable* runnable : registry.stoppable)
            if (runnable != self)
                left = std::max(left, timeoutMs - RunnableAccess::AskedForMs(*runnable));
        return std::min(left, deadlineMs - SteadyMs());
    };

    std::unique_lock lock(registry.lock);
    // A thread that is asked may start others before it ends: all are asked again whenever one is gone.
    for (;;) {
        for (CRunnable* runnable : registry.stoppable) {
            if (runnable != self)
                runnable->requestExit();
        }
        ParkPoint(lock);
        const std::int64_t left = leftMs();
        if (left <= 0)
            break;
        registry.changed.wait_for(lock, std::chrono::milliseconds(left));
    }

    std::vector<std::string> stragglers;
    for (const CRunnable* runnable : registry.stoppable) {
        if (runnable != self)
            stragglers.emplace_back(runnable->GetThreadName());
    }
    return stragglers;
}

bool OtherRunnablesRun()
{
    Registry& registry = Registry::Get();
    const std::lock_guard lock(registry.lock);
    return registry.running.size() > registry.running.count(CRunnable::Current());
}

void WakeEndRegisteredThreads()
{
    Registry& registry = Registry::Get();
    const std::lock_guard lock(registry.lock);
    registry.changed.notify_all();
}

} // namespace VexCore
