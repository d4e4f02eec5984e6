// How a thread that is not the main one ends the process. `exit` runs static destructors, wx's among them, and the main thread is
// inside wx: in its event loop. So the main thread is first brought to a place where it holds nothing and stays: an event
// that it handles in its loop (or, when it is already on its way out, the wait for other threads to end). A signal
// could stop it anywhere, with the heap's or the log's lock in its hands.
// Where that does not work out, because there is no loop or other threads of ours still run, no destructor may run at all:
// then the process flushes what it has and leaves without them.

#include "vex/core/processexit.h"

#include "vex_core/events/agentevent_store.h"
#include "vex_core/log/log_p.h"
#include "vex_core/os/exit.h"
#include "vex_core/threads/processexit_p.h"
#include "vex_core/threads/runnable_p.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>

#include <wx/app.h>
#include <wx/log.h>
#include <wx/thread.h>

namespace VexCore {

namespace {
constexpr std::chrono::seconds parkLimit{5};

/// Never destroyed: the parked thread waits on it to the very end.
struct ExitState
{
    std::mutex lock;
    std::condition_variable changed;
    bool isEnding = false; // guarded by lock
    bool mainIsParked = false; // guarded by lock

    static ExitState& Get()
    {
        static ExitState* state = new ExitState;
        return *state;
    }
};

[[noreturn]] void HaltForever(std::unique_lock<std::mutex>& lock)
{
    for (;;)
        ExitState::Get().changed.wait(lock);
}

[[noreturn]] void ParkHere()
{
    wxLog::FlushActive(); // lines that other threads left for the main thread's idle moments
    ExitState& state = ExitState::Get();
    std::unique_lock lock(state.lock);
    state.mainIsParked = true;
    state.changed.notify_all();
    HaltForever(lock);
}

bool ParkMainThread()
{
    if (!wxTheApp)
        return false;
    wxTheApp->CallAfter(&ParkHere);
    WakeEndRegisteredThreads();
    ExitState& state = ExitState::Get();
    std::unique_lock lock(state.lock);
    return state.changed.wait_for(lock, parkLimit, [&] { return state.mainIsParked; });
}

/// Whoever holds a stream's lock may be blocked for good: its text is left behind then.
void FlushIfFree(std::FILE* stream)
{
    if (TryLockStream(stream)) {
        std::fflush(stream);
        UnlockStream(stream);
    }
}

/// For an end without a clean-up, as by `os.exit`; after one nothing is left to store.
void StoreKeptEvents()
{
    try {
        CloseEventStores();
    } catch (const std::exception& failure) {
        wxLogError("Agent events could not be stored at the end of the process: %s", failure.what());
    }
}

[[noreturn]] void LeaveWithoutDestructors(int status)
{
    FlushLogAtProcessEnd();
    FlushIfFree(stdout);
    FlushIfFree(stderr);
    EndProcessNow(status);
}

} // namespace

void ParkPoint(std::unique_lock<std::mutex>& held)
{
    if (!wxThread::IsMain())
        return;
    {
        ExitState& state = ExitState::Get();
        const std::lock_guard lock(state.lock);
        if (!state.isEnding)
            return;
    }
    held.unlock();
    ParkHere();
}

void SkipDestructorsAtExit()
{
    AtExitWithStatus(&LeaveWithoutDestructors);
}

void ExitProcessFromThread(int status)
{
    ExitState& state = ExitState::Get();
    {
        std::unique_lock lock(state.lock);
        if (state.isEnding)
            HaltForever(lock);
        state.isEnding = true;
    }
    StoreKeptEvents();
    wxLog::FlushActive();
    // Parked in any case: it may be writing down what it took from the framework's queue.
    const bool mainIsOutOfTheWay = wxThread::IsMain() || ParkMainThread();
    if (mainIsOutOfTheWay && !OtherRunnablesRun())
        std::exit(status);
    LeaveWithoutDestructors(status);
}

} // namespace VexCore
