#pragma once
// The registry of threads that the core library's shutdown ends.

namespace VexCore {

/// Asks every thread that takes part in the process's stop to end and waits until all have, at most `timeoutMs`
/// milliseconds; a thread that was asked before has had a part of its time. One warning in the log names each that did not; those are left running, detached from everything
/// that goes away. New workers are refused from here on. The thread that ends the process.
void StopAllWorkers(long timeoutMs);

/// Workers may be started again: for a host that sets the core library up anew after its shutdown.
void ReopenWorkers();

} // namespace VexCore
