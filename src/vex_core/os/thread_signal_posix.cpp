#include "vex_core/os/thread_signal.h"

#include <csignal>

void VexCore::SignalThread(pthread_t thread, int signal)
{
    // The one failure is a thread that ended meanwhile, and then nothing is left to interrupt.
    ::pthread_kill(thread, signal);
}
