#pragma once
// Where the main thread is halted while another thread ends the process.

#include <mutex>

namespace VexCore {

/// Makes the calling thread the one that ends the process. Every later caller halts here for ever.
void BecomeEndingThread();

/// Brings the main thread out of the way of static destructors; on the main thread itself nothing is to be done.
/// False: it did not come to a park point within five seconds, or there is no application whose loop would take it
/// there. The ending thread.
bool ParkMainThread();

/// Halts the calling thread for ever, after it let go of `held`, when it is the main thread and another thread is
/// ending the process. Otherwise does nothing. Called where the main thread waits for other threads.
void ParkPoint(std::unique_lock<std::mutex>& held);

} // namespace VexCore
