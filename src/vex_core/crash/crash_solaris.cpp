// No dump is written here: the system's own core file, which coreadm(1M) names and places, has all that one
// would hold. The crash is still reported in the log, and ends the process as it would have.

#include "vex_core/crash/crash_system.h"
#include "vex_core/crash/other_threads.h"

#include <cerrno>

#include <thread.h>
#include <ucontext.h>
#include <unistd.h>

namespace VexCore {
namespace {
void SetDefault(int signal)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

} // namespace

void PrepareCrashDump() {}

int WriteCrashDump(const CrashDumpTarget&, const CrashSite&)
{
    return ENOSYS;
}

void KeepEarlierDump(const char*) {}

long CurrentThreadNumber()
{
    return static_cast<long>(thr_self());
}

bool IsOnMainThread(const CrashSite& site)
{
    return site.thread == 1; // threads count from there in each process
}

void EndBySignalOnReturn(const CrashSite& site)
{
    SetDefault(site.signal);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, site.signal);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    sigdelset(&static_cast<ucontext_t*>(site.context)->uc_sigmask, site.signal);
    thr_kill(thr_self(), site.signal);
}

void EndBySignalNow(int signal)
{
    SetDefault(signal);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    thr_kill(thr_self(), signal);
    _exit(128 + signal);
}

void AnswerAndStay(const void*)
{
    for (;;)
        pause();
}

const char* CrashErrorText(int)
{
    return "";
}

} // namespace VexCore
