#pragma once
// The threads that take part in the process's stop.

#include <string>
#include <vector>

namespace VexCore {

class CRunnable;

/// Asks every registered thread but the calling one to end, and waits until their bodies have returned, for each at most
/// `timeoutMs` milliseconds from when it was first asked, here or before. Answers the names of those that still run. Any thread.
std::vector<std::string> EndRegisteredThreads(long timeoutMs);

/// Whether a body of any CRunnable runs, the calling thread's own excepted. Any thread.
bool OtherRunnablesRun();

} // namespace VexCore
