// The main thread is brought to a place where it holds nothing and stays: an event that it handles in its loop (or,
// when it is already on its way out, the wait for other threads to end). A signal could stop it anywhere, with the
// heap's or the log's lock in its hands.

#include "vex_core/threads/main_thread_park.h"

#include "vex_core/threads/thread_registry.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <wx/app.h>
#include <wx/log.h>
#include <wx/thread.h>

namespace VexCore {

namespace {
constexpr std::chrono::seconds parkLimit{5};

// Never destroyed: the parked thread waits on it to the very end.
struct ParkState
{
    std::mutex lock;
    std::condition_variable changed;
    bool isEnding = false; // guarded by lock
    bool mainIsParked = false; // guarded by lock

    static ParkState& Get()
    {
        static ParkState* s_state = new ParkState;
        return *s_state;
    }
};

[[noreturn]] void HaltForever(std::unique_lock<std::mutex>& lock)
{
    for (;;)
        ParkState::Get().changed.wait(lock);
}

[[noreturn]] void ParkHere()
{
    wxLog::FlushActive(); // lines that other threads left for the main thread's idle moments
    ParkState& state = ParkState::Get();
    std::unique_lock lock(state.lock);
    state.mainIsParked = true;
    state.changed.notify_all();
    HaltForever(lock);
}

} // namespace

void BecomeEndingThread()
{
    ParkState& state = ParkState::Get();
    std::unique_lock lock(state.lock);
    if (state.isEnding)
        HaltForever(lock);
    state.isEnding = true;
}

bool ParkMainThread()
{
    if (wxThread::IsMain())
        return true;
    if (!wxTheApp)
        return false;
    wxTheApp->CallAfter(&ParkHere);
    WakeEndRegisteredThreads();
    ParkState& state = ParkState::Get();
    std::unique_lock lock(state.lock);
    return state.changed.wait_for(lock, parkLimit, [&] { return state.mainIsParked; });
}

void ParkPoint(std::unique_lock<std::mutex>& held)
{
    if (!wxThread::IsMain())
        return;
    {
        ParkState& state = ParkState::Get();
        const std::lock_guard lock(state.lock);
        if (!state.isEnding)
            return;
    }
    held.unlock();
    ParkHere();
}

} // namespace VexCore
