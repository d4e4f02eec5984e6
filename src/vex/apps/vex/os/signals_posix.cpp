// Thin on purpose: which signals the application serves, and how, is decided in run.cpp.

#include "vex/apps/vex/os/signals.h"

#include "vex/apps/vex/os/error.h"

#include <pthread.h>
#include <unistd.h>

namespace VexOs {

void SetHandler(int signal, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

void BlockSignals(const sigset_t& signals)
{
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void UnblockSignals(const sigset_t& signals)
{
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

bool WaitForSignal(const sigset_t& signals, int& signal)
{
    const int error = ::sigwait(&signals, &signal);
    if (error != 0)
        SetLastError(error);
    return error == 0;
}

void SetAlarm(unsigned seconds)
{
    ::alarm(seconds);
}

void EndNow(int status)
{
    ::_exit(status);
}

} // namespace VexOs
