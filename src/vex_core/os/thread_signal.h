#pragma once
// A signal for one thread of ours.

#include <pthread.h>

namespace VexCore {

/// Sends `signal` to a thread of this process that has not been joined yet.
void SignalThread(pthread_t thread, int signal);

} // namespace VexCore
