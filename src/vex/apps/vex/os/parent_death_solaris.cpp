// There is no parent-death signal here. The supervisor keeps the writing end of a pipe and never writes; a thread of
// the child reads until the end of the pipe says that the supervisor is gone.

#include "vex/apps/vex/os/process.h"

#include "vex/core/sendsignal.h"

#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <wx/log.h>

namespace VexOs {

namespace {
int g_pipeError = 0; // why there is no pipe
int g_readEnd = -1;
int g_writeEnd = -1;

void* Watch(void*)
{
    char byte;
    ssize_t got = 0;
    do {
        got = ::read(g_readEnd, &byte, 1);
    } while (got > 0 || (got < 0 && errno == EINTR));
    VexCore::SendSignal(::getpid(), SIGTERM);
    return nullptr;
}

// Why it could not be started, 0 when it was.
int StartWatch()
{
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int error = ::pthread_create(&thread, &attributes, Watch, nullptr);
    pthread_attr_destroy(&attributes);
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return error;
}

} // namespace

void PrepareToBeFollowed()
{
    // One pipe serves all children, one after the other.
    int ends[2];
    if (g_readEnd >= 0)
        return;
    if (::pipe(ends) != 0) {
        g_pipeError = errno;
        return;
    }
    g_readEnd = ends[0];
    g_writeEnd = ends[1];
    ::fcntl(g_readEnd, F_SETFD, FD_CLOEXEC);
    ::fcntl(g_writeEnd, F_SETFD, FD_CLOEXEC);
}

bool FollowParent(pid_t parent)
{
    int error = g_pipeError;
    if (g_readEnd >= 0) {
        ::close(g_writeEnd);
        g_writeEnd = -1;
        error = StartWatch();
    }
    if (error != 0)
        wxLogSysError(error, "Unable to watch the supervisor: if it is killed, this process runs on");
    return ::getppid() == parent;
}

} // namespace VexOs
