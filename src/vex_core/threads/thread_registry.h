#pragma once
// Every body of a CRunnable that runs, and the end of those that take part in the process's stop. Any thread.

#include <cstdint>
#include <string>
#include <vector>

namespace VexCore {

class CRunnable;

/// Before the thread starts.
void RegisterThread(CRunnable& thread, bool takesPartInStop);
/// When its body has returned, or did not start.
void UnregisterThread(CRunnable& thread);

/// Asks every registered thread that takes part in the process's stop to end, but not the calling one, and waits until
/// their bodies have returned, for each at most `timeoutMs` milliseconds from when it was first asked, here or before.
/// Answers the names of those that still run.
std::vector<std::string> EndRegisteredThreads(long timeoutMs);

/// Makes a main thread that waits in `EndRegisteredThreads` look at its park point.
void WakeEndRegisteredThreads();

/// Whether a body of any CRunnable runs, the calling thread's own excepted.
bool OtherRunnablesRun();

/// What a CRunnable keeps of itself for this registry.
struct RunnableAccess
{
    /// Milliseconds since the thread was first asked to end; 0: it was not yet.
    static std::int64_t AskedForMs(const CRunnable& runnable);
};

} // namespace VexCore
