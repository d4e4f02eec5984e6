#include "vex_core/os/signals.h"

namespace VexCore::os {

void Disposition(int signal, struct sigaction& action)
{
    ::sigaction(signal, nullptr, &action);
}

void SetDisposition(int signal, const struct sigaction& action)
{
    ::sigaction(signal, &action, nullptr);
}

void SetDefaultDisposition(int signal)
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    SetDisposition(signal, standard);
}

void SignalThread(pthread_t thread, int signal)
{
    // The one failure is a thread that ended meanwhile, and then nothing is left to interrupt.
    ::pthread_kill(thread, signal);
}

} // namespace VexCore::os
